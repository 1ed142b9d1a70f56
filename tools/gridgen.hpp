// Deterministic synthetic grids in the face-based form of the grid files, with a smooth analytic
// flow on them. Used for the sample data, the benchmarks and the fuzz seeds.
//
// Conventions of the generated grids: node and cell numbers count within their zone (1 .. nptsz,
// 1 .. ncellsz), a boundary face has the cell beside it on side 1 and -1 on side 2, face nodes are
// in cyclic order with the right-hand normal pointing out of the cell on side 1 (in 2D the edge
// runs with that cell on its left), and zone k is a copy of zone 1 shifted along x.
#pragma once

#include <cstdint>

#include "zelmgrid/farray.hpp"
#include "zelmgrid/files.hpp"

namespace zelmgen {

using fortran::farray;
using fortran::index_t;

struct grid {
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<float, 2> x;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;
};

// 3D: a block of nx x ny x nz hexahedra, each split into two prisms; the lower `prismlayers`
// layers stay prisms, the layers above are split into tetrahedra (3 per prism) so that the faces
// of neighbouring cells match. prismlayers = nz gives prisms only, 0 tetrahedra only.
grid tetprism(int nx, int ny, int nz, int prismlayers, int nzones = 1);

// 2D: nx x ny quadrilaterals, or triangles (two per quadrilateral) when `triangles` is set.
grid quadtri(int nx, int ny, bool triangles, int nzones = 1);

// The node values of a smooth flow (a vortex in a uniform stream): density, three velocity
// components, pressure, then `nfree` further variables; rows 1 .. 6 + nfree, one column per node.
farray<float, 2> nodesolution(const grid& g, int nfree);

// The same flow at the cell centres, `nvar` variables (cycling through the six fields).
farray<float, 2> cellsolution(const grid& g, int nvar);

// Cells needed for roughly `cells` cells of tetprism(n, n, n, n / 2): the edge count n.
int edgeforcells(std::int64_t cells);

// The same grid as the typed interface holds it (8-byte coordinates, counts per zone).
zelm::grid typed(const grid& g);

}  // namespace zelmgen
