#include "testsupport.hpp"

#include <unistd.h>

#include <charconv>
#include <cmath>
#include <fstream>
#include <sstream>

namespace zt {

servicelog& services() {
  static servicelog log;
  return log;
}

int servicelog::nonzeroallocations() const {
  int n = 0;
  for (int s : allocstatuses) n += s != 0;
  return n;
}

std::string readfile(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writefile(const std::filesystem::path& p, std::string_view content) {
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    out.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return out;
}

namespace {
template <class T>
std::string listrealof(T v) {
  constexpr bool four = sizeof(T) == 4;
  constexpr int digits = four ? 9 : 17, width = four ? 16 : 25, fixedwidth = four ? 12 : 20;
  std::string text;
  if (std::isnan(v)) {
    text = "NaN";
  } else if (std::isinf(v)) {
    text = v < 0 ? "-Infinity" : "Infinity";
  } else {
    char b[64];
    const auto r = std::to_chars(b, b + sizeof b, std::fabs(v), std::chars_format::scientific, digits - 1);
    const std::string ds = std::string(1, b[0]) + std::string(b + 2, b + digits + 1);  // the digits alone
    int q = 0;
    const char* e = b + digits + 2;
    std::from_chars(*e == '+' ? e + 1 : e, r.ptr, q);
    const std::string sign = std::signbit(v) ? "-" : "";
    if (q >= -1 && q < digits) {
      const std::string fixed =
          sign + (q < 0 ? "0." + ds : ds.substr(0, static_cast<std::size_t>(q + 1)) + "." + ds.substr(q + 1));
      return " " + std::string(fixedwidth - fixed.size(), ' ') + fixed + std::string(width - fixedwidth, ' ');
    }
    char exponent[16];  // room for any int, as the compiler cannot bound q
    std::snprintf(exponent, sizeof exponent, "%0*d", four ? 2 : 3, q < 0 ? -q : q);
    text = sign + ds.substr(0, 1) + "." + ds.substr(1) + "E" + (q < 0 ? "-" : "+") + exponent;
  }
  return " " + std::string(width - text.size(), ' ') + text;
}
}  // namespace

std::string listreal(float v) {
  return listrealof(v);
}
std::string listreal(double v) {
  return listrealof(v);
}

namespace {
void throwingfailure(const std::string& message) {
  throw iofailure(message);
}
void throwingstop() {
  throw stopped();
}
}  // namespace

void zelmtest::SetUp() {
  mod_zelmgrid::resetstate();
  mod_gridvars::numrstrtvar = 0;
  mod_gridvars::readallvars = 0;
  mod_gridvars::npixvar = 0;
  mod_gridvars::readerrordetail.clear();
  services().clear();
  fortran::allocationfill = -1;
  mod_zelmgrid::io::setmaxsubrecord(0);
  mod_zelmgrid::io::setstdout(stdout);
  mod_zelmgrid::io::setfailurehandler(throwingfailure);
  mod_zelmgrid::io::setstophandler(throwingstop);
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string leaf =
      std::string(info->test_suite_name()) + "." + info->name() + "." + std::to_string(::getpid());
  for (char& c : leaf)
    if (c == '/') c = '_';
  dir_ = std::filesystem::temp_directory_path() / "zelmgrid-tests" / leaf;
  std::filesystem::remove_all(dir_);
  std::filesystem::create_directories(dir_);
  // Relative names in the tests are resolved in the scratch directory.
  olddir_ = std::filesystem::current_path();
  std::filesystem::current_path(dir_);
}

void zelmtest::TearDown() {
  mod_zelmgrid::resetstate();
  std::filesystem::current_path(olddir_);
  if (!HasFailure()) std::filesystem::remove_all(dir_);
}

fortran::char40 zelmtest::name40(const std::string& name) const {
  return fortran::char40(name);
}

}  // namespace zt
