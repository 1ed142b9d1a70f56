// The library's one array type: allocatable, column-major, lower bound 1, rank 1 or 2.
//
// Like a Fortran allocatable array it starts unallocated, is allocated with extents and a status,
// and keeps its values uninitialised. Large arrays are backed by huge pages where the kernel has
// them, because first-touching fresh 4 KiB pages dominates the cost of reading a big file.
#pragma once

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace fortran {

using index_t = std::int64_t;

// Allocation statuses (0 is success).
inline constexpr int stat_already_allocated = 1;
inline constexpr int stat_no_memory = 2;
inline constexpr int stat_not_allocated = 3;

namespace detail {
// Returns storage for `bytes` bytes (nullptr on failure; a non-null pointer for 0 bytes).
void* allocatebytes(std::size_t bytes);
void releasebytes(void* p, std::size_t bytes);
// Readies `bytes` bytes of fresh memory from elsewhere as allocatebytes readies its own (huge pages,
// pages mapped in at once), and applies allocationfill.
void preparebytes(void* p, std::size_t bytes);
}  // namespace detail

// Storage that belongs to someone else, such as a Fortran caller's allocatable array. An farray
// attached to it allocates and releases through it, and leaves it as it is when destroyed.
class foreignstorage {
 public:
  // Allocates for `rank` extents (none negative); returns 0 and the storage's address in *base,
  // or a non-zero status and leaves the storage unallocated.
  virtual int allocate(const std::int64_t* extents, int rank, void** base) = 0;
  virtual void release() = 0;

 protected:
  ~foreignstorage() = default;
};

// Whether large arrays are aligned to 2 MiB and marked for transparent huge pages, and arrays of
// 64 KiB and more have their remaining pages mapped in at once (the default). Off, every array
// comes from the heap and its 4 KiB pages fault in one at a time as they are first written.
extern bool hugepages;

// Byte written into every new allocation when set (0..255); -1, the default, leaves memory as the
// allocator gives it. Tests use it to tell unset elements from read ones.
extern int allocationfill;

// Largest allocation in bytes; a larger request fails with stat_no_memory as if memory had run out.
// The default has no limit. Tests and the fuzz targets lower it to make allocation failures happen
// where a file's counts ask for more than they allow, on any machine.
extern std::size_t allocationlimit;

template <class T, int Rank>
class farray {
  static_assert(Rank == 1 || Rank == 2, "ranks 1 and 2 only");

 public:
  farray() = default;
  farray(const farray&) = delete;
  farray& operator=(const farray&) = delete;
  farray(farray&& o) noexcept { take(o); }
  farray& operator=(farray&& o) noexcept {
    if (this != &o) {
      release();
      take(o);
    }
    return *this;
  }
  ~farray() { release(); }

  // Attaches the array to storage it does not own: allocated with extents n at p when p is not
  // null, unallocated otherwise. With an owner, allocate and deallocate go through it; without one
  // (memory lent for a call) the array cannot be allocated or deallocated again. On destruction the
  // storage is left as it is.
  void attach(foreignstorage* owner, T* p, std::array<index_t, Rank> n) {
    release();
    owner_ = owner;
    lent_ = true;
    if (p != nullptr) {
      p_ = p;
      n_ = n;
      allocated_ = true;
    }
  }

  // Allocates with the given extents; negative extents count as 0. Returns 0, or a non-zero status
  // and leaves the array as it was.
  int allocate(index_t n1) requires(Rank == 1) { return allocateextents({n1}); }
  int allocate(index_t n1, index_t n2) requires(Rank == 2) { return allocateextents({n1, n2}); }

  // Releases the storage. Returns 0, or stat_not_allocated when there was nothing to release.
  int deallocate() {
    if (!allocated_ || (lent_ && owner_ == nullptr)) return stat_not_allocated;
    if (owner_ != nullptr) owner_->release();
    release();
    return 0;
  }

  bool allocated() const { return allocated_; }
  index_t size() const {
    index_t s = 1;
    for (index_t e : n_) s *= e;
    return allocated_ ? s : 0;
  }
  // Extent of dimension dim (1-based); 0 when unallocated.
  index_t extent(int dim) const { return allocated_ ? n_[dim - 1] : 0; }

  T& operator()(index_t i) requires(Rank == 1) {
    assert(allocated_ && i >= 1 && i <= n_[0]);
    return p_[i - 1];
  }
  const T& operator()(index_t i) const requires(Rank == 1) {
    assert(allocated_ && i >= 1 && i <= n_[0]);
    return p_[i - 1];
  }
  T& operator()(index_t i, index_t j) requires(Rank == 2) {
    assert(allocated_ && i >= 1 && i <= n_[0] && j >= 1 && j <= n_[1]);
    return p_[(i - 1) + (j - 1) * n_[0]];
  }
  const T& operator()(index_t i, index_t j) const requires(Rank == 2) {
    assert(allocated_ && i >= 1 && i <= n_[0] && j >= 1 && j <= n_[1]);
    return p_[(i - 1) + (j - 1) * n_[0]];
  }

  T* data() { return p_; }
  const T* data() const { return p_; }

 private:
  int allocateextents(std::array<index_t, Rank> n) {
    if (allocated_) return stat_already_allocated;
    std::size_t count = 1;
    for (auto& e : n) {
      if (e < 0) e = 0;
      if (e != 0 && count > SIZE_MAX / sizeof(T) / static_cast<std::size_t>(e)) return stat_no_memory;
      count *= static_cast<std::size_t>(e);
    }
    if (count > allocationlimit / sizeof(T)) return stat_no_memory;
    void* p = nullptr;
    if (lent_) {
      if (owner_ == nullptr) return stat_already_allocated;
      if (const int stat = owner_->allocate(n.data(), Rank, &p); stat != 0) return stat;
      detail::preparebytes(p, count * sizeof(T));
    } else {
      p = detail::allocatebytes(count * sizeof(T));
      if (p == nullptr) return stat_no_memory;
    }
    p_ = static_cast<T*>(p);
    n_ = n;
    bytes_ = count * sizeof(T);
    allocated_ = true;
    return 0;
  }
  // Frees the array's own storage; detaches from storage it does not own.
  void release() {
    if (allocated_ && !lent_) detail::releasebytes(p_, bytes_);
    p_ = nullptr;
    n_ = {};
    bytes_ = 0;
    allocated_ = false;
  }
  void take(farray& o) {
    p_ = std::exchange(o.p_, nullptr);
    n_ = std::exchange(o.n_, {});
    bytes_ = std::exchange(o.bytes_, 0);
    allocated_ = std::exchange(o.allocated_, false);
    owner_ = std::exchange(o.owner_, nullptr);
    lent_ = std::exchange(o.lent_, false);
  }

  T* p_ = nullptr;
  std::array<index_t, Rank> n_{};
  std::size_t bytes_ = 0;
  bool allocated_ = false;
  bool lent_ = false;                // the storage is not the array's own (attach)
  foreignstorage* owner_ = nullptr;  // where a lent array allocates and releases
};

}  // namespace fortran
