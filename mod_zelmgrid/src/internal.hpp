// Pieces shared by the routines of the module and not part of its interface.
#pragma once

#include <cfloat>
#include <cmath>
#include <string>

#include "zelmgrid/mod_zelmgrid.hpp"

namespace mod_zelmgrid::detail {

// The saved 40-character encoding word of each routine that opens an "unformatted" or "binary"
// file. It keeps its value from one call to the next and is blank before the first.
struct savedforms {
  char40 readzelmgridheader, readzelmgrid, writezelmgrid;
  char40 readzelmrstrtfile, writezelmrstrtfile, writenextzelmrstrtvar;
  char40 readzelmpixfile, writezelmpixfile, writenextzelmpixvar;
};
extern savedforms fileformat;

// "unformatted" for code 0, "binary" for code 2.
const char* formword(int filetype);

// Hands the encoding layer's account of the last failed read to the host's service.
void readfailed();

// Reports, as a failed read, a transfer that would store outside its destination (an array whose
// allocation failed, or counts from a file that exceed what was allocated).
void outofbounds(io::unit& u, const std::string& what);

// Ends the run when a writer is given arrays smaller than the counts say.
void requirearray(bool ok, const char* routine, const std::string& what);

// Sum of the elements of a count array, as the extent of a per-node or per-cell array.
fortran::index_t sum(const farray<int, 1>& a);

// 8-byte to 4-byte real, rounding to nearest; out of range gives an infinity, as IEEE does.
// Inline: it runs once per value of every 8-byte file.
inline float narrow(double d) {
  // Values at or beyond FLT_MAX plus half its last place round to infinity.
  constexpr double limit = static_cast<double>(FLT_MAX) + 0x1p103;
  if (std::isfinite(d) && std::fabs(d) >= limit) return d > 0 ? INFINITY : -INFINITY;
  return static_cast<float>(d);
}

// Clears the saved work arrays of the Tecplot export.
void resettecplot();

}  // namespace mod_zelmgrid::detail
