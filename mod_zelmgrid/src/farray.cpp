// Storage for the array type. First-touching fresh memory costs a page fault per 4 KiB page, which
// on a virtual machine can cost more than the transfer that fills the page. So large arrays are
// aligned to 2 MiB and marked for transparent huge pages (one fault per 2 MiB), and the pages that
// no huge page covers (a tail under 1 MiB, or a whole array from 64 KiB to 2 MiB) are populated in
// one system call instead of one fault each. Arrays under 64 KiB come from the heap as they are.
#include "zelmgrid/farray.hpp"

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace fortran {

int allocationfill = -1;
std::size_t allocationlimit = SIZE_MAX;
bool hugepages = true;

namespace detail {

namespace {
constexpr std::size_t page = 4096;
constexpr std::size_t hugepage = std::size_t{2} << 20;
constexpr std::size_t populatethreshold = std::size_t{64} << 10;

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23  // Linux 5.14; older kernels refuse it, and the pages fault as usual
#endif

// Maps in the whole pages of [p, p + n) at once.
void populate(void* p, std::size_t n) {
  const auto a = reinterpret_cast<std::uintptr_t>(p);
  const std::uintptr_t first = (a + page - 1) / page * page;
  const std::uintptr_t last = (a + n) / page * page;
  if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_POPULATE_WRITE);
}
}  // namespace

void* allocatebytes(std::size_t bytes) {
  void* p = nullptr;
  if (hugepages && bytes >= hugepage) {
    const std::size_t rounded = (bytes + hugepage - 1) / hugepage * hugepage;
    p = std::aligned_alloc(hugepage, rounded);
    if (p != nullptr) {
      // Huge pages for the whole 2 MiB blocks, and for a last partial block of 1 MiB or more; a
      // shorter tail keeps 4 KiB pages, so that an array takes at most 1 MiB more than it needs.
      std::size_t huge = bytes / hugepage * hugepage;
      if (bytes - huge >= hugepage / 2) huge = rounded;
      madvise(p, huge, MADV_HUGEPAGE);
      if (huge < bytes) populate(static_cast<char*>(p) + huge, (bytes - huge + page - 1) / page * page);
    }
  } else {
    p = std::malloc(bytes == 0 ? 1 : bytes);
    if (p != nullptr && hugepages && bytes >= populatethreshold) populate(p, bytes);
  }
  if (p != nullptr && allocationfill >= 0) std::memset(p, allocationfill, bytes);
  return p;
}

void preparebytes(void* p, std::size_t bytes) {
  if (hugepages && bytes >= populatethreshold) {
    // Huge pages for the whole 2 MiB blocks inside the memory, then everything mapped in at once.
    const auto a = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t first = (a + hugepage - 1) / hugepage * hugepage;
    const std::uintptr_t last = (a + bytes) / hugepage * hugepage;
    if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
    populate(p, bytes);
  }
  if (allocationfill >= 0) std::memset(p, allocationfill, bytes);
}

void releasebytes(void* p, std::size_t /*bytes*/) {
  std::free(p);
}

}  // namespace detail
}  // namespace fortran
