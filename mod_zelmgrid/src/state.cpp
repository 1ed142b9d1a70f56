// The module variables, the shared blocks and the helpers common to all routines.
#include <cfloat>
#include <cmath>

#include "internal.hpp"

namespace mod_zelmgrid::storage {
extern "C" {
int zelm_rstype = 0;
int zelm_lastcyc = 0;
double zelm_dtime = 0;
double zelm_dgamma = 0;
double zelm_drgas = 0;
double zelm_dr0 = 0;
double zelm_drm0 = 0;
double zelm_dp0 = 0;
double zelm_dvar = 0;
int zelm_nfree = 0;
pixtexts zelm_pixtext_;
fortran::fixed<int, 8> const_;
fortran::fixed<int, 5> formt_;
}
}  // namespace mod_zelmgrid::storage

namespace mod_zelmgrid {

farray<int, 1> mfpc;

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
