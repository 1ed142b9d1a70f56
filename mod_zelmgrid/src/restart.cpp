// Restart files: the whole-file reader and writer, and the one-variable-per-call reader and writer.
//
// Layout, in every encoding (reals 8 bytes on disk when dblprec is true, 4 bytes otherwise, in the
// "unformatted" and "binary" encodings; list-directed text in "formatted"):
//   H1        dtime, lastcyc, rstype
//   H2        dgamma, drgas
//   H3        dr0, drm0, dp0
//   V(v, z)   for v = 1 .. numrstrtvar and, within each v, z = 1 .. nzones: the ncellsz(z) values
//             of variable v for the cells of zone z.
// No record holds a count: the caller supplies numrstrtvar, nzones and ncellsz.
//
// Zone placement in a row of q: zones 1 and 2 both start at position 1, and zone z >= 3 starts
// after the cells of zones 1 .. z-2. The start moves on only after a zone has been transferred,
// by the count of the zone before it. With several zones each zone from the second on therefore
// lands one zone earlier than plain cell order (zone 2 over the first cells of zone 1), and the
// positions beyond the furthest one reached are never transferred. Readers and writers share the
// rule, so a file goes back to the positions it came from.
#include <algorithm>
#include <string>
#include <utility>

#include "internal.hpp"

namespace mod_zelmgrid {

using detail::fits;
using detail::israw;
using detail::openbycode;
using detail::rowitems;
using detail::vectoritems;
using detail::zoneplacement;
using fortran::index_t;
using io::rstat;

namespace {

constexpr int readerunit = 15;
constexpr int writerunit = 16;

std::string zonename(int v, int z) {
  return "variable " + std::to_string(v) + " of zone " + std::to_string(z);
}

std::string missingzone(int nzones, const farray<int, 1>& ncellsz) {
  return "ncellsz holds " + std::to_string(ncellsz.extent(1)) +
         " zone counts, fewer than nzones = " + std::to_string(nzones);
}

// The three header records from the module variables: 8-byte reals in text and in a file of
// 8-byte reals, each narrowed to 4 bytes otherwise.
void writeheader(io::unit& u, bool text, bool wide) {
  using detail::narrow;
  if (text || wide)
    layout::writerestartheader(u, text, dtime, lastcyc, rstype, dgamma, drgas, dr0, drm0, dp0);
  else
    layout::writerestartheader(u, false, narrow(dtime), lastcyc, rstype, narrow(dgamma), narrow(drgas),
                               narrow(dr0), narrow(drm0), narrow(dp0));
}

// Ends the run unless q holds every value that the variables `firstrow` .. `lastrow` of the zones
// take from it (a writer given counts that do not fit its array).
void requirevalues(const char* routine, int nzones, const farray<int, 1>& ncellsz, const farray<float, 2>& q,
                   int lastrow) {
  if (lastrow < 1 || nzones < 1) return;
  detail::requirearray(ncellsz.extent(1) >= nzones, routine, missingzone(nzones, ncellsz));
  zoneplacement at;
  for (int z = 1; z <= nzones; ++z) {
    const index_t n = ncellsz(z);
    detail::requirearray(fits(q, lastrow, at.ioff, n) && fits(q, 1, at.ioff, n), routine,
                         "q (" + std::to_string(q.extent(1)) + " x " + std::to_string(q.extent(2)) +
                             ") does not hold the " + std::to_string(n) + " values of zone " +
                             std::to_string(z) + " of row " + std::to_string(lastrow) + " from position " +
                             std::to_string(at.ioff));
    at.advance(ncellsz(z));
  }
}

}  // namespace

// ---- readers --------------------------------------------------------------------------------

void readzelmrstrtfile(const char40& filename, const int& filetype, const logical& dblprec, const int& nzones,
                       const farray<int, 1>& ncellsz, farray<float, 2>& q) {
  mod_gridvars::dispreadwrite(1, 20, 100, filename, filetype, dblprec);
  const bool wide = israw(filetype) && fortran::istrue(dblprec);

  if (!openbycode(readerunit, filename, filetype, detail::fileformat.readzelmrstrtfile, "old")) {
    io::close(readerunit);  // whatever the unit was connected to; nothing is read or allocated
    return;
  }
  io::unit& u = io::getunit(readerunit);

  // Header. Text and 8-byte reals go straight into the module variables, item by item. 4-byte
  // reals are widened into them only once all three records have been read, so a failure inside
  // the header leaves the six reals as they were (lastcyc and rstype are read in place).
  const bool text = filetype == formatted;
  if (text || wide) {
    if (layout::readrestartheader(u, text, dtime, lastcyc, rstype, dgamma, drgas, dr0, drm0, dp0) !=
        rstat::ok)
      return detail::readfailed();
  } else {
    float dtime4 = 0, dgamma4 = 0, drgas4 = 0, dr04 = 0, drm04 = 0, dp04 = 0;
    if (layout::readrestartheader(u, false, dtime4, lastcyc, rstype, dgamma4, drgas4, dr04, drm04, dp04) !=
        rstat::ok)
      return detail::readfailed();
    dtime = dtime4;
    dgamma = dgamma4;
    drgas = drgas4;
    dr0 = dr04;
    drm0 = drm04;
    dp0 = dp04;
  }

  const index_t ntotal = detail::sum(ncellsz);
  if (!fortran::istrue(mod_gridvars::readallvars)) {
    // One row, filled later by readnextzelmrstrtvar; unit 15 stays on the first variable record.
    mod_gridvars::checkallocationerror(q.allocate(1, ntotal));
    return;
  }

  const int nvar = mod_gridvars::numrstrtvar;
  mod_gridvars::checkallocationerror(q.allocate(nvar, ntotal));
  farray<double, 2> q8;  // 8-byte values as the file holds them, narrowed into q at the end
  if (wide) mod_gridvars::checkallocationerror(q8.allocate(nvar, ntotal));

  for (int v = 1; v <= nvar; ++v) {
    zoneplacement at;
    for (int z = 1; z <= nzones; ++z) {
      io::print("Reading Variable ", v, " in Zone ", z, "...");
      u.context = {"variable", v, "zone", z};
      if (z > ncellsz.extent(1)) return detail::outofbounds(u, missingzone(nzones, ncellsz));
      const index_t s = at.ioff;
      const index_t n = ncellsz(z);
      // q (and the 8-byte array) may be missing or smaller than the counts when an allocation
      // failed: such a record is reported as a failed read instead of being stored.
      if (!fits(q, v, s, n) || (wide && !fits(q8, v, s, n)))
        return detail::outofbounds(u, "the " + std::to_string(n) + " values of " + zonename(v, z) +
                                          " from position " + std::to_string(s) + " do not fit q (" +
                                          std::to_string(q.extent(1)) + " x " + std::to_string(q.extent(2)) +
                                          ")");
      const rstat st =
          wide ? io::read(u, text, rowitems(q8, v, s, n)) : io::read(u, text, rowitems(q, v, s, n));
      if (st != rstat::ok) return detail::readfailed();
      at.advance(ncellsz(z));
    }
  }

  if (wide && nvar > 0) {
    // Narrow what the records filled, once all of them have been read. Positions that no record
    // reaches hold nothing worth narrowing and stay as allocated. Every variable fills the same
    // positions, so each zone's positions are one block of whole columns of q and q8. With no
    // variables there is nothing to narrow, and the zones' counts, never checked against ncellsz's
    // extent by a record, are not looked at.
    zoneplacement at;
    for (int z = 1; z <= nzones; ++z) {
      if (ncellsz(z) > 0) {
        const index_t first = (at.ioff - 1) * nvar;
        const index_t count = ncellsz(z) * static_cast<index_t>(nvar);
        float* dst = q.data() + first;
        const double* src = q8.data() + first;
        for (index_t i = 0; i < count; ++i) dst[i] = detail::narrow(src[i]);
      }
      at.advance(ncellsz(z));
    }
    q8.deallocate();
  }
  io::close(readerunit);
}

void readnextzelmrstrtvar(const int& ivar, const char40& filename, const int& filetype,
                          const logical& dblprec, const int& nzones, const farray<int, 1>& ncellsz,
                          farray<float, 2>& q) {
  mod_gridvars::dispreadwrite(1, 20, 100, filename, filetype, dblprec, &ivar);
  // This routine neither opens nor closes unit 15: it goes on from where readzelmrstrtfile (or its
  // own previous call) left it, so variables must be read in file order. ivar only names them.
  io::unit& u = io::getunit(readerunit);
  const index_t ntotal = detail::sum(ncellsz);

  farray<double, 1> q8;  // released on every way out
  mod_gridvars::checkallocationerror(q8.allocate(ntotal));

  // Only code 0 reads unformatted records. Every other code reads list-directed, "binary"
  // included: on a file connected as binary that read fails and is reported as such, so one
  // variable at a time serves the "unformatted" and "formatted" encodings only.
  const bool text = filetype != unformatted;
  const bool wide = !text && fortran::istrue(dblprec);

  zoneplacement at;
  for (int z = 1; z <= nzones; ++z) {
    u.context = {"variable", ivar, "zone", z};
    if (z > ncellsz.extent(1)) return detail::outofbounds(u, missingzone(nzones, ncellsz));
    const index_t s = at.ioff;
    const index_t n = ncellsz(z);
    if (!fits(q, 1, s, n) || (wide && !fits(q8, s, n)))
      return detail::outofbounds(u, "the " + std::to_string(n) + " values of " + zonename(ivar, z) +
                                        " from position " + std::to_string(s) + " do not fit row 1 of q (" +
                                        std::to_string(q.extent(1)) + " x " + std::to_string(q.extent(2)) +
                                        ")");
    const rstat st =
        wide ? io::read(u, text, vectoritems(q8, s, n)) : io::read(u, text, rowitems(q, 1, s, n));
    if (st != rstat::ok) return detail::readfailed();
    at.advance(ncellsz(z));
  }

  if (wide) {  // narrow what the records filled into row 1
    zoneplacement back;
    for (int z = 1; z <= nzones; ++z) {
      for (index_t i = 0; i < ncellsz(z); ++i) q(1, back.ioff + i) = detail::narrow(q8(back.ioff + i));
      back.advance(ncellsz(z));
    }
  }
}

// ---- writers --------------------------------------------------------------------------------

void writezelmrstrtfile(const char40& filename, const int& filetype, const logical& dblprec,
                        const int& nzones, const farray<int, 1>& ncellsz, const farray<float, 2>& q) {
  static constexpr const char* routine = "writezelmrstrtfile";
  mod_gridvars::dispreadwrite(2, 20, 100, filename, filetype, dblprec);
  const int nvar = mod_gridvars::numrstrtvar;

  if (!israw(filetype) && filetype != formatted) {
    io::close(writerunit);  // an unknown code writes nothing, but unit 16 is closed all the same
    return;
  }
  // Every variable is written, whatever readallvars says: q must hold rows 1 .. numrstrtvar.
  requirevalues(routine, nzones, ncellsz, q, nvar);

  openbycode(writerunit, filename, filetype, detail::fileformat.writezelmrstrtfile, "unknown");
  io::unit& u = io::getunit(writerunit);
  const bool wide = israw(filetype) && fortran::istrue(dblprec);

  const bool text = filetype == formatted;
  writeheader(u, text, wide);

  // 8-byte values: all of q is widened before the first variable is written.
  farray<double, 2> q8;
  if (wide) {
    mod_gridvars::checkallocationerror(q8.allocate(q.extent(1), q.extent(2)));
    if (q8.allocated())
      for (index_t i = 0; i < q.size(); ++i) q8.data()[i] = q.data()[i];
  }

  for (int v = 1; v <= nvar; ++v) {
    zoneplacement at;
    for (int z = 1; z <= nzones; ++z) {
      io::print("Writing Variable ", v, " in Zone ", z, "...");
      const index_t s = at.ioff;
      const index_t n = ncellsz(z);
      if (wide) {
        detail::requirearray(fits(q8, v, s, n), routine, "the 8-byte copy of q could not be allocated");
        io::rawwrite(u, rowitems(std::as_const(q8), v, s, n));
      } else {
        io::write(u, text, rowitems(q, v, s, n));
      }
      at.advance(ncellsz(z));
    }
  }
  q8.deallocate();
  io::close(writerunit);
}

void writenextzelmrstrtvar(const int& ivar, const char40& filename, const int& filetype,
                           const logical& dblprec, const int& nzones, const farray<int, 1>& ncellsz,
                           const farray<float, 2>& q) {
  static constexpr const char* routine = "writenextzelmrstrtvar";
  mod_gridvars::dispreadwrite(2, 20, 100, filename, filetype, dblprec, &ivar);
  if (!israw(filetype) && filetype != formatted) return;  // nothing opened, written or closed
  requirevalues(routine, nzones, ncellsz, q, 1);
  io::unit& u = io::getunit(writerunit);

  if (filetype == formatted) {
    // Only the call for variable 1 opens the file and writes the header. A later call writes to
    // whatever unit 16 is connected to, without opening it: normally the file of the call for
    // variable 1. Called for another variable first, it writes into any file that something else
    // connected to unit 16; with nothing connected the encoding layer ends the run with a "not
    // connected" message through io::fail (where a Fortran runtime would quietly create a file of
    // its own for the unit, such as fort.16).
    if (ivar == 1) {
      io::open(writerunit, filename.trimmed(), "formatted", "unknown");
      writeheader(u, true, false);
    }
    zoneplacement at;
    for (int z = 1; z <= nzones; ++z) {
      io::listwrite(u, rowitems(q, 1, at.ioff, ncellsz(z)));
      at.advance(ncellsz(z));
    }
    return;
  }

  // "unformatted" and "binary": the encoding word is chosen only by the call for variable 1 and
  // kept for all later calls, even for another file. The file is opened on every call; an open of
  // the unit already connected to the same file changes nothing, so each call appends its records.
  // Called for another variable before any call for variable 1, the word is still blank: the open
  // fails on its invalid form and the run ends through io::fail.
  char40& fileformat = detail::fileformat.writenextzelmrstrtvar;
  if (ivar == 1) fileformat = detail::formword(filetype);
  io::open(writerunit, filename.trimmed(), fileformat.trimmed(), "unknown");
  const bool wide = fortran::istrue(dblprec);
  if (ivar == 1) writeheader(u, false, wide);

  if (!wide) {
    zoneplacement at;
    for (int z = 1; z <= nzones; ++z) {
      io::rawwrite(u, rowitems(q, 1, at.ioff, ncellsz(z)));
      at.advance(ncellsz(z));
    }
    return;
  }

  const index_t ntotal = detail::sum(ncellsz);
  farray<double, 1> q8;
  mod_gridvars::checkallocationerror(q8.allocate(ntotal));
  if (q8.allocated() && q.extent(1) >= 1) {
    const index_t n = std::min<index_t>(q8.extent(1), q.extent(2));
    for (index_t j = 1; j <= n; ++j) q8(j) = q(1, j);
  }
  zoneplacement at;
  for (int z = 1; z <= nzones; ++z) {
    const index_t n = ncellsz(z);
    detail::requirearray(fits(q8, at.ioff, n), routine,
                         "the 8-byte copy of row 1 of q (" + std::to_string(q8.extent(1)) +
                             " values) does not hold zone " + std::to_string(z) + "'s " + std::to_string(n) +
                             " values from position " + std::to_string(at.ioff));
    io::rawwrite(u, vectoritems(std::as_const(q8), at.ioff, n));
    at.advance(ncellsz(z));
  }
}

}  // namespace mod_zelmgrid
