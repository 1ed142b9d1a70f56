// List-directed reals: the text of every value is the correctly rounded scientific form with 9
// (4-byte) or 17 (8-byte) significant digits, right-aligned in its field, and reads back
// unchanged. Checked against std::to_chars over edge cases and many random values.
#include <charconv>
#include <cmath>
#include <limits>
#include <random>

#include "records.hpp"
#include "testsupport.hpp"

namespace io = mod_zelmgrid::io;

namespace {

class listformat : public zt::zelmtest {};

// The line that a list-directed write of v alone gives: a blank, then the text right-aligned in
// 15 (4-byte) or 23 (8-byte) columns.
template <class T>
std::string expected(T v) {
  constexpr int width = std::is_same_v<T, float> ? 15 : 23;
  std::string text;
  if (std::isnan(v)) {
    text = "NaN";
  } else if (std::isinf(v)) {
    text = v < 0 ? "-Infinity" : "Infinity";
  } else {
    char b[64];
    const auto r =
        std::to_chars(b, b + sizeof b, v, std::chars_format::scientific, std::is_same_v<T, float> ? 8 : 16);
    text.assign(b, r.ptr);
    for (char& c : text)
      if (c == 'e') c = 'E';
  }
  return " " + std::string(text.size() < width ? width - text.size() : 0, ' ') + text;
}

template <class T>
std::vector<T> samples(std::size_t random) {
  using bitsof = std::conditional_t<std::is_same_v<T, float>, std::uint32_t, std::uint64_t>;
  std::vector<T> v = {T(0),
                      -T(0),
                      T(1),
                      T(-1),
                      T(0.1),
                      T(1) / T(3),
                      std::numeric_limits<T>::min(),
                      std::numeric_limits<T>::denorm_min(),
                      std::numeric_limits<T>::max(),
                      -std::numeric_limits<T>::max(),
                      std::numeric_limits<T>::infinity(),
                      -std::numeric_limits<T>::infinity(),
                      std::numeric_limits<T>::quiet_NaN(),
                      std::nextafter(std::numeric_limits<T>::min(), T(0))};
  // Powers of ten and their neighbours, where the decimal exponent changes.
  for (int e = std::numeric_limits<T>::min_exponent10 - 8; e <= std::numeric_limits<T>::max_exponent10; ++e) {
    const T p = static_cast<T>(std::pow(10.0L, e));
    if (!std::isfinite(p) || p == 0) continue;
    for (T q : {p, std::nextafter(p, T(0)), std::nextafter(p, std::numeric_limits<T>::infinity())}) {
      v.push_back(q);
      v.push_back(-q);
    }
  }
  // Whole numbers, and values whose digits round up to the next power of ten (9.99999999..).
  for (long long n = 1; n < 1000000000000LL; n = n * 7 + 3) v.push_back(static_cast<T>(n));
  for (int e = -30; e <= 30; ++e) v.push_back(static_cast<T>(9.9999999999999999e0L * std::pow(10.0L, e)));
  std::mt19937_64 g(20240611);
  for (std::size_t i = 0; i < random; ++i) {
    const auto b = static_cast<bitsof>(g());
    T x;
    std::memcpy(&x, &b, sizeof x);
    v.push_back(x);
  }
  return v;
}

template <class T>
void checktext(const std::vector<T>& values) {
  io::open(21, "reals.txt", "formatted", "unknown");
  io::unit& u = io::getunit(21);
  for (T x : values) io::listwrite(u, x);
  io::close(21);
  const auto lines = zt::lines(zt::readfile("reals.txt"));
  ASSERT_EQ(lines.size(), values.size());
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (lines[i] == expected(values[i])) continue;
    if (++wrong <= 10)
      ADD_FAILURE() << "value " << i << ": \"" << lines[i] << "\", expected \"" << expected(values[i])
                    << "\"";
  }
  EXPECT_EQ(wrong, 0u);
  // And the values read back: every finite one exactly.
  io::open(21, "reals.txt", "formatted", "old");
  std::size_t differ = 0;
  for (T x : values) {
    T y{};
    ASSERT_EQ(io::listread(u, y), io::rstat::ok) << io::lastreaderror();
    if (std::isfinite(x) && std::memcmp(&x, &y, sizeof x) != 0) ++differ;
  }
  io::close(21);
  EXPECT_EQ(differ, 0u);
}

}  // namespace

TEST_F(listformat, FourByteRealsAsToCharsGivesThem) {
  checktext(samples<float>(200000));
}

TEST_F(listformat, EightByteRealsAsToCharsGivesThem) {
  checktext(samples<double>(200000));
}

TEST_F(listformat, SeveralRealsInOneRecordKeepTheirFields) {
  io::open(21, "r.txt", "formatted", "unknown");
  io::listwrite(io::getunit(21), 1.5f, -2.25, 7, 0.1f);
  io::close(21);
  EXPECT_EQ(zt::readfile("r.txt"), expected(1.5f) + expected(-2.25) + "           7" + expected(0.1f) + "\n");
}
