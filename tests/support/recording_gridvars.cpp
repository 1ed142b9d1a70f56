// A host's own mod_gridvars for the tests: it records every call so that tests can assert on
// what the routines announced and reported.
#include "testsupport.hpp"

namespace mod_gridvars {

int numrstrtvar = 0;
logical readallvars = 0;
int npixvar = 0;
std::string readerrordetail;
std::FILE* announcements = nullptr;

void dispreadwrite(const int& iop, const int& ikind, const int& ilevel, const char40& filename,
                   const int& filetype, const logical& dblprec, const int* ivar) {
  zt::services().announced.push_back({iop, ikind, ilevel, std::string(filename.trimmed()), filetype, dblprec,
                                      ivar != nullptr, ivar ? *ivar : 0});
}

void dispfilereaderror() {
  ++zt::services().readerrors;
  zt::services().lastdetail = readerrordetail;
}

void checkallocationerror(const int& istat) {
  zt::services().allocstatuses.push_back(istat);
}

}  // namespace mod_gridvars
