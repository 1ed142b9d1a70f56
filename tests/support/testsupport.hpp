// Shared helpers of the test suites.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zelmgrid/mod_zelmgrid.hpp"

namespace zt {

// What the recording mod_gridvars saw.
struct announcement {
  int iop, ikind, ilevel;
  std::string file;
  int filetype;
  int dblprec;
  bool hasivar;
  int ivar;
};
struct servicelog {
  std::vector<announcement> announced;
  int readerrors = 0;
  std::string lastdetail;
  std::vector<int> allocstatuses;
  int nonzeroallocations() const;
  void clear() { *this = servicelog(); }
};
servicelog& services();

// Thrown by the tests' failure and stop handlers, so that a test gets control back.
struct iofailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct stopped : std::runtime_error {
  stopped() : std::runtime_error("stop") {}
};

// Little-endian bytes as the encodings lay them out.
struct bytes {
  std::string b;
  bytes& i4(std::int32_t v) { return raw(&v, 4); }
  bytes& r4(float v) { return raw(&v, 4); }
  bytes& r8(double v) { return raw(&v, 8); }
  bytes& text(std::string_view t) {
    b += t;
    return *this;
  }
  bytes& raw(const void* p, std::size_t n) {
    b.append(static_cast<const char*>(p), n);
    return *this;
  }
  // Appends `payload` as one framed record.
  bytes& record(const bytes& payload) {
    const auto n = static_cast<std::int32_t>(payload.b.size());
    i4(n);
    b += payload.b;
    return i4(n);
  }
  bytes& then(const bytes& more) {
    b += more.b;
    return *this;
  }
};

std::string readfile(const std::filesystem::path& p);
void writefile(const std::filesystem::path& p, std::string_view content);
std::vector<std::string> lines(const std::string& text);

// What gfortran's list-directed output writes for a real item: a blank, then 9 (4-byte) or 17
// (8-byte) significant digits in a field of 16 or 25 columns; fixed form ("0.500000000",
// "287.049988") for zero and 0.1 <= |v| < 10^digits, left in the first 12 or 20 columns, exponent
// form ("9.99999940E-02", "1.0000000000000000E-002") otherwise. The digits are std::to_chars'.
std::string listreal(float v);
std::string listreal(double v);

// Base fixture: a fresh module state, recording services, handlers that throw, and a scratch
// directory of the test's own.
class zelmtest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::filesystem::path path(const std::string& name) const { return dir_ / name; }
  fortran::char40 name40(const std::string& name) const;  // a path in the scratch dir, as a file name
  std::filesystem::path dir_;

 private:
  std::filesystem::path olddir_;
};

// Runs `f` with standard output captured and returns what it printed.
template <class F>
std::string capturestdout(F&& f) {
  ::testing::internal::CaptureStdout();
  f();
  return ::testing::internal::GetCapturedStdout();
}

}  // namespace zt
