// A quiet mod_gridvars for the fuzz targets: the services print nothing, so that a campaign's
// output holds only what the fuzzer and the sanitizers say.
#include "zelmgrid/mod_gridvars.hpp"

namespace mod_gridvars {

int numrstrtvar = 0;
logical readallvars = 0;
int npixvar = 0;
std::string readerrordetail;
std::FILE* announcements = nullptr;

void dispreadwrite(const int&, const int&, const int&, const char40&, const int&, const logical&,
                   const int*) {}
void dispfilereaderror() {}
void checkallocationerror(const int&) {}

}  // namespace mod_gridvars
