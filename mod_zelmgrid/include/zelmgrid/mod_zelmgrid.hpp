// mod_zelmgrid: file access for the solver family's grid, restart and pix files, and the Tecplot
// export.
//
// Every routine is a free function whose arguments are passed by reference, in the order the
// solver tools call them. Arrays are fortran::farray (column-major, lower bound 1); the reading
// routines allocate the arrays they return, and the caller owns them afterwards. Files live on
// fixed unit numbers (grid reader 13, grid header reader 14, grid writer 4, restart reader 15,
// restart writer 16, pix reader 13, pix writer 14, Tecplot file 10); some routines leave their unit
// connected on purpose, and io::close(unit) closes it.
//
// Read failures are reported through mod_gridvars::dispfilereaderror and the routine returns;
// failures to open, write or close end the run through io::fail (see io.hpp).
//
// Damaged files and failed allocations. Counts read from a file (or given by the caller) can be
// huge, negative or inconsistent, and an allocation asked for by them can fail; the routines then
// report the allocation status through checkallocationerror and go on, as their callers expect.
// No routine ever transfers into or out of an array that is not allocated or is too small for what
// the counts say; what it does instead:
//   - readers (readzelmgridheader, readzelmgrid, readzelmrstrtfile, readnextzelmrstrtvar,
//     readzelmpixfile, readnextzelmpixvar): the record that would have been stored outside its
//     array is reported as a failed read (dispfilereaderror, with readerrordetail saying which
//     array and counts) and the routine returns as after any failed read: zone-count arrays that
//     could not be allocated for nzones zones; coordinates (4- or 8-byte) that do not fit x or its
//     8-byte temporary; faces that do not fit npf, ifnode or ifcell, or a face with more nodes than
//     ifnode's rows; restart values that do not fit q, its 8-byte copy or row 1 of q; pix values
//     that do not fit pix or the 8-byte work array; a caller's ncellsz or nptsz shorter than
//     nzones (reported at the first zone without a count). Arrays passed already allocated count as
//     a failed allocation (status 1) and are used as they are when they are large enough.
//   - the grid reader's final copy from 8-byte coordinates into x is made only when x could be
//     allocated with the temporary's shape; otherwise x is left as it is and nothing is reported
//     beyond the allocation status.
//   - pix files with more than 20 free variables (nfree above 20): the readers read labels 21 and
//     up and drop them, and read every variable's values; the writers write those labels blank.
//   - writers (writezelmgrid, writezelmrstrtfile, writenextzelmrstrtvar, writezelmpixfile,
//     writenextzelmpixvar): arrays smaller than the counts, or an 8-byte copy that could not be
//     allocated, end the run through io::fail with a message naming the routine and the array,
//     before anything would be fetched from outside an array.
//   - writetecplotfile: argument arrays smaller than the counts end the run before the file is
//     opened; node, cell and face numbers out of range and work arrays that could not be
//     allocated are left out and reported on standard error, and the export goes on (tecplot.cpp).
// Every failed read's account (readerrordetail, io::lastreaderror) names the file, its encoding
// and unit, the record by number (a line in formatted files) and by what it is ("zone 2 face 17",
// "variable 3 zone 2", "header record 1", "label of free variable 2"), the byte offset where the
// statement began (formatted: where it stopped) and the cause: end of file, a record shorter than
// its items, length markers that disagree, a value that does not parse (with its text), or the
// array that the counts do not fit.
//
// Write faults. A failed open, write, seek or close drops the unit's connection (the file is closed,
// buffered data discarded) before io::fail reports it with the file's name, the unit and the cause.
// A host whose failure handler throws therefore gets control back with the unit closed and no
// descriptor or buffer left behind, and the next call opens the file afresh.
#pragma once

#include "zelmgrid/farray.hpp"
#include "zelmgrid/fortran.hpp"
#include "zelmgrid/io.hpp"
#include "zelmgrid/mod_gridvars.hpp"

namespace mod_zelmgrid {

using fortran::char25;
using fortran::char40;
using fortran::farray;
using fortran::logical;

// File-type codes.
inline constexpr int unformatted = 0;
inline constexpr int formatted = 1;
inline constexpr int binary = 2;

// ---- module variables (zero before first use) -----------------------------------------------
//
// The module variables and the Tecplot export's shared blocks are C objects, so that the Fortran
// interface (fortran/mod_zelmgrid.f90) binds its module variables to the very storage the routines
// use: the scalars by the names zelm_NAME, the pix texts as the Fortran common block
// /zelm_pixtext/, and the shared blocks as the common blocks /const/ and /formt/ that a Fortran
// program unit declares. The names in the namespace refer to them.

// The objects themselves, in a namespace of their own so that no name of theirs meets the names
// below where a user writes `using namespace mod_zelmgrid`.
namespace storage {
// Layout of the common block /zelm_pixtext/: string, then strfree(1 .. 20).
struct pixtexts {
  char25 string;
  fortran::fixed<char25, 20> strfree;
};

extern "C" {
extern int zelm_rstype;
extern int zelm_lastcyc;
extern double zelm_dtime;
extern double zelm_dgamma;
extern double zelm_drgas;
extern double zelm_dr0;
extern double zelm_drm0;
extern double zelm_dp0;
extern double zelm_dvar;
extern int zelm_nfree;
extern pixtexts zelm_pixtext_;
extern fortran::fixed<int, 8> const_;  // common block /const/
extern fortran::fixed<int, 5> formt_;  // common block /formt/
}
}  // namespace storage

inline int& rstype = storage::zelm_rstype;    // restart-file type code
inline int& lastcyc = storage::zelm_lastcyc;  // last solver cycle of a restart file
inline double& dtime = storage::zelm_dtime;   // restart header value
// Header values carried from the restart or pix file read to the next one written.
inline double& dgamma = storage::zelm_dgamma;
inline double& drgas = storage::zelm_drgas;
inline double& dr0 = storage::zelm_dr0;
inline double& drm0 = storage::zelm_drm0;
inline double& dp0 = storage::zelm_dp0;
inline double& dvar = storage::zelm_dvar;               // pix header value
inline char25& string = storage::zelm_pixtext_.string;  // text of pix header record 3
inline int& nfree = storage::zelm_nfree;                // number of free variables of a pix file
// The labels of the free variables, strfree(1) .. strfree(20).
inline fortran::fixed<char25, 20>& strfree = storage::zelm_pixtext_.strfree;
extern farray<int, 1> mfpc;  // exported for users of the module; no routine touches it

// Shared blocks of the Tecplot export. `const` is a C++ keyword, hence the trailing underscore.
inline fortran::fixed<int, 8>& const_ = storage::const_;
inline fortran::fixed<int, 5>& formt = storage::formt_;

// ---- grid files -----------------------------------------------------------------------------

void readzelmgridheader(const char40& filename, const int& filetype, int& ndim, int& nzones, int& ngridaux,
                        farray<int, 1>& nptsz, farray<int, 1>& ncellsz);

void readzelmgrid(const char40& filename, const int& filetype, const logical& dblprec, int& ndim, int& nzones,
                  int& ngridaux, farray<float, 2>& x, farray<int, 1>& nptsz, farray<int, 1>& nfacesz,
                  farray<int, 1>& ncellsz, farray<int, 1>& mnpfz, farray<int, 1>& mfpcz, farray<int, 1>& npf,
                  farray<int, 2>& ifnode, farray<int, 2>& ifcell, const logical& readconn);

// Leaves unit 4 connected: close it with io::close(4) before reading the file back.
void writezelmgrid(const char40& filename, const int& filetype, const logical& dblprec, const int& ndim,
                   const int& nzones, const int& ngridaux, const farray<float, 2>& x,
                   const farray<int, 1>& nptsz, const farray<int, 1>& nfacesz, const farray<int, 1>& ncellsz,
                   const farray<int, 1>& mnpfz, const farray<int, 1>& mfpcz, const farray<int, 1>& npf,
                   const farray<int, 2>& ifnode, const farray<int, 2>& ifcell);

// ---- restart files --------------------------------------------------------------------------

void readzelmrstrtfile(const char40& filename, const int& filetype, const logical& dblprec, const int& nzones,
                       const farray<int, 1>& ncellsz, farray<float, 2>& q);
void readnextzelmrstrtvar(const int& ivar, const char40& filename, const int& filetype,
                          const logical& dblprec, const int& nzones, const farray<int, 1>& ncellsz,
                          farray<float, 2>& q);
void writezelmrstrtfile(const char40& filename, const int& filetype, const logical& dblprec,
                        const int& nzones, const farray<int, 1>& ncellsz, const farray<float, 2>& q);
void writenextzelmrstrtvar(const int& ivar, const char40& filename, const int& filetype,
                           const logical& dblprec, const int& nzones, const farray<int, 1>& ncellsz,
                           const farray<float, 2>& q);

// ---- pix files ------------------------------------------------------------------------------

void readzelmpixfile(const char40& filename, const int& filetype, const logical& dblprec, const int& nzones,
                     const farray<int, 1>& nptsz, farray<float, 2>& pix);
void readnextzelmpixvar(const int& ivar, const char40& filename, const int& filetype, const logical& dblprec,
                        const int& nzones, const farray<int, 1>& nptsz, farray<float, 2>& pix);
void writezelmpixfile(const char40& filename, const int& filetype, const logical& dblprec, const int& nzones,
                      const farray<int, 1>& nptsz, const farray<float, 2>& pix);
void writenextzelmpixvar(const int& ivar, const char40& filename, const int& filetype, const logical& dblprec,
                         const int& nzones, const farray<int, 1>& nptsz, const farray<float, 2>& pix);

// ---- Tecplot export -------------------------------------------------------------------------

void writetecplotfile(const char40& filename, const int& ndim, const int& nzones, const farray<double, 2>& x,
                      const farray<int, 1>& nptsz, const farray<int, 1>& nfacesz,
                      const farray<int, 1>& ncellsz, const farray<int, 1>& mnpfz, const farray<int, 1>& mfpcz,
                      const farray<int, 1>& npf, const farray<int, 2>& ifnode, farray<int, 2>& ifcell,
                      const farray<double, 2>& qnode);

// ---- extensions -----------------------------------------------------------------------------

// Returns the module to its state before first use: module variables and shared blocks zeroed,
// every routine's saved encoding word and work arrays cleared, every unit closed.
void resetstate();

}  // namespace mod_zelmgrid
