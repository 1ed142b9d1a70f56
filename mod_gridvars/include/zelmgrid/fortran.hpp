// Language-level types shared by the file modules: Fortran-style logicals, fixed-length texts and
// small fixed arrays indexed from 1.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fortran {

// A logical of the file routines: 4 bytes, only its lowest bit is tested.
using logical = std::int32_t;
constexpr bool istrue(logical l) {
  return (l & 1) != 0;
}

// A text of exactly N characters, blank-padded. Trailing blanks are not part of a file name.
template <std::size_t N>
struct ftext {
  std::array<char, N> c;

  ftext() { c.fill(' '); }
  ftext(std::string_view s) {  // NOLINT(google-explicit-constructor): texts convert like literals
    c.fill(' ');
    std::copy_n(s.begin(), std::min(s.size(), N), c.begin());
  }
  ftext(const char* s) : ftext(std::string_view(s)) {}         // NOLINT(google-explicit-constructor)
  ftext(const std::string& s) : ftext(std::string_view(s)) {}  // NOLINT(google-explicit-constructor)

  static constexpr std::size_t length = N;
  std::string_view view() const { return {c.data(), N}; }
  std::string_view trimmed() const {
    std::string_view v = view();
    const auto last = v.find_last_not_of(' ');
    return last == std::string_view::npos ? std::string_view{} : v.substr(0, last + 1);
  }
  char* data() { return c.data(); }
  const char* data() const { return c.data(); }
  friend bool operator==(const ftext&, const ftext&) = default;
};

using char40 = ftext<40>;
using char25 = ftext<25>;

// A fixed array of N elements with indices 1 .. N, as the shared blocks and label tables are.
template <class T, std::size_t N>
struct fixed {
  std::array<T, N> v{};
  T& operator()(std::size_t i) { return v[i - 1]; }
  const T& operator()(std::size_t i) const { return v[i - 1]; }
  static constexpr std::size_t size() { return N; }
  T* data() { return v.data(); }
};

}  // namespace fortran
