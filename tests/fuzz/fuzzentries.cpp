// The fuzz targets' entry points: decode the leading bytes, write the file, call the routine.
#include "fuzzentries.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>

#include "records.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"

namespace zelmfuzz {

using fortran::char25;
using fortran::char40;
using fortran::farray;
using fortran::logical;
namespace io = mod_zelmgrid::io;

namespace {

params decode(const std::uint8_t* data, std::size_t size) {
  std::uint8_t h[headerbytes] = {};
  std::copy_n(data, std::min(size, headerbytes), h);
  params p;
  p.code = h[0];
  p.flags = h[1];
  p.nzones = h[2];
  p.nvar = h[3];
  std::copy_n(h + 4, 8, p.counts);
  std::copy_n(h + 12, 4, p.extra);
  return p;
}

int filetypeof(std::uint8_t b) {
  const int c = b % 4;
  return c == 3 ? 7 : c;
}
int nzonesof(std::uint8_t b) {
  return b % 8 - 1;
}

// A failure that ends the run: readers must never take this way out.
void failurehandler(const std::string& message) {
  std::fprintf(stderr, "zelmfuzz: a reading routine ended the run: %s\n", message.c_str());
  std::abort();
}
void stophandler() {
  std::fprintf(stderr, "zelmfuzz: a reading routine stopped the program\n");
  std::abort();
}

// The library's state as a fresh process has it, so that every input runs alike.
void reset() {
  mod_zelmgrid::resetstate();
  mod_gridvars::numrstrtvar = 0;
  mod_gridvars::readallvars = 0;
  mod_gridvars::npixvar = 0;
  mod_gridvars::readerrordetail.clear();
  fortran::allocationfill = -1;
  // No input is large enough to fill an array of more than a few megabytes: larger requests fail
  // at once, as they would where memory runs out, instead of costing the sanitizer's bookkeeping.
  fortran::allocationlimit = std::size_t{1} << 22;
  io::setmaxsubrecord(0);
  io::setstdout(nullptr);
  io::setfailurehandler(failurehandler);
  io::setstophandler(stophandler);
}

void writeinput(const std::uint8_t* data, std::size_t size) {
  const std::size_t skip = std::min(size, headerbytes);
  const int fd = inputfd();
  if (::ftruncate(fd, 0) != 0) std::abort();
  for (std::size_t done = skip; done < size;) {
    const ssize_t put = ::pwrite(fd, data + done, size - done, static_cast<off_t>(done - skip));
    if (put <= 0) std::abort();
    done += static_cast<std::size_t>(put);
  }
}

// The caller's per-zone count array: nzones entries (one fewer when flag bit 2 is set).
void countarray(const params& p, int nzones, farray<int, 1>& a) {
  const int n = std::max(nzones - ((p.flags & 4) ? 1 : 0), 0);
  if (a.allocate(n) != 0) std::abort();
  for (int i = 1; i <= n; ++i) a(i) = countof(p.counts[(i - 1) % 8]);
}

// A value array that the caller passes already allocated (flag bit 3): the routine's allocation
// then fails and it goes on with this one.
template <class T>
void preallocate(const params& p, farray<T, 2>& a) {
  if ((p.flags & 8) == 0) return;
  if (a.allocate(p.extra[2] % 4, p.extra[3] % 64) != 0) std::abort();
  std::fill_n(a.data(), a.size(), T(0));
}

char40 name() {
  return char40(inputpath());
}

// ---- targets --------------------------------------------------------------------------------

int rungridheader(const std::uint8_t* data, std::size_t size) {
  reset();
  const params p = decode(data, size);
  writeinput(data, size);
  const int filetype = filetypeof(p.code);
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  if (p.flags & 8) (void)nptsz.allocate(1);
  mod_zelmgrid::readzelmgridheader(name(), filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
  checkreport("readzelmgridheader");
  reset();
  return 0;
}

int rungrid(const std::uint8_t* data, std::size_t size) {
  reset();
  const params p = decode(data, size);
  writeinput(data, size);
  const int filetype = filetypeof(p.code);
  const logical dblprec = p.flags & 1;
  const logical readconn = (p.flags >> 1) & 1;
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<float, 2> x;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;
  // Arguments passed already allocated: each makes the routine's allocation of it fail.
  const std::uint8_t pre = (p.flags & 8) ? p.extra[1] : 0;
  if (pre & 1) (void)x.allocate(1, 1);
  if (pre & 2) (void)nptsz.allocate(1);
  if (pre & 4) (void)nfacesz.allocate(1);
  if (pre & 8) (void)mnpfz.allocate(1);
  if (pre & 16) (void)npf.allocate(1);
  if (pre & 32) (void)ifnode.allocate(1, 1);
  if (pre & 64) (void)ifcell.allocate(2, 1);
  if (pre & 128) (void)mfpcz.allocate(1);
  for (auto* a : {&nptsz, &nfacesz, &mnpfz, &npf, &mfpcz}) std::fill_n(a->data(), a->size(), 0);
  std::fill_n(x.data(), x.size(), 0.0f);
  std::fill_n(ifnode.data(), ifnode.size(), 0);
  std::fill_n(ifcell.data(), ifcell.size(), 0);
  mod_zelmgrid::readzelmgrid(name(), filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz,
                             mnpfz, mfpcz, npf, ifnode, ifcell, readconn);
  checkreport("readzelmgrid");
  reset();
  return 0;
}

int runrestart(const std::uint8_t* data, std::size_t size) {
  reset();
  const params p = decode(data, size);
  writeinput(data, size);
  const int filetype = filetypeof(p.code);
  const logical dblprec = p.flags & 1;
  const bool all = (p.flags & 2) != 0;
  const int nzones = nzonesof(p.nzones);
  farray<int, 1> ncellsz;
  countarray(p, nzones, ncellsz);
  farray<float, 2> q;
  preallocate(p, q);
  const int nvar = std::clamp(countof(p.nvar), -2, 40);
  mod_gridvars::numrstrtvar = nvar;
  mod_gridvars::readallvars = all ? 1 : 0;
  mod_zelmgrid::readzelmrstrtfile(name(), filetype, dblprec, nzones, ncellsz, q);
  checkreport("readzelmrstrtfile");
  if (!all) {
    // The next-variable reader, once per variable; its code may differ from the opener's (it
    // reads framed records for code 0 only).
    const int nextcode = (p.extra[0] & 1) ? filetypeof(static_cast<std::uint8_t>(p.extra[0] >> 1)) : filetype;
    for (int ivar = 1; ivar <= std::max(nvar, 0) + (p.extra[0] >> 6); ++ivar) {
      mod_gridvars::readerrordetail.clear();
      mod_zelmgrid::readnextzelmrstrtvar(ivar, name(), nextcode, dblprec, nzones, ncellsz, q);
      checkreport("readnextzelmrstrtvar");
    }
  }
  reset();
  return 0;
}

int runpix(const std::uint8_t* data, std::size_t size) {
  reset();
  const params p = decode(data, size);
  writeinput(data, size);
  const int filetype = filetypeof(p.code);
  const logical dblprec = p.flags & 1;
  const bool all = (p.flags & 2) != 0;
  const int nzones = nzonesof(p.nzones);
  farray<int, 1> nptsz;
  countarray(p, nzones, nptsz);
  farray<float, 2> pix;
  preallocate(p, pix);
  mod_gridvars::readallvars = all ? 1 : 0;
  mod_zelmgrid::readzelmpixfile(name(), filetype, dblprec, nzones, nptsz, pix);
  checkreport("readzelmpixfile");
  if (!all) {
    const int nextcode = (p.extra[0] & 1) ? filetypeof(static_cast<std::uint8_t>(p.extra[0] >> 1)) : filetype;
    // Variables 1 .. 6 + nfree (nfree as the call for variable 7 reads it), at most 30 calls, and
    // up to three calls past the end of the file.
    const int beyond = p.nvar % 4;
    for (int ivar = 1; ivar <= 30 && ivar <= 6 + std::clamp(mod_zelmgrid::nfree, 0, 24) + beyond; ++ivar) {
      mod_gridvars::readerrordetail.clear();
      mod_zelmgrid::readnextzelmpixvar(ivar, name(), nextcode, dblprec, nzones, nptsz, pix);
      checkreport("readnextzelmpixvar");
    }
  }
  reset();
  return 0;
}

// The list-directed and A-edit reads on their own: a program of up to eight statements, each
// described by one byte (bits 0-2 the item kind, bits 3-7 the number of items).
int runlistdirected(const std::uint8_t* data, std::size_t size) {
  reset();
  const params p = decode(data, size);
  writeinput(data, size);
  constexpr int unitno = 20;
  io::open(unitno, inputpath(), "formatted", "old");
  io::unit& u = io::getunit(unitno);
  const int statements = 1 + p.code % 8;
  int ivals[32] = {};
  float rvals[32] = {};
  double dvals[32] = {};
  char25 text;
  for (int s = 0; s < statements; ++s) {
    const std::uint8_t d = s < 8 ? p.counts[s] : 0;
    const int n = d >> 3;  // 0 .. 31 items
    u.context = {"statement", s + 1};
    mod_gridvars::readerrordetail.clear();
    io::rstat st = io::rstat::ok;
    switch (d & 7) {
      case 0: st = io::listread(u, io::items(ivals, n)); break;
      case 1: st = io::listread(u, io::items(rvals, n)); break;
      case 2: st = io::listread(u, io::items(dvals, n)); break;
      case 3: st = io::aread(u, io::text(text)); break;
      case 4: {  // a count, then that many values (at most 31 fit)
        const io::lazyseq<int> seq{ivals + 1, &ivals[0], 31};
        st = io::listread(u, ivals[0], seq, dvals[0]);
        break;
      }
      case 5: st = io::listread(u, ivals[0], rvals[0], dvals[0], io::items(ivals + 1, n, 1)); break;
      case 6: st = io::listread(u); break;  // no items: passes over one line
      case 7: {                             // strided section
        st = io::listread(u, io::items(dvals, std::min(n, 16), 2));
        break;
      }
    }
    if (st != io::rstat::ok) {
      mod_gridvars::readerrordetail = io::lastreaderror();
      checkreport("listread");
      if (st == io::rstat::end && (p.flags & 1)) io::rewind(unitno);  // and read the file again
    }
  }
  io::close(unitno);
  reset();
  return 0;
}

void fail(const char* routine, const std::string& why, const std::string& detail) {
  std::fprintf(stderr, "zelmfuzz: %s: %s\n  the account was: %s\n", routine, why.c_str(), detail.c_str());
  std::abort();
}

}  // namespace

int countof(std::uint8_t b) {
  // Either small enough to cost nothing or so large that no allocation of it can succeed: counts in
  // between make every input slow under the address sanitizer without reaching new code.
  static constexpr int special[16] = {-1,      -2,          -1000,      255,     300,     511,
                                      1000,    4096,        1 << 27,    1 << 28, 1 << 30, INT_MAX,
                                      INT_MIN, INT_MAX - 5, -(1 << 30), 1 << 29};
  return b < 240 ? b : special[b - 240];
}

std::uint8_t bytefor(int count) {
  if (count >= 0 && count < 240) return static_cast<std::uint8_t>(count);
  for (int b = 240; b < 256; ++b)
    if (countof(static_cast<std::uint8_t>(b)) == count) return static_cast<std::uint8_t>(b);
  std::abort();
}

std::string makeinput(const params& p, const std::string& file) {
  std::string s(headerbytes, '\0');
  s[0] = static_cast<char>(p.code);
  s[1] = static_cast<char>(p.flags);
  s[2] = static_cast<char>(p.nzones);
  s[3] = static_cast<char>(p.nvar);
  for (int i = 0; i < 8; ++i) s[4 + static_cast<std::size_t>(i)] = static_cast<char>(p.counts[i]);
  for (int i = 0; i < 4; ++i) s[12 + static_cast<std::size_t>(i)] = static_cast<char>(p.extra[i]);
  return s + file;
}

const std::vector<entry>& entries() {
  static const std::vector<entry> all = {
      {"gridheader", rungridheader},     {"grid", rungrid}, {"restart", runrestart}, {"pix", runpix},
      {"listdirected", runlistdirected},
  };
  return all;
}

const entry* findentry(const std::string& name) {
  for (const auto& e : entries())
    if (name == e.name) return &e;
  return nullptr;
}

// The input file lives in memory with no name in any folder, so that no run, however it ends,
// leaves it behind; the routines open it by the name /proc gives its descriptor.
int inputfd() {
  static const int fd = [] {
    const int f = ::memfd_create("zelmfuzz-input", MFD_CLOEXEC);
    if (f < 0) {
      std::perror("memfd_create");
      std::abort();
    }
    return f;
  }();
  return fd;
}

const std::string& inputpath() {
  static const std::string path = "/proc/self/fd/" + std::to_string(inputfd());
  return path;
}

std::vector<std::string>* accounts = nullptr;

void checkreport(const char* routine) {
  const std::string& d = mod_gridvars::readerrordetail;
  if (d.empty()) return;
  if (accounts != nullptr) accounts->push_back(d);
  const bool named = d.find('"' + inputpath() + '"') != std::string::npos;
  const bool unconnected = d.find("not connected") != std::string::npos;
  if (!named && !unconnected) fail(routine, "the account of a failed read names no file", d);
  if (named) {
    if (d.find(" at byte ") == std::string::npos) fail(routine, "the account gives no byte offset", d);
    if (d.find("(unformatted") == std::string::npos && d.find("(binary") == std::string::npos &&
        d.find("(formatted") == std::string::npos)
      fail(routine, "the account names no encoding", d);
    if (d.find(", record ") == std::string::npos && d.find(", line ") == std::string::npos)
      fail(routine, "the account names no record or line", d);
  }
  const auto colon = d.rfind(": ");
  if (colon == std::string::npos || colon + 2 >= d.size()) fail(routine, "the account gives no cause", d);
  // What the record is, right after its number: "(zone 2 face 17)", "(variable 3 zone 2)", ...
  if (named) {
    std::size_t at = d.find(", record ");
    if (at == std::string::npos) at = d.find(", line ");
    at = d.find_first_not_of("0123456789", d.find(' ', at + 2) + 1);
    if (d.compare(at, 2, " (") != 0) fail(routine, "the account does not say what the record is", d);
  }
}

}  // namespace zelmfuzz
