// mod_gridvars.hpp for Fortran hosts: the services are those of the host's Fortran module
// mod_gridvars (its own, or the bundled fortran/mod_gridvars.f90), called as gfortran calls them.
//
// The shared variables numrstrtvar, readallvars and npixvar are not defined here: the link makes
// the C++ names refer to the Fortran module's variables (see CMakeLists.txt), so the routines read
// and write the host's own storage.
#include <cstddef>
#include <cstdio>
#include <string>

#include "zelmgrid/mod_gridvars.hpp"

// The module procedures of a Fortran module mod_gridvars as gfortran names them. Every argument is
// passed by address, an absent optional as a null address, and each character argument adds its
// length after all the others.
extern "C" {
void __mod_gridvars_MOD_dispreadwrite(const int* iop, const int* ikind, const int* ilevel,
                                      const char* filename, const int* filetype, const int* dblprec,
                                      const int* ivar, const void* opt1, const void* opt2, const void* opt3,
                                      const void* opt4, std::size_t filenamelen, std::size_t, std::size_t,
                                      std::size_t, std::size_t);
void __mod_gridvars_MOD_dispfilereaderror();
void __mod_gridvars_MOD_checkallocationerror(const int* istat);
void zelm_flushfortranoutput();  // mod_zelmgrid.f90
}

namespace mod_gridvars {

std::string readerrordetail;
std::FILE* announcements = stdout;  // unused here: the host's module prints as it likes

// What the host's services print goes through the Fortran runtime's buffer; it is handed over after
// each call, so that it keeps its place among the routines' progress lines.

void dispreadwrite(const int& iop, const int& ikind, const int& ilevel, const char40& filename,
                   const int& filetype, const logical& dblprec, const int* ivar) {
  // The four further optional arguments are absent; a character one among them would take a
  // length of 0 after the file name's, which the zeros after 40 provide.
  __mod_gridvars_MOD_dispreadwrite(&iop, &ikind, &ilevel, filename.data(), &filetype, &dblprec, ivar, nullptr,
                                   nullptr, nullptr, nullptr, char40::length, 0, 0, 0, 0);
  zelm_flushfortranoutput();
}

void dispfilereaderror() {
  __mod_gridvars_MOD_dispfilereaderror();
  zelm_flushfortranoutput();
}

void checkallocationerror(const int& istat) {
  __mod_gridvars_MOD_checkallocationerror(&istat);
  zelm_flushfortranoutput();
}

}  // namespace mod_gridvars
