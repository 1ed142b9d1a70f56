// Pieces shared by the routines of the module and not part of its interface.
#pragma once

#include <cfloat>
#include <cmath>
#include <string>

#include "layouts.hpp"
#include "records.hpp"
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

// Codes 0 and 2: the framed and unframed encodings, read and written as unformatted records.
inline bool israw(int filetype) {
  return filetype == unformatted || filetype == binary;
}

// Opens `unit` on the file as the file-type code says, saving the encoding word in the routine's
// `form` for codes 0 and 2; false for any other code, which opens nothing.
bool openbycode(int unit, const char40& filename, int filetype, char40& form, const char* status);

// Where each zone's values go in a row of the restart and pix arrays: zones 1 and 2 both start at
// position 1 and zone z >= 3 right after zones 1 .. z-2. `ioff` is the start of the zone being
// transferred; advance() is called after each zone with its count and computes the next start
// from the zones before the one just transferred.
struct zoneplacement {
  fortran::index_t ioff = 1;
  fortran::index_t before = 0;  // counts of the zones before the one being transferred
  void advance(int count) {
    ioff = 1 + before;
    before += count;
  }
};

// Hands the encoding layer's account of the last failed read to the host's service.
void readfailed();

// Reports, as a failed read, a transfer that would store outside its destination (an array whose
// allocation failed, or counts from a file that exceed what was allocated).
void outofbounds(io::unit& u, const std::string& what);

// Ends the run when a writer is given arrays smaller than the counts say.
void requirearray(bool ok, const char* routine, const std::string& what);

// Sum of the elements of a count array, as the extent of a per-node or per-cell array.
fortran::index_t sum(const farray<int, 1>& a);

using io::narrow;

// True when n values from position `col` of row `row` lie inside `a` (always for n <= 0).
template <class T>
bool fits(const farray<T, 2>& a, fortran::index_t row, fortran::index_t col, fortran::index_t n) {
  return n <= 0 || (row >= 1 && row <= a.extent(1) && col >= 1 && col + n - 1 <= a.extent(2));
}
template <class T>
bool fits(const farray<T, 1>& a, fortran::index_t start, fortran::index_t n) {
  return n <= 0 || (start >= 1 && start + n - 1 <= a.extent(1));
}

// n values of row `row` from position `col`, as one item of a statement (for a const array, of
// a write). Nothing is addressed when there are no values (the array may then be unallocated).
template <class A>
auto rowitems(A& a, fortran::index_t row, fortran::index_t col, fortran::index_t n) {
  if (n <= 0) return io::items(a.data(), 0);
  return io::items(a.data() + (row - 1) + (col - 1) * a.extent(1), n, a.extent(1));
}
template <class A>
auto vectoritems(A& a, fortran::index_t start, fortran::index_t n) {
  if (n <= 0) return io::items(a.data(), 0);
  return io::items(a.data() + (start - 1), n);
}

// Clears the saved work arrays of the Tecplot export.
void resettecplot();

}  // namespace mod_zelmgrid::detail
