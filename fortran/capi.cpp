// The C functions of zelmgrid.h: each turns its arguments into the routine's and calls it.
//
// Allocatable arrays stay the caller's: an farray is attached to the caller's C descriptor, so the
// routine allocates and releases the caller's own array (CFI_allocate, CFI_deallocate) and reads
// straight into it. Arrays that are only read or updated are lent to the routine where they lie.
#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "zelmgrid/mod_zelmgrid.hpp"
#include "zelmgrid/zelmgrid.h"

namespace {

using fortran::farray;
using fortran::index_t;
using mod_zelmgrid::char40;

template <class T>
constexpr CFI_type_t cfitype() {
  return std::is_same_v<T, int> ? CFI_type_int : CFI_type_float;
}

// A caller's allocatable array as the routine's farray.
template <class T, int Rank>
class allocatable final : public fortran::foreignstorage {
 public:
  allocatable(CFI_cdesc_t* d, const char* routine, const char* name) : d_(d) {
    if (d == nullptr || d->attribute != CFI_attribute_allocatable || d->rank != Rank ||
        d->type != cfitype<T>() || d->elem_len != sizeof(T))
      mod_zelmgrid::io::fail(std::string(routine) + ": " + name + " is not an allocatable array of rank " +
                             std::to_string(Rank) + " of 4-byte " +
                             (cfitype<T>() == CFI_type_int ? "integers" : "reals"));
    std::array<index_t, Rank> n{};
    if (d->base_addr != nullptr)
      for (int i = 0; i < Rank; ++i) n[i] = d->dim[i].extent;
    a.attach(this, static_cast<T*>(d->base_addr), n);
  }
  allocatable(const allocatable&) = delete;
  allocatable& operator=(const allocatable&) = delete;

  int allocate(const std::int64_t* extents, int rank, void** base) override {
    CFI_index_t lower[CFI_MAX_RANK], upper[CFI_MAX_RANK];
    for (int i = 0; i < rank; ++i) {
      lower[i] = 1;
      upper[i] = extents[i];
    }
    if (CFI_allocate(d_, lower, upper, 0) != CFI_SUCCESS) return fortran::stat_no_memory;
    *base = d_->base_addr;
    return 0;
  }
  void release() override { CFI_deallocate(d_); }

 private:
  CFI_cdesc_t* d_;

 public:
  farray<T, Rank> a;  // declared after d_: attached to it
};

// Memory lent for the call: allocated with the given extents, never reallocated or released.
template <class T, int Rank>
farray<T, Rank> lent(const T* p, std::array<index_t, Rank> n) {
  static T none{};  // where an empty array lies when the caller gives no address
  for (auto& e : n) e = std::max<index_t>(e, 0);
  farray<T, Rank> a;
  a.attach(nullptr, const_cast<T*>(p != nullptr ? p : &none), n);
  return a;
}
template <class T>
farray<T, 1> lent(const T* p, index_t n1) {
  return lent<T, 1>(p, {n1});
}
template <class T>
farray<T, 2> lent(const T* p, index_t n1, index_t n2) {
  return lent<T, 2>(p, {n1, n2});
}

char40 name40(const char* filename) {
  char40 f;
  std::memcpy(f.data(), filename, 40);
  return f;
}

// Hands what a routine left buffered on a unit that stays connected to the operating system, so
// that the caller finds the file complete when the call returns.
void handover(int unit) {
  if (mod_zelmgrid::io::isconnected(unit)) mod_zelmgrid::io::flush(unit);
}

zelm_failurehandler failurehandler = nullptr;

void callfailurehandler(const std::string& message) {
  failurehandler(message.data(), message.size());
}

}  // namespace

extern "C" {

void zelm_readzelmgridheader(const char* filename, const int* filetype, int* ndim, int* nzones, int* ngridaux,
                             CFI_cdesc_t* nptsz, CFI_cdesc_t* ncellsz) {
  const char* r = "readzelmgridheader";
  allocatable<int, 1> np(nptsz, r, "nptsz"), nc(ncellsz, r, "ncellsz");
  mod_zelmgrid::readzelmgridheader(name40(filename), *filetype, *ndim, *nzones, *ngridaux, np.a, nc.a);
}

void zelm_readzelmgrid(const char* filename, const int* filetype, const int* dblprec, int* ndim, int* nzones,
                       int* ngridaux, CFI_cdesc_t* x, CFI_cdesc_t* nptsz, CFI_cdesc_t* nfacesz,
                       CFI_cdesc_t* ncellsz, CFI_cdesc_t* mnpfz, CFI_cdesc_t* mfpcz, CFI_cdesc_t* npf,
                       CFI_cdesc_t* ifnode, CFI_cdesc_t* ifcell, const int* readconn) {
  const char* r = "readzelmgrid";
  allocatable<float, 2> xa(x, r, "x");
  allocatable<int, 1> np(nptsz, r, "nptsz"), nf(nfacesz, r, "nfacesz"), nc(ncellsz, r, "ncellsz");
  allocatable<int, 1> mn(mnpfz, r, "mnpfz"), mf(mfpcz, r, "mfpcz"), pf(npf, r, "npf");
  allocatable<int, 2> fn(ifnode, r, "ifnode"), fc(ifcell, r, "ifcell");
  mod_zelmgrid::readzelmgrid(name40(filename), *filetype, *dblprec, *ndim, *nzones, *ngridaux, xa.a, np.a,
                             nf.a, nc.a, mn.a, mf.a, pf.a, fn.a, fc.a, *readconn);
}

void zelm_writezelmgrid(const char* filename, const int* filetype, const int* dblprec, const int* ndim,
                        const int* nzones, const int* ngridaux, const float* x, int64_t x1, int64_t x2,
                        const int* nptsz, int64_t nptsz1, const int* nfacesz, int64_t nfacesz1,
                        const int* ncellsz, int64_t ncellsz1, const int* mnpfz, int64_t mnpfz1,
                        const int* mfpcz, int64_t mfpcz1, const int* npf, int64_t npf1, const int* ifnode,
                        int64_t ifnode1, int64_t ifnode2, const int* ifcell, int64_t ifcell1,
                        int64_t ifcell2) {
  mod_zelmgrid::writezelmgrid(
      name40(filename), *filetype, *dblprec, *ndim, *nzones, *ngridaux, lent(x, x1, x2), lent(nptsz, nptsz1),
      lent(nfacesz, nfacesz1), lent(ncellsz, ncellsz1), lent(mnpfz, mnpfz1), lent(mfpcz, mfpcz1),
      lent(npf, npf1), lent(ifnode, ifnode1, ifnode2), lent(ifcell, ifcell1, ifcell2));
  handover(4);
}

void zelm_readzelmrstrtfile(const char* filename, const int* filetype, const int* dblprec, const int* nzones,
                            const int* ncellsz, int64_t ncellsz1, CFI_cdesc_t* q) {
  allocatable<float, 2> qa(q, "readzelmrstrtfile", "q");
  mod_zelmgrid::readzelmrstrtfile(name40(filename), *filetype, *dblprec, *nzones, lent(ncellsz, ncellsz1),
                                  qa.a);
}

void zelm_readnextzelmrstrtvar(const int* ivar, const char* filename, const int* filetype, const int* dblprec,
                               const int* nzones, const int* ncellsz, int64_t ncellsz1, CFI_cdesc_t* q) {
  allocatable<float, 2> qa(q, "readnextzelmrstrtvar", "q");
  mod_zelmgrid::readnextzelmrstrtvar(*ivar, name40(filename), *filetype, *dblprec, *nzones,
                                     lent(ncellsz, ncellsz1), qa.a);
}

void zelm_writezelmrstrtfile(const char* filename, const int* filetype, const int* dblprec, const int* nzones,
                             const int* ncellsz, int64_t ncellsz1, const float* q, int64_t q1, int64_t q2) {
  mod_zelmgrid::writezelmrstrtfile(name40(filename), *filetype, *dblprec, *nzones, lent(ncellsz, ncellsz1),
                                   lent(q, q1, q2));
}

void zelm_writenextzelmrstrtvar(const int* ivar, const char* filename, const int* filetype,
                                const int* dblprec, const int* nzones, const int* ncellsz, int64_t ncellsz1,
                                const float* q, int64_t q1, int64_t q2) {
  mod_zelmgrid::writenextzelmrstrtvar(*ivar, name40(filename), *filetype, *dblprec, *nzones,
                                      lent(ncellsz, ncellsz1), lent(q, q1, q2));
  handover(16);
}

void zelm_readzelmpixfile(const char* filename, const int* filetype, const int* dblprec, const int* nzones,
                          const int* nptsz, int64_t nptsz1, CFI_cdesc_t* pix) {
  allocatable<float, 2> pa(pix, "readzelmpixfile", "pix");
  mod_zelmgrid::readzelmpixfile(name40(filename), *filetype, *dblprec, *nzones, lent(nptsz, nptsz1), pa.a);
}

void zelm_readnextzelmpixvar(const int* ivar, const char* filename, const int* filetype, const int* dblprec,
                             const int* nzones, const int* nptsz, int64_t nptsz1, CFI_cdesc_t* pix) {
  allocatable<float, 2> pa(pix, "readnextzelmpixvar", "pix");
  mod_zelmgrid::readnextzelmpixvar(*ivar, name40(filename), *filetype, *dblprec, *nzones, lent(nptsz, nptsz1),
                                   pa.a);
}

void zelm_writezelmpixfile(const char* filename, const int* filetype, const int* dblprec, const int* nzones,
                           const int* nptsz, int64_t nptsz1, const float* pix, int64_t pix1, int64_t pix2) {
  mod_zelmgrid::writezelmpixfile(name40(filename), *filetype, *dblprec, *nzones, lent(nptsz, nptsz1),
                                 lent(pix, pix1, pix2));
}

void zelm_writenextzelmpixvar(const int* ivar, const char* filename, const int* filetype, const int* dblprec,
                              const int* nzones, const int* nptsz, int64_t nptsz1, const float* pix,
                              int64_t pix1, int64_t pix2) {
  mod_zelmgrid::writenextzelmpixvar(*ivar, name40(filename), *filetype, *dblprec, *nzones,
                                    lent(nptsz, nptsz1), lent(pix, pix1, pix2));
  handover(14);
}

void zelm_writetecplotfile(const char* filename, const int* ndim, const int* nzones, const double* x,
                           int64_t x1, int64_t x2, const int* nptsz, int64_t nptsz1, const int* nfacesz,
                           int64_t nfacesz1, const int* ncellsz, int64_t ncellsz1, const int* mnpfz,
                           int64_t mnpfz1, const int* mfpcz, int64_t mfpcz1, const int* npf, int64_t npf1,
                           const int* ifnode, int64_t ifnode1, int64_t ifnode2, int* ifcell, int64_t ifcell1,
                           int64_t ifcell2, const double* qnode, int64_t qnode1, int64_t qnode2) {
  farray<int, 2> fc = lent<int>(ifcell, ifcell1, ifcell2);
  mod_zelmgrid::writetecplotfile(name40(filename), *ndim, *nzones, lent(x, x1, x2), lent(nptsz, nptsz1),
                                 lent(nfacesz, nfacesz1), lent(ncellsz, ncellsz1), lent(mnpfz, mnpfz1),
                                 lent(mfpcz, mfpcz1), lent(npf, npf1), lent(ifnode, ifnode1, ifnode2), fc,
                                 lent(qnode, qnode1, qnode2));
}

void zelm_close(const int* unit) {
  mod_zelmgrid::io::close(*unit);
}

size_t zelm_lastreaderror(char* buf, size_t len) {
  const std::string& e = mod_zelmgrid::io::lastreaderror();
  const size_t n = std::min(len, e.size());
  std::memcpy(buf, e.data(), n);
  std::memset(buf + n, ' ', len - n);
  return e.size();
}

void zelm_setfailurehandler(zelm_failurehandler handler) {
  failurehandler = handler;
  mod_zelmgrid::io::setfailurehandler(handler != nullptr ? callfailurehandler : nullptr);
}

void zelm_setallocationlimit(const size_t* bytes) {
  fortran::allocationlimit = *bytes;
}

}  // extern "C"
