// Storage for the array type. Small arrays come from the heap; large ones are aligned to 2 MiB and
// marked for transparent huge pages, so that the first touch of a large output array costs one
// fault per 2 MiB instead of one per 4 KiB.
#include "zelmgrid/farray.hpp"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace fortran {

int allocationfill = -1;
std::size_t allocationlimit = SIZE_MAX;
bool hugepages = true;

namespace detail {

namespace {
constexpr std::size_t hugepage = std::size_t{2} << 20;
constexpr std::size_t hugethreshold = std::size_t{4} << 20;
}  // namespace

void* allocatebytes(std::size_t bytes) {
  void* p = nullptr;
  if (hugepages && bytes >= hugethreshold) {
    const std::size_t rounded = (bytes + hugepage - 1) / hugepage * hugepage;
    p = std::aligned_alloc(hugepage, rounded);
    if (p != nullptr) madvise(p, rounded, MADV_HUGEPAGE);
  } else {
    p = std::malloc(bytes == 0 ? 1 : bytes);
  }
  if (p != nullptr && allocationfill >= 0) std::memset(p, allocationfill, bytes);
  return p;
}

void releasebytes(void* p, std::size_t /*bytes*/) { std::free(p); }

}  // namespace detail
}  // namespace fortran
