// mod_gridvars: the services and shared variables that the file module mod_zelmgrid requires of
// its host. This library is a complete default; a host tool may link its own implementation of
// this interface instead (see README).
#pragma once

#include <cstdio>
#include <string>

#include "zelmgrid/fortran.hpp"

namespace mod_gridvars {

using fortran::char40;
using fortran::logical;

// Number of solution variables of a restart file.
extern int numrstrtvar;
// When true, the solution readers read every variable of a file at once.
extern logical readallvars;
// Number of variables of a pix file (set when a pix file is read).
extern int npixvar;

// Announces that a file is about to be read (iop 1) or written (iop 2); ikind is 10 for a grid,
// 20 for a restart and 30 for a pix file; ilevel is always 100. ivar is given by the routines
// that transfer one variable per call.
void dispreadwrite(const int& iop, const int& ikind, const int& ilevel, const char40& filename,
                   const int& filetype, const logical& dblprec, const int* ivar = nullptr);

// Reports that a read failed. The file routines put the details in readerrordetail first.
void dispfilereaderror();

// Reports a non-zero allocation status and returns; returns quietly for 0.
void checkallocationerror(const int& istat);

// Extensions of this default implementation.
//
// readerrordetail: what the file layer knows of the last failed read (file, encoding, record,
// byte offset, cause); the file routines set it just before calling dispfilereaderror.
extern std::string readerrordetail;
// Where dispreadwrite writes its announcement lines; nullptr silences them. Errors always go to
// standard error.
extern std::FILE* announcements;

}  // namespace mod_gridvars
