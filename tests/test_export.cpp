// The cell builder of the viewer export: shapes recognised in VTK's node order and turned outward
// whatever the faces' stored order and side, general cells as polyhedra, numbering detected, broken
// cells left out and named.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>

#include "zelmgrid/export.hpp"

namespace {

using pt = std::array<double, 3>;
using facelist = std::vector<std::vector<int>>;

struct zonespec {
  std::vector<pt> points;
  std::vector<facelist> cells;  // each cell's faces, zone node numbers from 1
};

// A grid from cells given by their faces: a face met twice is shared, once a boundary face (-1).
// `flip` turns the stored nodes of every other face round and puts its first cell on side 2.
zelm::grid makegrid(int ndim, const std::vector<zonespec>& zones, bool flip = false, bool across = false) {
  zelm::grid g;
  g.ndim = ndim;
  struct rec {
    std::vector<int> nodes;
    int c1, c2;
  };
  std::vector<std::vector<rec>> faces;
  int width = 2, node0 = 0, cell0 = 0;
  for (const auto& z : zones) {
    std::map<std::vector<int>, std::size_t> seen;
    std::vector<rec> fs;
    for (std::size_t c = 0; c < z.cells.size(); ++c)
      for (const auto& f : z.cells[c]) {
        auto key = f;
        std::sort(key.begin(), key.end());
        const int cell = static_cast<int>(c) + 1 + (across ? cell0 : 0);
        if (auto it = seen.find(key); it != seen.end()) {
          fs[it->second].c2 = cell;
        } else {
          seen[key] = fs.size();
          fs.push_back({f, cell, -1});
        }
        width = std::max(width, static_cast<int>(f.size()));
      }
    for (std::size_t i = 0; flip && i < fs.size(); i += 2) {
      std::reverse(fs[i].nodes.begin(), fs[i].nodes.end());
      std::swap(fs[i].c1, fs[i].c2);
    }
    for (auto& f : fs)
      for (auto& n : f.nodes) n += across ? node0 : 0;
    int mfpc = 0;
    for (const auto& c : z.cells) mfpc = std::max(mfpc, static_cast<int>(c.size()));
    g.zones.push_back({static_cast<int>(z.points.size()), static_cast<int>(fs.size()),
                       static_cast<int>(z.cells.size()), width, mfpc});
    faces.push_back(fs);
    node0 += static_cast<int>(z.points.size());
    cell0 += static_cast<int>(z.cells.size());
  }
  g.x.allocate(ndim, g.totalnodes());
  g.npf.allocate(g.totalfaces());
  g.ifnode.allocate(width, g.totalfaces());
  g.ifcell.allocate(2, g.totalfaces());
  fortran::index_t n = 0, f = 0;
  for (std::size_t k = 0; k < zones.size(); ++k) {
    for (const auto& p : zones[k].points) {
      ++n;
      for (int d = 1; d <= ndim; ++d) g.x(d, n) = p[static_cast<std::size_t>(d - 1)];
    }
    for (const auto& r : faces[k]) {
      ++f;
      g.npf(f) = static_cast<int>(r.nodes.size());
      for (int i = 1; i <= width; ++i)
        g.ifnode(i, f) = i <= g.npf(f) ? r.nodes[static_cast<std::size_t>(i - 1)] : 0;
      g.ifcell(1, f) = r.c1, g.ifcell(2, f) = r.c2;
    }
  }
  return g;
}

pt sub(pt a, pt b) {
  return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
double triple(pt a, pt b, pt c) {
  return a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
         a[2] * (b[0] * c[1] - b[1] * c[0]);
}

// The point of a piece as coordinates.
pt at(const zelm::grid& g, const zelm::piece& pc, std::int64_t i) {
  const auto n = pc.nodes[static_cast<std::size_t>(i)] + 1;
  return {g.x(1, n), g.x(2, n), g.ndim == 3 ? g.x(3, n) : 0.0};
}

// The triple product of the edges from point c[0] of the cell to its points c[a], c[b], c[d].
double turn(const zelm::grid& g, const zelm::piece& pc, const std::vector<std::int64_t>& c, std::size_t a,
            std::size_t b, std::size_t d) {
  const pt o = at(g, pc, c[0]);
  return triple(sub(at(g, pc, c[a]), o), sub(at(g, pc, c[b]), o), sub(at(g, pc, c[d]), o));
}

std::vector<std::int64_t> cell0(const zelm::piece& pc) {
  return {pc.connectivity.begin(), pc.connectivity.begin() + pc.offsets[0]};
}

const zonespec tet{{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}},
                   {{{1, 2, 3}, {1, 2, 4}, {2, 3, 4}, {3, 1, 4}}}};
const zonespec pyramid{{{0, 0, 0}, {2, 0, 0}, {2, 2, 0}, {0, 2, 0}, {1, 1, 3}},
                       {{{1, 2, 3, 4}, {1, 2, 5}, {2, 3, 5}, {3, 4, 5}, {4, 1, 5}}}};
const zonespec wedge{{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 2}, {1, 0, 2}, {0, 1, 2}},
                     {{{1, 2, 3}, {4, 5, 6}, {1, 2, 5, 4}, {2, 3, 6, 5}, {3, 1, 4, 6}}}};
const zonespec hexa{{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}},
                    {{{1, 2, 3, 4}, {5, 6, 7, 8}, {1, 2, 6, 5}, {2, 3, 7, 6}, {3, 4, 8, 7}, {4, 1, 5, 8}}}};

class shapes : public ::testing::TestWithParam<bool> {};

TEST_P(shapes, TetrahedronInVtkOrderWithPositiveVolume) {
  const auto g = makegrid(3, {tet}, GetParam());
  const auto m = zelm::buildmesh(g);
  ASSERT_EQ(m.zones[0].types, std::vector<std::uint8_t>{zelm::vtk_tetra});
  const auto c = cell0(m.zones[0]);
  const auto& pc = m.zones[0];
  EXPECT_NEAR(turn(g, pc, c, 1, 2, 3), 1.0, 1e-12);
}

TEST_P(shapes, PyramidBaseTurnsToItsApex) {
  const auto g = makegrid(3, {pyramid}, GetParam());
  const auto m = zelm::buildmesh(g);
  ASSERT_EQ(m.zones[0].types, std::vector<std::uint8_t>{zelm::vtk_pyramid});
  const auto c = cell0(m.zones[0]);
  const auto& pc = m.zones[0];
  EXPECT_EQ(at(g, pc, c[4]), (pt{1, 1, 3}));
  EXPECT_GT(turn(g, pc, c, 1, 3, 4), 0);
}

TEST_P(shapes, WedgeFirstTriangleFacesAwayFromTheSecond) {
  const auto g = makegrid(3, {wedge}, GetParam());
  const auto m = zelm::buildmesh(g);
  ASSERT_EQ(m.zones[0].types, std::vector<std::uint8_t>{zelm::vtk_wedge});
  const auto c = cell0(m.zones[0]);
  const auto& pc = m.zones[0];
  EXPECT_LT(turn(g, pc, c, 1, 2, 3), 0);
  for (int i = 0; i < 3; ++i) {  // 0-3, 1-4, 2-5 are the edges between the triangles
    const pt d =
        sub(at(g, pc, c[static_cast<std::size_t>(i + 3)]), at(g, pc, c[static_cast<std::size_t>(i)]));
    EXPECT_EQ(d, (pt{0, 0, d[2]}));
  }
}

TEST_P(shapes, HexahedronBottomTurnsToItsTop) {
  const auto g = makegrid(3, {hexa}, GetParam());
  const auto m = zelm::buildmesh(g);
  ASSERT_EQ(m.zones[0].types, std::vector<std::uint8_t>{zelm::vtk_hexahedron});
  const auto c = cell0(m.zones[0]);
  const auto& pc = m.zones[0];
  EXPECT_NEAR(turn(g, pc, c, 1, 3, 4), 1.0, 1e-12);
  for (int i = 0; i < 4; ++i) {
    const pt d =
        sub(at(g, pc, c[static_cast<std::size_t>(i + 4)]), at(g, pc, c[static_cast<std::size_t>(i)]));
    EXPECT_EQ(d, (pt{0, 0, 1}));
  }
}

TEST_P(shapes, QuadrilateralFromEdgesInAnyOrderIsCounterClockwise) {
  const zonespec quad{{{0, 0, 0}, {2, 0, 0}, {2, 1, 0}, {0, 1, 0}}, {{{1, 2}, {3, 4}, {2, 3}, {4, 1}}}};
  const auto g = makegrid(2, {quad}, GetParam());
  const auto m = zelm::buildmesh(g);
  ASSERT_EQ(m.zones[0].types, std::vector<std::uint8_t>{zelm::vtk_quad});
  const auto c = cell0(m.zones[0]);
  double area = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const pt a = at(g, m.zones[0], c[i]), b = at(g, m.zones[0], c[(i + 1) % 4]);
    area += a[0] * b[1] - b[0] * a[1];
  }
  EXPECT_DOUBLE_EQ(area / 2, 2.0);
  // The boundary edges walk the same way round: each goes from one corner to the next.
  ASSERT_EQ(m.boundaries.size(), 1u);
  EXPECT_EQ(m.boundaries[0].types, std::vector<std::uint8_t>(4, zelm::vtk_line));
}

INSTANTIATE_TEST_SUITE_P(StoredOrderAndSide, shapes, ::testing::Bool());

TEST(export, AnyOtherClosedCellIsAPolyhedronWithOutwardFaces) {
  // A cube whose top is split into two triangles: seven faces, eight nodes.
  zonespec z = hexa;
  z.cells[0][1] = {5, 6, 7};
  z.cells[0].push_back({5, 7, 8});
  const auto g = makegrid(3, {z}, true);
  const auto m = zelm::buildmesh(g);
  const auto& pc = m.zones[0];
  ASSERT_EQ(pc.types, std::vector<std::uint8_t>{zelm::vtk_polyhedron});
  EXPECT_EQ(pc.offsets[0], 8);
  ASSERT_EQ(pc.faceoffsets, std::vector<std::int64_t>{static_cast<std::int64_t>(pc.faces.size())});
  ASSERT_EQ(pc.faces[0], 7);
  double volume = 0;
  std::size_t i = 1;
  for (int f = 0; f < 7; ++f) {
    const auto n = static_cast<std::size_t>(pc.faces[i]);
    for (std::size_t j = 1; j + 1 < n; ++j)
      volume +=
          triple(at(g, pc, pc.faces[i + 1]), at(g, pc, pc.faces[i + 1 + j]), at(g, pc, pc.faces[i + 2 + j]));
    i += n + 1;
  }
  EXPECT_NEAR(volume / 6, 1.0, 1e-12);
}

TEST(export, MixedCellsKeepFaceOffsetsForEveryCell) {
  zonespec z = hexa;
  z.cells[0][1] = {5, 6, 7};
  z.cells[0].push_back({5, 7, 8});
  z.points.push_back({0.5, 0.5, -1});
  z.cells.push_back({{1, 2, 9}, {2, 3, 9}, {3, 4, 9}, {4, 1, 9}, {1, 2, 3, 4}});  // a pyramid below
  const auto m = zelm::buildmesh(makegrid(3, {z}));
  const auto& pc = m.zones[0];
  EXPECT_EQ(pc.types, (std::vector<std::uint8_t>{zelm::vtk_polyhedron, zelm::vtk_pyramid}));
  EXPECT_EQ(pc.faceoffsets.size(), 2u);
  EXPECT_EQ(pc.faceoffsets[1], -1);
  EXPECT_EQ(pc.nodes.size(), 9u);
}

TEST(export, NumberingAcrossTheGridIsFoundAndGivesTheSameCells) {
  std::vector<zonespec> zones = {hexa, tet, wedge};
  const auto within = zelm::buildmesh(makegrid(3, zones, false, false));
  const auto across = zelm::buildmesh(makegrid(3, zones, false, true));
  EXPECT_EQ(within.num, zelm::numbering::withinzone);
  EXPECT_EQ(across.num, zelm::numbering::acrossgrid);
  for (std::size_t k = 0; k < 3; ++k) {
    EXPECT_EQ(within.zones[k].types, across.zones[k].types);
    EXPECT_EQ(within.zones[k].connectivity, across.zones[k].connectivity);
    EXPECT_EQ(within.zones[k].nodes, across.zones[k].nodes);
    EXPECT_EQ(within.zones[k].cells, across.zones[k].cells);
  }
  EXPECT_EQ(across.leftout, 0);
}

TEST(export, AnOpenCellIsLeftOutAndNamedOrRefusedWhenStrict) {
  zonespec z = hexa;
  z.cells.push_back(tet.cells[0]);
  z.points.push_back({5, 5, 5});
  z.cells[1] = {{9, 2, 3}, {9, 2, 4}};  // two faces only
  const auto g = makegrid(3, {z});
  const auto m = zelm::buildmesh(g);
  EXPECT_EQ(m.zones[0].types.size(), 1u);
  EXPECT_EQ(m.leftout, 1);
  ASSERT_EQ(m.firstleftout.size(), 1u);
  EXPECT_EQ(m.firstleftout[0].zone, 1);
  EXPECT_EQ(m.firstleftout[0].cell, 2);
  EXPECT_NE(m.firstleftout[0].why.find("open"), std::string::npos);
  EXPECT_THROW(zelm::buildmesh(g, true), zelm::error);
  const auto lines = m.report();
  EXPECT_NE(lines.back().find("zone 1 cell 2"), std::string::npos) << lines.back();
}

TEST(export, AFaceWithAMissingNodeLeavesItsCellOut) {
  auto g = makegrid(3, {hexa});
  g.ifnode(1, 1) = 1000;
  const auto m = zelm::buildmesh(g);
  EXPECT_EQ(m.zones[0].types.size(), 0u);
  ASSERT_EQ(m.firstleftout.size(), 1u);
  EXPECT_NE(m.firstleftout[0].why.find("face 1 names a node that does not exist"), std::string::npos);
  // The face count of a face beyond the array's height is treated alike, without reading past it.
  g = makegrid(3, {hexa});
  g.npf(2) = 1 << 30;
  EXPECT_EQ(zelm::buildmesh(g).leftout, 1);
}

TEST(export, AFlatCellIsDegenerate) {
  zonespec z = tet;
  z.points[3] = {0.5, 0.5, 0};
  const auto m = zelm::buildmesh(makegrid(3, {z}));
  ASSERT_EQ(m.leftout, 1);
  EXPECT_NE(m.firstleftout[0].why.find("no volume"), std::string::npos);
}

TEST(export, CountsThatDisagreeWithTheArraysAreRefusedBeforeAnyWork) {
  auto g = makegrid(3, {hexa});
  g.zones[0].cells = 2000000000;
  try {
    zelm::buildmesh(g);
    FAIL() << "no error";
  } catch (const zelm::error& e) {
    EXPECT_NE(std::string(e.what()).find("more than the 6 faces can bound"), std::string::npos) << e.what();
  }
  g = makegrid(3, {hexa});
  g.zones[0].nodes = 9;
  EXPECT_THROW(zelm::buildmesh(g), zelm::error);
}

TEST(export, BoundaryCodesMakeOnePieceEachWithItsOwnPoints) {
  auto g = makegrid(3, {hexa});
  g.ifcell(2, 1) = -3;  // the bottom face
  const auto m = zelm::buildmesh(g);
  ASSERT_EQ(m.codes, (std::vector<int>{-1, -3}));
  EXPECT_EQ(m.boundaries[0].name, "boundary -1");
  EXPECT_EQ(m.boundaries[0].types.size(), 5u);
  EXPECT_EQ(m.boundaries[0].nodes.size(), 8u);
  EXPECT_EQ(m.boundaries[1].types.size(), 1u);
  EXPECT_EQ(m.boundaries[1].nodes.size(), 4u);
  // The bottom face points down, out of the cube.
  const auto& b = m.boundaries[1];
  const pt p0 = at(g, b, 0), p1 = at(g, b, 1), p2 = at(g, b, 2);
  EXPECT_LT(triple(sub(p1, p0), sub(p2, p0), {0, 0, 1}), 0);
}

}  // namespace
