// The geometry of one zone: face area vectors and centres, orientation, cell volumes and centres.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "zelmgrid/files.hpp"

namespace zelm::check::detail {

using vec = std::array<double, 3>;

// A zone's place in the grid and the numbers its faces use. Faces and cells are counted from 0
// within the zone; node() and cell() give -1 for a number outside the zone.
struct zone {
  const grid* g = nullptr;
  std::size_t k = 0;  // 0-based zone number
  zonecounts z;
  index_t n0 = 0, f0 = 0;              // nodes and faces of the zones before this one
  index_t nodebase = 0, cellbase = 0;  // subtracted from the file's numbers: 0, or the offsets
  int width = 0;                       // slots of a face's ifnode column

  int npf(index_t f) const { return g->npf(f0 + f + 1); }
  int slots(index_t f) const { return std::max(0, std::min(npf(f), width)); }
  int rawnode(index_t f, int i) const { return g->ifnode(i + 1, f0 + f + 1); }
  index_t node(index_t f, int i) const {
    const index_t l = rawnode(f, i) - nodebase - 1;
    return l >= 0 && l < z.nodes ? l : -1;
  }
  int rawcell(index_t f, int s) const { return g->ifcell(s + 1, f0 + f + 1); }
  index_t cell(index_t f, int s) const {
    const int v = rawcell(f, s);
    if (v <= 0) return -1;
    const index_t l = v - cellbase - 1;
    return l >= 0 && l < z.cells ? l : -1;
  }
  vec x(index_t l) const {
    const double* p = g->x.data() + (n0 + l) * g->ndim;
    return {p[0], g->ndim > 1 ? p[1] : 0.0, g->ndim > 2 ? p[2] : 0.0};
  }
};

// The zones of a grid, each numbered by the convention that fits the file (within a zone when
// every zone's numbers fit it, across the grid when only that fits).
struct numbering {
  bool nodesacross = false, cellsacross = false;
  std::vector<zone> zones;
};
numbering zonesof(const grid& g);

struct zonegeometry {
  std::vector<vec> area, centre;     // per face
  std::vector<signed char> outward;  // per face: +1 when the area vector points out of the side-1 cell
  std::vector<signed char> vote;     // per face: what its cells say (+ from side 1 to 2, - the other way)
  int sense = 1;                     // the grid's: +1 from side 1 to side 2
  std::vector<vec> cellcentre, closure;
  std::vector<double> volume, closuresize;
};

// facevalid: faces whose nodes are all in the zone and enough to span a face; cellvalid: cells
// whose every face is valid and that have enough faces to be closed.
zonegeometry geometry(const zone& z, const std::vector<char>& facevalid, const std::vector<char>& cellvalid);

// Faces whose node count and nodes make a face, cells all of whose faces do (minimum faces: ndim + 1).
void validity(const zone& z, std::vector<char>& facevalid, std::vector<char>& cellvalid);

inline vec operator-(vec a, const vec& b) {
  for (int i = 0; i < 3; ++i) a[i] -= b[i];
  return a;
}
inline vec operator+(vec a, const vec& b) {
  for (int i = 0; i < 3; ++i) a[i] += b[i];
  return a;
}
inline vec operator*(double s, vec a) {
  for (auto& v : a) v *= s;
  return a;
}
inline double dot(const vec& a, const vec& b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
inline vec cross(const vec& a, const vec& b) {
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
inline double norm(const vec& a) {
  return std::sqrt(dot(a, a));
}

}  // namespace zelm::check::detail
