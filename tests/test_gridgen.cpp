// The synthetic grid generator: every grid it makes is a consistent face-based grid.
#include <map>
#include <set>

#include "gridgen.hpp"
#include "testsupport.hpp"

namespace {

// Checks the face-based structure: counts, node and cell ranges, faces per cell, and that each
// interior face is shared by exactly two different cells. Returns faces per cell of zone 1.
std::map<int, int> checkzones(const zelmgen::grid& g) {
  std::map<int, int> facespercell;
  fortran::index_t f0 = 0;
  for (int k = 1; k <= g.nzones; ++k) {
    std::vector<int> count(static_cast<std::size_t>(g.ncellsz(k)) + 1, 0);
    for (int i = 1; i <= g.nfacesz(k); ++i) {
      const auto f = f0 + i;
      EXPECT_GE(g.npf(f), g.ndim == 2 ? 2 : 3);
      EXPECT_LE(g.npf(f), g.mnpfz(k));
      std::set<int> nodes;
      for (int s = 1; s <= g.npf(f); ++s) {
        EXPECT_GE(g.ifnode(s, f), 1);
        EXPECT_LE(g.ifnode(s, f), g.nptsz(k));
        nodes.insert(g.ifnode(s, f));
      }
      EXPECT_EQ(static_cast<int>(nodes.size()), g.npf(f)) << "repeated node on face " << f;
      const int c1 = g.ifcell(1, f), c2 = g.ifcell(2, f);
      EXPECT_GE(c1, 1);
      EXPECT_LE(c1, g.ncellsz(k));
      EXPECT_TRUE(c2 == -1 || (c2 >= 1 && c2 <= g.ncellsz(k) && c2 != c1));
      ++count[static_cast<std::size_t>(c1)];
      if (c2 > 0) ++count[static_cast<std::size_t>(c2)];
    }
    for (int c = 1; c <= g.ncellsz(k); ++c) {
      EXPECT_LE(count[static_cast<std::size_t>(c)], g.mfpcz(k));
      if (k == 1) ++facespercell[count[static_cast<std::size_t>(c)]];
    }
    f0 += g.nfacesz(k);
  }
  return facespercell;
}

}  // namespace

TEST(gridgen, TetrahedraAndPrismsShareMatchingFaces) {
  const auto g = zelmgen::tetprism(3, 2, 4, 2);
  EXPECT_EQ(g.ndim, 3);
  EXPECT_EQ(g.nptsz(1), 4 * 3 * 5);
  EXPECT_EQ(g.ncellsz(1), 3 * 2 * 2 * 2 + 3 * 2 * 2 * 6);  // two prism layers, two tetrahedron layers
  EXPECT_EQ(g.mnpfz(1), 4);
  EXPECT_EQ(g.mfpcz(1), 5);
  const auto per = checkzones(g);
  EXPECT_EQ(per.at(5), 24);  // prisms
  EXPECT_EQ(per.at(4), 72);  // tetrahedra
  EXPECT_EQ(per.size(), 2u);
}

TEST(gridgen, TetrahedraOnlyHaveTriangularFaces) {
  const auto g = zelmgen::tetprism(2, 2, 2, 0);
  EXPECT_EQ(g.mnpfz(1), 3);
  EXPECT_EQ(g.mfpcz(1), 4);
  const auto per = checkzones(g);
  EXPECT_EQ(per.at(4), g.ncellsz(1));
  // Closed surface of a box split into triangles: boundary faces = 4 per square of its 6 sides.
  int boundary = 0;
  for (int f = 1; f <= g.nfacesz(1); ++f) boundary += g.ifcell(2, f) < 0;
  EXPECT_EQ(boundary, 6 * 2 * 2 * 2);
}

TEST(gridgen, QuadrilateralsAndTrianglesIn2D) {
  const auto g = zelmgen::quadtri(4, 3, false, 2);
  EXPECT_EQ(g.nzones, 2);
  EXPECT_EQ(g.ncellsz(1), 12);
  EXPECT_EQ(g.ncellsz(2), 24);
  EXPECT_EQ(g.mfpcz(1), 4);
  EXPECT_EQ(g.mfpcz(2), 3);
  EXPECT_EQ(g.nfacesz(1), 4 * 4 + 5 * 3);  // edges of a 4 x 3 block
  EXPECT_EQ(checkzones(g).at(4), 12);
  EXPECT_GT(g.x(1, g.nptsz(1) + 1), 1.0f);  // zone 2 is shifted along x
}

TEST(gridgen, SolutionsHaveOneColumnPerNodeOrCell) {
  const auto g = zelmgen::tetprism(2, 2, 2, 1);
  const auto pix = zelmgen::nodesolution(g, 2);
  EXPECT_EQ(pix.extent(1), 8);
  EXPECT_EQ(pix.extent(2), g.nptsz(1));
  const auto q = zelmgen::cellsolution(g, 5);
  EXPECT_EQ(q.extent(1), 5);
  EXPECT_EQ(q.extent(2), g.ncellsz(1));
  EXPECT_GT(pix(1, 1), 0.5f);  // density near one
}

TEST(gridgen, SizeParameter) {
  EXPECT_EQ(zelmgen::edgeforcells(4 * 50 * 50 * 50), 50);
}
