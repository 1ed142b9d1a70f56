// The measurements of the routines, one function per file kind, and the checksum of what a reader
// read (the same that the Fortran path computes, so that the two can be compared).
#pragma once

#include <cstdint>
#include <cstring>

#include "measure.hpp"

namespace zelmbench {

void addgrid(bench& b, data& d);
void addrestart(bench& b, data& d);
void addpix(bench& b, data& d);
void addtecplot(bench& b, data& d);

// The checksum that the Fortran path computes too: each 32-bit pattern is folded in with its
// linear position, so that a value in the wrong place changes the sum.
struct hashes {
  std::uint64_t h[8] = {};
  static void add(std::uint64_t& h, std::uint32_t p, std::int64_t i) {
    const std::uint64_t t = (std::uint64_t{p} + static_cast<std::uint64_t>(i % 65536) * 40503u) & 0xffffffffu;
    const int r = static_cast<int>(i % 31);
    const std::uint64_t rot = ((t << r) | (r == 0 ? 0 : t >> (32 - r))) & 0xffffffffu;
    h ^= rot;
  }
  template <class T>
  static std::uint32_t bits(T v) {
    static_assert(sizeof(T) == 4);
    std::uint32_t b;
    std::memcpy(&b, &v, 4);
    return b;
  }
  void ints(int k, const int* a, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) add(h[k], bits(a[i]), i);
  }
  void doubles(int k, const double* a, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) {
      std::uint64_t b;
      std::memcpy(&b, &a[i], 8);
      add(h[k], static_cast<std::uint32_t>(b), 2 * i);
      add(h[k], static_cast<std::uint32_t>(b >> 32), 2 * i + 1);
    }
  }
  std::int64_t total() const {
    std::int64_t s = 0;
    for (int k = 0; k < 8; ++k) s += (k + 1) * static_cast<std::int64_t>(h[k]);
    return s;
  }
};

// Row `row` of a (variable, position) array at each zone's positions by the zone placement rule;
// `upperbyzone`: a zone's last position is its own count (the formatted free variables of a pix
// file read whole).
inline void hashrow(std::uint64_t& h, const farray<float, 2>& a, int row, const farray<int, 1>& n, int nzones,
                    bool upperbyzone) {
  std::int64_t ioff = 1;
  for (int z = 1; z <= nzones; ++z) {
    const std::int64_t upper = upperbyzone ? n(z) : ioff + n(z) - 1;
    for (std::int64_t i = ioff; i <= upper; ++i)
      hashes::add(h, hashes::bits(a(row, i)), (row - 1) + (i - 1) * a.extent(1));
    if (z >= 2) ioff += n(z - 1);
  }
}

}  // namespace zelmbench
