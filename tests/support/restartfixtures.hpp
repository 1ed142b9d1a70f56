// Restart headers, zone counts and solution arrays built in the tests.
#pragma once

#include <cmath>
#include <cstring>
#include <initializer_list>
#include <vector>

#include "testsupport.hpp"

namespace zt {

using fortran::farray;
using fortran::index_t;

// The eight header values of a restart file.
struct rheader {
  double dtime = 0;
  int lastcyc = 0, rstype = 0;
  double dgamma = 0, drgas = 0, dr0 = 0, drm0 = 0, dp0 = 0;
};

// Values of which none is exact as a 4-byte real, so that narrowing shows.
inline rheader sampleheader() {
  return {0.1, 12345, -3, 1.4, 287.05, 1.225, 0.3, 101325.0 + 1.0 / 3.0};
}

// The same values after narrowing to 4-byte reals and widening back.
inline rheader narrowed(const rheader& h) {
  auto n = [](double d) { return static_cast<double>(static_cast<float>(d)); };
  return {n(h.dtime), h.lastcyc, h.rstype, n(h.dgamma), n(h.drgas), n(h.dr0), n(h.drm0), n(h.dp0)};
}

inline void setheader(const rheader& h) {
  using namespace mod_zelmgrid;
  dtime = h.dtime, lastcyc = h.lastcyc, rstype = h.rstype;
  dgamma = h.dgamma, drgas = h.drgas, dr0 = h.dr0, drm0 = h.drm0, dp0 = h.dp0;
}

inline rheader currentheader() {
  using namespace mod_zelmgrid;
  return {dtime, lastcyc, rstype, dgamma, drgas, dr0, drm0, dp0};
}

// Compares every value exactly (bit for bit for the reals).
inline void expectheader(const rheader& want, const rheader& got) {
  EXPECT_EQ(want.dtime, got.dtime);
  EXPECT_EQ(want.lastcyc, got.lastcyc);
  EXPECT_EQ(want.rstype, got.rstype);
  EXPECT_EQ(want.dgamma, got.dgamma);
  EXPECT_EQ(want.drgas, got.drgas);
  EXPECT_EQ(want.dr0, got.dr0);
  EXPECT_EQ(want.drm0, got.drm0);
  EXPECT_EQ(want.dp0, got.dp0);
}

inline farray<int, 1> counts(std::initializer_list<int> n) {
  farray<int, 1> a;
  a.allocate(static_cast<index_t>(n.size()));
  int k = 1;
  for (int v : n) a(k++) = v;
  return a;
}

inline index_t total(const farray<int, 1>& n) {
  index_t s = 0;
  for (index_t k = 1; k <= n.extent(1); ++k) s += n(k);
  return s;
}

// Where each zone's values begin in a row of q: zones 1 and 2 at 1, zone z >= 3 after the cells of
// zones 1 .. z-2. Element z-1 is zone z's start.
inline std::vector<index_t> zonestarts(const farray<int, 1>& n, int nzones) {
  std::vector<index_t> s;
  for (int z = 1; z <= nzones; ++z) {
    index_t start = 1;
    for (int k = 1; k <= z - 2; ++k) start += n(k);
    s.push_back(start);
  }
  return s;
}

// Positions 1 .. ntotal of a row that some zone's record reaches (element 0 unused).
inline std::vector<bool> reached(const farray<int, 1>& n, int nzones) {
  std::vector<bool> r(static_cast<std::size_t>(std::max<index_t>(total(n), 0)) + 1, false);
  const auto s = zonestarts(n, nzones);
  for (int z = 1; z <= nzones; ++z)
    for (index_t i = 0; i < n(z); ++i) r[static_cast<std::size_t>(s[z - 1] + i)] = true;
  return r;
}

// Solution values with nine significant digits, different for every variable and position.
inline float qvalue(int v, index_t p) {
  const double sign = (v + p) % 2 ? -1.0 : 1.0;
  return static_cast<float>(sign * static_cast<double>(10000 * v + p) / 7.0);
}

// A full solution array q(v, p) = qvalue(v, p).
inline farray<float, 2> makeq(int nvar, index_t ntotal) {
  farray<float, 2> q;
  q.allocate(nvar, ntotal);
  for (index_t p = 1; p <= ntotal; ++p)
    for (int v = 1; v <= nvar; ++v) q(v, p) = qvalue(v, p);
  return q;
}

// Row v of q as an array of one row, as the one-variable writer takes it.
inline farray<float, 2> row(const farray<float, 2>& q, int v) {
  farray<float, 2> r;
  r.allocate(1, q.extent(2));
  for (index_t p = 1; p <= q.extent(2); ++p) r(1, p) = q(v, p);
  return r;
}

// The value of a 4-byte real whose bytes are all `fill` (what fortran::allocationfill leaves).
inline float unsetfloat(int fill = 0x55) {
  float f;
  std::memset(&f, fill, sizeof f);
  return f;
}

inline std::uint32_t bits(float f) {
  std::uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}

}  // namespace zt
