// Pix data built in the tests: node counts, value arrays, header values, and what a reader is
// expected to leave in each node column.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "testsupport.hpp"

namespace zt {

using fortran::farray;
using fortran::index_t;

inline farray<int, 1> counts(std::initializer_list<int> n) {
  farray<int, 1> a;
  a.allocate(static_cast<index_t>(n.size()));
  index_t i = 1;
  for (int v : n) a(i++) = v;
  return a;
}

inline index_t total(const farray<int, 1>& n) {
  index_t s = 0;
  for (index_t i = 1; i <= n.extent(1); ++i) s += n(i);
  return s;
}

// The value of variable ivar at node column c. Computed in 4-byte arithmetic, the same expression
// as the gfortran reference program's, so that both sides produce the same bits.
inline float pixvalue(int ivar, index_t c) {
  return static_cast<float>(ivar) * 1000.0f + static_cast<float>(c) / 7.0f;
}

inline farray<float, 2> makepix(int rows, index_t cols) {
  farray<float, 2> p;
  p.allocate(rows, cols);
  for (index_t c = 1; c <= cols; ++c)
    for (int r = 1; r <= rows; ++r) p(r, c) = pixvalue(r, c);
  return p;
}

// Row `row` of p as a one-row array.
inline farray<float, 2> onerow(const farray<float, 2>& p, index_t row) {
  farray<float, 2> r;
  r.allocate(1, p.extent(2));
  for (index_t c = 1; c <= p.extent(2); ++c) r(1, c) = p(row, c);
  return r;
}

// Header values that no 4-byte real holds exactly, as the gfortran reference program sets them.
struct pixheader {
  double dvar = 1.0 / 3.0, dgamma = 1.4, drgas = 287.05287, dr0 = 1.225, drm0 = 0.3, dp0 = 101325.0 / 7.0;
  std::string string = "Mach 0.5 run, cycle 1200";
  std::vector<std::string> labels = {"pressure coefficient", "0123456789abcdefghijklmno"};

  // Puts the header and nfree labels (cycling through `labels`) into the module variables.
  void set(int nfree) const {
    mod_zelmgrid::dvar = dvar, mod_zelmgrid::dgamma = dgamma, mod_zelmgrid::drgas = drgas;
    mod_zelmgrid::dr0 = dr0, mod_zelmgrid::drm0 = drm0, mod_zelmgrid::dp0 = dp0;
    mod_zelmgrid::string = fortran::char25(string);
    mod_zelmgrid::nfree = nfree;
    for (int k = 1; k <= std::min(nfree, 20); ++k) mod_zelmgrid::strfree(k) = fortran::char25(label(k));
    mod_gridvars::npixvar = 6 + nfree;
  }
  std::string label(int k) const { return labels[static_cast<std::size_t>(k - 1) % labels.size()]; }
  double values(int i) const {
    const double v[6] = {dvar, dgamma, drgas, dr0, drm0, dp0};
    return v[i];
  }
};

// Puts values into the module variables that no file holds, so that a test sees what a read set.
inline void scramblemodule() {
  mod_zelmgrid::dvar = mod_zelmgrid::dgamma = mod_zelmgrid::drgas = -7.5;
  mod_zelmgrid::dr0 = mod_zelmgrid::drm0 = mod_zelmgrid::dp0 = -8.5;
  mod_zelmgrid::string = fortran::char25("scrambled");
  mod_zelmgrid::nfree = 99;
  for (auto& s : mod_zelmgrid::strfree.v) s = fortran::char25("scrambled label");
  mod_gridvars::npixvar = 4242;
}

// First node column of zone iz by the placement rule: column 1 for zones 1 and 2, and from zone 3
// on the column after zones 1 .. iz-2.
inline index_t zonestart(const farray<int, 1>& nptsz, int iz) {
  index_t s = 1;
  for (int k = 1; k <= iz - 2; ++k) s += nptsz(k);
  return s;
}

// For each node column of one variable's row: the column of the source row whose value a reader
// leaves there, or nothing for a column that no zone reaches. `shortfree` selects the formatted
// whole-file reader's reading of free variables (columns zonestart .. nptsz(iz) only).
inline std::vector<std::optional<index_t>> expectedcolumns(const farray<int, 1>& nptsz, int nzones,
                                                           bool shortfree) {
  std::vector<std::optional<index_t>> cols(static_cast<std::size_t>(std::max<index_t>(total(nptsz), 0)));
  for (int iz = 1; iz <= nzones; ++iz) {
    const index_t first = zonestart(nptsz, iz);
    const index_t last = shortfree ? nptsz(iz) : first + nptsz(iz) - 1;
    for (index_t c = first; c <= last; ++c) cols[static_cast<std::size_t>(c - 1)] = c;
  }
  return cols;
}

inline std::uint32_t bits(float f) {
  std::uint32_t b;
  std::memcpy(&b, &f, 4);
  return b;
}
inline std::uint64_t bits(double d) {
  std::uint64_t b;
  std::memcpy(&b, &d, 8);
  return b;
}
// A float whose four bytes are all `fill` (what fortran::allocationfill leaves in a new array).
inline float filled(int fill) {
  float f;
  std::memset(&f, fill, 4);
  return f;
}

inline std::string hex(float f) {
  char b[16];
  std::snprintf(b, sizeof b, "%08X", bits(f));
  return b;
}
inline std::string hex(double d) {
  char b[24];
  std::snprintf(b, sizeof b, "%016llX", static_cast<unsigned long long>(bits(d)));
  return b;
}

}  // namespace zt
