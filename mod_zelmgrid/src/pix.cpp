// Pix files: node-based solution values, read and written whole or one variable per call.
//
// Layout, record by record, in every encoding (reals are 4 or 8 bytes by dblprec in the raw
// encodings; a formatted file writes each record list-directed unless an edit is named):
//   H1  dvar, dgamma, drgas
//   H2  dr0, drm0, dp0
//   H3  string: 25 characters (formatted: edit A25, a line of exactly 25 characters)
//   D   for ivar = 1 .. 6, for iz = 1 .. nzones: the nptsz(iz) values of variable ivar in zone iz
//   N   nfree, one 4-byte integer; optional: a file that ends after D has no free variables
//   L   for k = 1 .. nfree: the label strfree(k), 25 characters (formatted: A25)
//   F   for ivar = 7 .. 6+nfree, for iz = 1 .. nzones: as D
//
// Zone placement: the values of zone iz occupy node columns ioff .. ioff+nptsz(iz)-1 of their
// variable's row, where ioff is 1 for zones 1 and 2 and 1 + nptsz(1) + ... + nptsz(iz-2) from zone 3
// on. Readers and writers use the same rule, so a file goes back to the columns it came from.
//
// Labels: strfree has room for 20 labels and a file may announce more. The readers read labels 21
// and up from the file and drop them; the writers write them as 25 blanks. Either way the records
// stay in step with the file and nothing beyond strfree is read or written.
//
// Counts that do not fit the arrays (a value array whose allocation failed or that is too small,
// nptsz shorter than nzones, negative node counts that move a zone before column 1) are reported
// by the readers as a failed read and end the run in the writers, before anything would be stored
// or fetched outside an array.
#include <algorithm>
#include <cstdint>
#include <string>

#include "internal.hpp"

namespace mod_zelmgrid {

using detail::fits;
using detail::israw;
using detail::openbycode;
using detail::rowitems;
using detail::zoneplacement;
using fortran::index_t;
using io::rstat;

namespace {

constexpr int pixreaderunit = 13;
constexpr int pixwriterunit = 14;
constexpr int readop = 1;
constexpr int writeop = 2;
constexpr int pixkind = 30;
constexpr int pixlevel = 100;
constexpr int fixedvars = 6;        // variables 1 .. 6 are always present
constexpr int firstfreevar = 7;     // the call for this variable carries the free count and labels
constexpr index_t labelslots = 20;  // strfree(1) .. strfree(20)

// Whether every zone with values fits node columns 1 .. cols.
bool zonesfit(int nzones, const farray<int, 1>& nptsz, index_t cols) {
  zoneplacement zp;
  for (int iz = 1; iz <= nzones; ++iz) {
    const int n = nptsz(iz);
    if (n > 0 && (zp.ioff < 1 || zp.ioff + n - 1 > cols)) return false;
    zp.advance(n);
  }
  return true;
}

bool anyvalues(int nzones, const farray<int, 1>& nptsz) {
  for (int iz = 1; iz <= nzones; ++iz)
    if (nptsz(iz) > 0) return true;
  return false;
}

std::string shape(index_t rows, index_t cols, bool allocated) {
  if (!allocated) return "an unallocated array";
  return "an array of " + std::to_string(rows) + " x " + std::to_string(cols);
}

// H1 to H3. A formatted file and a file of 8-byte reals give H1 and H2 straight to dvar .. dp0
// (each item as it is read); a file of 4-byte reals gives them to h4, and the caller decides what
// to keep. H3 goes to `string`.
rstat readheader(io::unit& u, bool text, bool wide, float (&h4)[6]) {
  if (!text && !wide) return layout::readpixheader(u, false, h4, string);
  double h[6] = {dvar, dgamma, drgas, dr0, drm0, dp0};
  const rstat st = layout::readpixheader(u, text, h, string);
  dvar = h[0], dgamma = h[1], drgas = h[2];
  dr0 = h[3], drm0 = h[4], dp0 = h[5];
  return st;
}

// ---- reading ----------------------------------------------------------------------------------

// Passes over one record of n values, reading them one by one into a scratch real that is then
// dropped (4-byte for a raw file of 4-byte reals, 8-byte otherwise). No values still takes a record.
rstat skiprecord(io::unit& u, bool text, bool wide, int n) {
  if (!text && !wide) {
    float scratch = 0;
    return io::rawread(u, io::items(&scratch, n, 0));
  }
  double scratch = 0;
  return io::read(u, text, io::items(&scratch, n, 0));
}

// The labels of the nfree free variables, one record each; those beyond strfree's 20 slots are
// read into a scratch text and dropped.
rstat readlabels(io::unit& u, bool text) {
  char25 dropped;
  for (index_t k = 1; k <= nfree; ++k) {
    u.context = {"label of free variable", k};
    char25& label = k <= labelslots ? strfree(static_cast<std::size_t>(k)) : dropped;
    const rstat st = io::readtext(u, text, label);
    if (st != rstat::ok) return st;
  }
  return rstat::ok;
}

// Reads one record of n values into row `row`, node columns col .. col+n-1 of `a`; a count of 0 or
// less reads the record and stores nothing. On failure the read error has been reported (a
// destination that cannot take the values counts as one) and the caller returns.
template <class T>
bool readvalues(io::unit& u, bool text, farray<T, 2>& a, index_t row, index_t col, index_t n) {
  rstat st;
  if (n <= 0) {
    st = io::read(u, text);
  } else {
    if (!fits(a, row, col, n)) {
      detail::outofbounds(u, std::to_string(n) + " values for node columns " + std::to_string(col) + " .. " +
                                 std::to_string(col + n - 1) + " of row " + std::to_string(row) +
                                 " do not fit " + shape(a.extent(1), a.extent(2), a.allocated()));
      return false;
    }
    st = io::read(u, text, rowitems(a, row, col, n));
  }
  if (st != rstat::ok) {
    detail::readfailed();
    return false;
  }
  return true;
}

// The records of variable ivar need a node count for every zone: without one, the record of the
// first zone that has none is reported as failed before anything is read.
bool zonesknown(io::unit& u, int nzones, const farray<int, 1>& nptsz, int ivar) {
  if (nptsz.extent(1) >= nzones) return true;
  u.context = {"variable", ivar, "zone", nptsz.extent(1) + 1};
  detail::outofbounds(u, "nptsz holds " + std::to_string(nptsz.extent(1)) + " node counts for " +
                             std::to_string(nzones) + " zones");
  return false;
}

// ---- writing ----------------------------------------------------------------------------------

// H1 to H3 from the module variables: list-directed 8-byte values, 8-byte reals, or the values
// rounded to 4-byte reals.
void writeheader(io::unit& u, bool text, bool wide) {
  if (text || wide) {
    const double h[6] = {dvar, dgamma, drgas, dr0, drm0, dp0};
    return layout::writepixheader(u, text, h, string);
  }
  using detail::narrow;
  const float h4[6] = {narrow(dvar), narrow(dgamma), narrow(drgas), narrow(dr0), narrow(drm0), narrow(dp0)};
  layout::writepixheader(u, false, h4, string);
}

// The free count and the labels. Labels beyond strfree's 20 slots are written as blanks.
void writefreecount(io::unit& u, bool text) {
  io::write(u, text, nfree);
}
void writelabels(io::unit& u, bool text) {
  const char25 blank;
  for (index_t k = 1; k <= nfree; ++k)
    io::writetext(u, text, k <= labelslots ? strfree(static_cast<std::size_t>(k)) : blank);
}

// The records of variable `ivar` (row `row` of `a`), zone by zone.
template <class T>
void writevariable(io::unit& u, bool text, const farray<T, 2>& a, index_t row, int nzones,
                   const farray<int, 1>& nptsz) {
  zoneplacement zp;
  for (int iz = 1; iz <= nzones; ++iz) {
    io::write(u, text, rowitems(a, row, zp.ioff, nptsz(iz)));  // no values: an empty record
    zp.advance(nptsz(iz));
  }
}

}  // namespace

// ---- readers ------------------------------------------------------------------------------------

void readzelmpixfile(const char40& filename, const int& filetype, const logical& dblprec, const int& nzones,
                     const farray<int, 1>& nptsz, farray<float, 2>& pix) {
  mod_gridvars::dispreadwrite(readop, pixkind, pixlevel, filename, filetype, dblprec);
  if (!openbycode(pixreaderunit, filename, filetype, detail::fileformat.readzelmpixfile, "old")) {
    io::close(pixreaderunit);
    return;
  }
  io::unit& u = io::getunit(pixreaderunit);
  const bool text = filetype == formatted;
  const bool wide = !text && fortran::istrue(dblprec);  // 8-byte reals on disk
  const bool all = fortran::istrue(mod_gridvars::readallvars);
  float h4[6] = {};  // H1 and H2 of a file of 4-byte reals

  // Pass 1: the header, then the fixed variables passed over to reach the free count.
  if (readheader(u, text, wide, h4) != rstat::ok) return detail::readfailed();
  if (!zonesknown(u, nzones, nptsz, 1)) return;
  for (int ivar = 1; ivar <= fixedvars; ++ivar) {
    for (int iz = 1; iz <= nzones; ++iz) {
      u.context = {"variable", ivar, "zone", iz};
      if (skiprecord(u, text, wide, nptsz(iz)) != rstat::ok) return detail::readfailed();
    }
  }
  u.context = {"free count"};
  if (io::read(u, text, nfree) != rstat::ok) nfree = 0;  // no free count: no free variables
  // The 4-byte sum wraps for a count near the largest integer rather than overflowing.
  mod_gridvars::npixvar = static_cast<int>(static_cast<std::int64_t>(nfree) + fixedvars);

  const index_t nptot = detail::sum(nptsz);
  mod_gridvars::checkallocationerror(all ? pix.allocate(mod_gridvars::npixvar, nptot)
                                         : pix.allocate(1, nptot));
  io::rewind(pixreaderunit);

  if (!all) {
    // One variable per call from here on. A formatted file reads its header again and is left at
    // the first D record; a raw file is left at its start, before H1.
    if (text && readheader(u, text, wide, h4) != rstat::ok) return detail::readfailed();
    return;
  }

  // Pass 2: everything.
  if (readheader(u, text, wide, h4) != rstat::ok) return detail::readfailed();
  if (!text && !wide) {
    dvar = h4[0], dgamma = h4[1], drgas = h4[2];
    dr0 = h4[3], drm0 = h4[4], dp0 = h4[5];
  }

  farray<double, 2> work;  // the values of a file of 8-byte reals, narrowed into pix at the end
  if (wide) mod_gridvars::checkallocationerror(work.allocate(mod_gridvars::npixvar, nptot));

  for (int ivar = 1; ivar <= fixedvars; ++ivar) {
    zoneplacement zp;
    for (int iz = 1; iz <= nzones; ++iz) {
      io::print("Reading Pix Variable ", ivar, " in Zone ", iz, "...");
      u.context = {"variable", ivar, "zone", iz};
      const int n = nptsz(iz);
      if (!(wide ? readvalues(u, text, work, ivar, zp.ioff, n) : readvalues(u, text, pix, ivar, zp.ioff, n)))
        return;
      zp.advance(n);
    }
  }

  u.context = {"free count"};
  const bool hasfree = io::read(u, text, nfree) == rstat::ok;  // tolerated: no message
  if (hasfree) {
    if (readlabels(u, text) != rstat::ok) return detail::readfailed();
    for (std::int64_t ivar = firstfreevar; ivar <= fixedvars + static_cast<std::int64_t>(nfree); ++ivar) {
      zoneplacement zp;
      for (int iz = 1; iz <= nzones; ++iz) {
        io::print("Reading Pix Variable ", static_cast<int>(ivar), " in Zone ", iz, "...");
        u.context = {"variable", ivar, "zone", iz};
        const int n = nptsz(iz);
        bool ok;
        if (text)  // columns ioff .. nptsz(iz): nptsz(iz) - ioff + 1 values, from zone 3 on fewer
          ok = readvalues(u, text, pix, ivar, zp.ioff, static_cast<index_t>(n) - zp.ioff + 1);
        else if (wide)
          ok = readvalues(u, text, work, ivar, zp.ioff, n);
        else
          ok = readvalues(u, text, pix, ivar, zp.ioff, n);
        if (!ok) return;
        zp.advance(n);
      }
    }
  } else if (!wide) {
    io::close(pixreaderunit);
    return;
  }

  if (wide) {
    // Every row of pix, node columns 1 .. nptot, rounded to 4-byte reals.
    const index_t rows = pix.extent(1);
    if (rows > 0 && nptot > 0 && (pix.extent(2) < nptot || work.extent(1) < rows || work.extent(2) < nptot)) {
      u.context = {"8-byte values of variables 1 to", rows};
      return detail::outofbounds(
          u, "the 8-byte values (" + shape(work.extent(1), work.extent(2), work.allocated()) +
                 ") do not cover the value array (" + shape(rows, pix.extent(2), pix.allocated()) + ") for " +
                 std::to_string(nptot) + " node columns");
    }
    for (index_t c = 1; c <= nptot; ++c)
      for (index_t r = 1; r <= rows; ++r) pix(r, c) = detail::narrow(work(r, c));
    work.deallocate();
  }
  io::close(pixreaderunit);
}

void readnextzelmpixvar(const int& ivar, const char40& filename, const int& filetype, const logical& dblprec,
                        const int& nzones, const farray<int, 1>& nptsz, farray<float, 2>& pix) {
  mod_gridvars::dispreadwrite(readop, pixkind, pixlevel, filename, filetype, dblprec, &ivar);
  // The file is the one readzelmpixfile left on unit 13. Codes 0 and 2 read unformatted; every
  // other code reads list-directed text.
  io::unit& u = io::getunit(pixreaderunit);
  const bool text = !israw(filetype);
  const bool wide = !text && fortran::istrue(dblprec);

  if (ivar == firstfreevar) {  // the free count is required here
    u.context = {"free count"};
    if (io::read(u, text, nfree) != rstat::ok) return detail::readfailed();
    if (readlabels(u, text) != rstat::ok) return detail::readfailed();
  }
  if (!zonesknown(u, nzones, nptsz, ivar)) return;

  // A file of 8-byte reals is read through a one-row work array of 4-byte reals: the records are
  // read as 4-byte values, whatever the writer put there.
  const index_t nptot = detail::sum(nptsz);
  farray<float, 2> work;
  if (wide) mod_gridvars::checkallocationerror(work.allocate(1, nptot));
  farray<float, 2>& dest = wide ? work : pix;

  zoneplacement zp;
  for (int iz = 1; iz <= nzones; ++iz) {
    u.context = {"variable", ivar, "zone", iz};
    const int n = nptsz(iz);
    if (!readvalues(u, text, dest, 1, zp.ioff, n)) return;
    zp.advance(n);
  }

  if (wide) {
    // Column by column into pix. The work array has one row, so a pix of more rows keeps its rows
    // 2 and up as they are: nothing is fetched from beyond the work array.
    const index_t rows = std::min<index_t>(pix.extent(1), work.extent(1));
    if (pix.extent(1) > 0 && nptot > 0 && (pix.extent(2) < nptot || work.extent(2) < nptot)) {
      u.context = {"variable", ivar};
      return detail::outofbounds(
          u, "the values read (" + shape(work.extent(1), work.extent(2), work.allocated()) +
                 ") do not cover the value array (" + shape(pix.extent(1), pix.extent(2), pix.allocated()) +
                 ") for " + std::to_string(nptot) + " node columns");
    }
    for (index_t c = 1; c <= nptot; ++c)
      for (index_t r = 1; r <= rows; ++r) pix(r, c) = work(r, c);
  }
}

// ---- writers ------------------------------------------------------------------------------------

void writezelmpixfile(const char40& filename, const int& filetype, const logical& dblprec, const int& nzones,
                      const farray<int, 1>& nptsz, const farray<float, 2>& pix) {
  static constexpr const char* routine = "writezelmpixfile";
  mod_gridvars::dispreadwrite(writeop, pixkind, pixlevel, filename, filetype, dblprec);
  if (!israw(filetype) && filetype != formatted) {
    io::close(pixwriterunit);
    return;
  }
  const bool text = filetype == formatted;
  const bool wide = !text && fortran::istrue(dblprec);
  const int npixvar = mod_gridvars::npixvar;

  // The arrays must hold what the counts say; checked before the file is touched.
  detail::requirearray(nptsz.extent(1) >= nzones, routine,
                       "nptsz holds fewer than nzones = " + std::to_string(nzones) + " node counts");
  const index_t nptot = detail::sum(nptsz);
  const std::int64_t lastvar = fixedvars + std::max<std::int64_t>(nfree, 0);
  if (anyvalues(nzones, nptsz)) {
    detail::requirearray(pix.extent(1) >= lastvar, routine,
                         "pix has " + std::to_string(pix.extent(1)) + " rows for " + std::to_string(lastvar) +
                             " variables (6 + nfree)");
    detail::requirearray(
        zonesfit(nzones, nptsz, pix.extent(2)), routine,
        "the zones' node columns do not fit the " + std::to_string(pix.extent(2)) + " columns of pix");
    if (wide)
      detail::requirearray(npixvar >= lastvar && zonesfit(nzones, nptsz, nptot), routine,
                           "npixvar = " + std::to_string(npixvar) + " and nptot = " + std::to_string(nptot) +
                               " do not cover the variables and zones written");
  }
  if (wide && npixvar > 0 && nptot > 0)
    detail::requirearray(
        pix.extent(1) >= npixvar && pix.extent(2) >= nptot, routine,
        "pix is smaller than npixvar x nptot = " + std::to_string(npixvar) + " x " + std::to_string(nptot));

  openbycode(pixwriterunit, filename, filetype, detail::fileformat.writezelmpixfile, "unknown");
  io::unit& u = io::getunit(pixwriterunit);
  writeheader(u, text, wide);

  farray<double, 2> work;  // pix widened to 8-byte reals for a file of 8-byte reals
  if (wide) {
    mod_gridvars::checkallocationerror(work.allocate(npixvar, nptot));
    detail::requirearray(work.allocated(), routine, "no memory for the 8-byte copy of pix");
    for (index_t c = 1; c <= work.extent(2); ++c)
      for (index_t r = 1; r <= work.extent(1); ++r) work(r, c) = pix(r, c);
  }

  for (int ivar = 1; ivar <= fixedvars; ++ivar) {
    if (wide)
      writevariable(u, text, work, ivar, nzones, nptsz);
    else
      writevariable(u, text, pix, ivar, nzones, nptsz);
  }
  if (nfree > 0) writefreecount(u, text);  // no free variables: the file ends after D
  writelabels(u, text);
  for (std::int64_t ivar = firstfreevar; ivar <= fixedvars + static_cast<std::int64_t>(nfree); ++ivar) {
    if (wide)
      writevariable(u, text, work, ivar, nzones, nptsz);
    else
      writevariable(u, text, pix, ivar, nzones, nptsz);
  }
  if (work.allocated()) work.deallocate();
  io::close(pixwriterunit);
}

void writenextzelmpixvar(const int& ivar, const char40& filename, const int& filetype, const logical& dblprec,
                         const int& nzones, const farray<int, 1>& nptsz, const farray<float, 2>& pix) {
  static constexpr const char* routine = "writenextzelmpixvar";
  mod_gridvars::dispreadwrite(writeop, pixkind, pixlevel, filename, filetype, dblprec, &ivar);
  if (!israw(filetype) && filetype != formatted) return;
  const bool text = filetype == formatted;
  const bool wide = !text && fortran::istrue(dblprec);

  detail::requirearray(nptsz.extent(1) >= nzones, routine,
                       "nptsz holds fewer than nzones = " + std::to_string(nzones) + " node counts");
  const index_t nptot = detail::sum(nptsz);
  if (anyvalues(nzones, nptsz)) {
    detail::requirearray(pix.extent(1) >= 1 && zonesfit(nzones, nptsz, pix.extent(2)), routine,
                         "row 1 of pix (" + shape(pix.extent(1), pix.extent(2), pix.allocated()) +
                             ") does not hold the zones' node columns");
    if (wide)
      detail::requirearray(zonesfit(nzones, nptsz, nptot), routine,
                           "the zones' node columns exceed nptot = " + std::to_string(nptot));
  }
  if (wide && nptot > 0)
    detail::requirearray(pix.extent(1) >= 1 && pix.extent(2) >= nptot, routine,
                         "row 1 of pix holds fewer than nptot = " + std::to_string(nptot) + " values");

  io::unit& u = io::getunit(pixwriterunit);
  if (text) {
    // Opened by the call for variable 1 only; later calls write to the unit as it is.
    if (ivar == 1) {
      io::open(pixwriterunit, filename.trimmed(), "formatted", "unknown");
      writeheader(u, text, wide);
    }
    if (ivar == firstfreevar) {
      writefreecount(u, text);
      writelabels(u, text);
    }
    writevariable(u, text, pix, 1, nzones, nptsz);
    return;
  }

  // Raw files are opened on every call with the word saved by the call for variable 1: for the
  // file already connected to unit 14 this changes nothing, so the records follow one another.
  char40& fileformat = detail::fileformat.writenextzelmpixvar;
  if (ivar == 1) fileformat = detail::formword(filetype);
  io::open(pixwriterunit, filename.trimmed(), fileformat.trimmed(), "unknown");
  if (ivar == firstfreevar) {
    writefreecount(u, text);
    writelabels(u, text);
  }
  if (ivar == 1) writeheader(u, text, wide);
  if (!wide) {
    writevariable(u, text, pix, 1, nzones, nptsz);
    return;
  }
  farray<double, 2> work;  // row 1 of pix widened to 8-byte reals
  mod_gridvars::checkallocationerror(work.allocate(1, nptot));
  detail::requirearray(work.allocated(), routine, "no memory for the 8-byte copy of pix");
  for (index_t c = 1; c <= work.extent(2); ++c) work(1, c) = pix(1, c);
  writevariable(u, text, work, 1, nzones, nptsz);
  work.deallocate();
  // Unit 14 stays connected: the caller closes it after the last variable.
}

}  // namespace mod_zelmgrid
