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

extern int rstype;     // restart-file type code
extern int lastcyc;    // last solver cycle of a restart file
extern double dtime;   // restart header value
extern double dgamma;  // header values carried from the restart or pix file read to the next written
extern double drgas;
extern double dr0;
extern double drm0;
extern double dp0;
extern double dvar;                        // pix header value
extern char25 string;                      // text of pix header record 3
extern int nfree;                          // number of free variables of a pix file
extern fortran::fixed<char25, 20> strfree;  // their labels, strfree(1) .. strfree(20)
extern farray<int, 1> mfpc;                // exported for users of the module; no routine touches it

// Shared blocks of the Tecplot export. `const` is a C++ keyword, hence the trailing underscore.
extern fortran::fixed<int, 8> const_;
extern fortran::fixed<int, 5> formt;

// ---- grid files -----------------------------------------------------------------------------

void readzelmgridheader(const char40& filename, const int& filetype, int& ndim, int& nzones, int& ngridaux,
                        farray<int, 1>& nptsz, farray<int, 1>& ncellsz);

void readzelmgrid(const char40& filename, const int& filetype, const logical& dblprec, int& ndim, int& nzones,
                  int& ngridaux, farray<float, 2>& x, farray<int, 1>& nptsz, farray<int, 1>& nfacesz,
                  farray<int, 1>& ncellsz, farray<int, 1>& mnpfz, farray<int, 1>& mfpcz, farray<int, 1>& npf,
                  farray<int, 2>& ifnode, farray<int, 2>& ifcell, const logical& readconn);

// Leaves unit 4 connected: close it with io::close(4) before reading the file back.
void writezelmgrid(const char40& filename, const int& filetype, const logical& dblprec, const int& ndim,
                   const int& nzones, const int& ngridaux, const farray<float, 2>& x, const farray<int, 1>& nptsz,
                   const farray<int, 1>& nfacesz, const farray<int, 1>& ncellsz, const farray<int, 1>& mnpfz,
                   const farray<int, 1>& mfpcz, const farray<int, 1>& npf, const farray<int, 2>& ifnode,
                   const farray<int, 2>& ifcell);

// ---- restart files --------------------------------------------------------------------------

void readzelmrstrtfile(const char40& filename, const int& filetype, const logical& dblprec, const int& nzones,
                       const farray<int, 1>& ncellsz, farray<float, 2>& q);
void readnextzelmrstrtvar(const int& ivar, const char40& filename, const int& filetype, const logical& dblprec,
                          const int& nzones, const farray<int, 1>& ncellsz, farray<float, 2>& q);
void writezelmrstrtfile(const char40& filename, const int& filetype, const logical& dblprec, const int& nzones,
                        const farray<int, 1>& ncellsz, const farray<float, 2>& q);
void writenextzelmrstrtvar(const int& ivar, const char40& filename, const int& filetype, const logical& dblprec,
                           const int& nzones, const farray<int, 1>& ncellsz, const farray<float, 2>& q);

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
                      const farray<int, 1>& nptsz, const farray<int, 1>& nfacesz, const farray<int, 1>& ncellsz,
                      const farray<int, 1>& mnpfz, const farray<int, 1>& mfpcz, const farray<int, 1>& npf,
                      const farray<int, 2>& ifnode, farray<int, 2>& ifcell, const farray<double, 2>& qnode);

// ---- extensions -----------------------------------------------------------------------------

// Returns the module to its state before first use: module variables and shared blocks zeroed,
// every routine's saved encoding word and work arrays cleared, every unit closed.
void resetstate();

}  // namespace mod_zelmgrid
