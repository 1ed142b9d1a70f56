// The module variables, the shared blocks and the helpers common to all routines.
#include <cfloat>
#include <cmath>

#include "internal.hpp"

namespace mod_zelmgrid {

int rstype = 0;
int lastcyc = 0;
double dtime = 0;
double dgamma = 0;
double drgas = 0;
double dr0 = 0;
double drm0 = 0;
double dp0 = 0;
double dvar = 0;
char25 string;
int nfree = 0;
fortran::fixed<char25, 20> strfree;
farray<int, 1> mfpc;
fortran::fixed<int, 8> const_;
fortran::fixed<int, 5> formt;

void resetstate() {
  io::closeall();
  rstype = lastcyc = nfree = 0;
  dtime = dgamma = drgas = dr0 = drm0 = dp0 = dvar = 0;
  string = char25();
  strfree = {};
  for (auto& s : strfree.v) s = char25();
  mfpc.deallocate();
  const_ = {};
  formt = {};
  detail::fileformat = {};
  detail::resettecplot();
}

namespace detail {

savedforms fileformat;

const char* formword(int filetype) {
  return filetype == 2 ? "binary" : "unformatted";
}

bool openbycode(int unit, const char40& filename, int filetype, char40& form, const char* status) {
  if (israw(filetype)) {
    form = formword(filetype);
    io::open(unit, filename.trimmed(), form.trimmed(), status);
    return true;
  }
  if (filetype == formatted) {
    io::open(unit, filename.trimmed(), "formatted", status);
    return true;
  }
  return false;
}

void readfailed() {
  mod_gridvars::readerrordetail = io::lastreaderror();
  mod_gridvars::dispfilereaderror();
}

void outofbounds(io::unit& u, const std::string& what) {
  ++u.records;  // the statement that would have stored outside its array counts as begun
  io::detail::setreaderror(u, io::rstat::error, u.connected() ? u.position() : 0, what);
  readfailed();
}

void requirearray(bool ok, const char* routine, const std::string& what) {
  if (!ok) io::fail(std::string(routine) + ": " + what);
}

fortran::index_t sum(const farray<int, 1>& a) {
  fortran::index_t s = 0;
  for (fortran::index_t i = 1; i <= a.extent(1); ++i) s += a(i);
  return s;
}

}  // namespace detail
}  // namespace mod_zelmgrid
