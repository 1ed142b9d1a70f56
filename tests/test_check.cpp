// zelm check and zelm diff through their library: grids built here with one defect each, the
// sample grids, and comparisons of files converted between precisions.
#include <algorithm>
#include <cmath>
#include <set>

#include "gridgen.hpp"
#include "testsupport.hpp"
#include "zelmgrid/check.hpp"

namespace {

namespace zc = zelm::check;
using fortran::index_t;

zelm::grid quads() {
  return zelmgen::typed(zelmgen::quadtri(4, 3, false));
}
zelm::grid tets() {
  return zelmgen::typed(zelmgen::tetprism(3, 3, 2, 1));
}  // prisms below, tetrahedra above

// The names of the checks that failed (warnings left out).
std::set<std::string> failed(const zc::report& r) {
  std::set<std::string> s;
  for (const auto& sec : r.sections)
    for (const auto& c : sec.checks)
      if (!c.ok() && !c.warning) s.insert(c.name.substr(0, c.name.find(" (")));
  return s;
}

std::set<std::string> failed(const zc::section& s) {
  zc::report r;
  r.sections.push_back(s);
  return failed(r);
}

// The first interior face (cells on both sides) and the first boundary face.
index_t interior(const zelm::grid& g) {
  for (index_t f = 1;; ++f)
    if (g.ifcell(2, f) > 0) return f;
}
index_t onboundary(const zelm::grid& g) {
  for (index_t f = 1;; ++f)
    if (g.ifcell(2, f) < 0) return f;
}

TEST(Check, GeneratedGridsAreSound) {
  for (const auto& g : {quads(), tets(), zelmgen::typed(zelmgen::quadtri(5, 4, true, 3)),
                        zelmgen::typed(zelmgen::tetprism(3, 2, 3, 0, 2))}) {
    const auto r = zc::checkgrid(g);
    EXPECT_EQ(r.failed(), 0) << zc::text(r, "grid OK");
    EXPECT_NE(zc::text(r, "grid OK").find("from side 1 to side 2"), std::string::npos);
  }
}

TEST(Check, SampleFilesAreSound) {
  for (const char* name : {"flow2d-grid.unf", "flow3d-grid.unf", "flow2d-grid.txt", "flow3d-grid.txt"}) {
    const std::string file = std::string(ZELM_SOURCE_DIR) + "/examples/" + name;
    const bool text = std::string(name).ends_with(".txt");
    const auto g =
        zelm::readgrid(file, {text ? zelm::encoding::formatted : zelm::encoding::unformatted, false});
    const auto r = zc::checkgrid(g);
    EXPECT_EQ(r.failed(), 0) << name << "\n" << zc::text(r, "grid OK");
  }
}

TEST(Check, EachDefectFailsItsCheck) {
  struct defect {
    const char* what;
    zelm::grid (*build)();
    void (*spoil)(zelm::grid&);
    std::set<std::string> fails;
  };
  const std::vector<defect> cases = {
      {"a face of two nodes in 3D",
       tets,
       [](zelm::grid& g) { g.npf(onboundary(g)) = 2; },
       {"face node counts from 3 to mnpfz"}},
      {"a node number past the zone",
       tets,
       [](zelm::grid& g) { g.ifnode(1, onboundary(g)) = g.zones[0].nodes + 7; },
       {"node numbers in range"}},
      {"a node twice in a face",
       tets,
       [](zelm::grid& g) {
         const index_t f = onboundary(g);
         g.ifnode(2, f) = g.ifnode(1, f);
       },
       {"no node repeated in a face", "cells closed", "every face has a non-zero area"}},
      {"a face twice",
       quads,
       [](zelm::grid& g) {  // an interior edge given again in place of a boundary edge
         const index_t f = onboundary(g), i = interior(g);
         g.ifnode(1, f) = g.ifnode(1, i), g.ifnode(2, f) = g.ifnode(2, i);
       },
       {"no two faces with the same nodes", "cells closed"}},
      {"a node on no face",
       quads,
       [](zelm::grid& g) {
         zelm::grid h = quads();
         fortran::farray<double, 2> x;
         x.allocate(2, h.totalnodes() + 1);
         for (index_t i = 0; i < h.x.size(); ++i) x.data()[i] = h.x.data()[i];
         x(1, h.totalnodes() + 1) = 9, x(2, h.totalnodes() + 1) = 9;
         g.x = std::move(x);
         ++g.zones[0].nodes;
       },
       {"every node on a face"}},
      {"a cell number past the zone",
       quads,
       [](zelm::grid& g) { g.ifcell(1, onboundary(g)) = g.zones[0].cells + 1; },
       {"cell numbers in range", "cells closed"}},  // the cell beside it lost a side
      {"a face with no cell",
       quads,
       [](zelm::grid& g) { g.ifcell(1, onboundary(g)) = -2; },
       {"a cell on at least one side of every face", "cells closed"}},
      {"one cell on both sides",
       quads,
       [](zelm::grid& g) {
         const index_t f = onboundary(g);
         g.ifcell(2, f) = g.ifcell(1, f);
       },
       {"different cells on the two sides of a face", "cells closed", "at most mfpcz"}},
      {"a cell with no face", quads, [](zelm::grid& g) { ++g.zones[0].cells; }, {"every cell has faces"}},
      {"more faces than mfpcz", tets, [](zelm::grid& g) { g.zones[0].mfpc = 4; }, {"at most mfpcz"}},
      {"a reversed face",
       tets,
       [](zelm::grid& g) {
         const index_t f = interior(g);
         std::reverse(&g.ifnode(1, f), &g.ifnode(1, f) + g.npf(f));
       },
       {"faces oriented consistently"}},
      {"a cell that is not closed",
       quads,
       [](zelm::grid& g) {                               // a boundary edge that ends at the wrong node
         g.ifnode(2, onboundary(g)) = g.zones[0].nodes;  // the far corner
       },
       {"cells closed"}},
  };
  for (const auto& c : cases) {
    zelm::grid g = c.build();
    c.spoil(g);
    const auto r = zc::checkgrid(g);
    EXPECT_EQ(failed(r), c.fails) << c.what << "\n" << zc::text(r, "grid OK");
  }
}

TEST(Check, AnInvertedCellHasANegativeVolumeAndPoorQuality) {
  zelm::grid g = quads();              // 4 x 3 quadrilaterals; node 7 is interior (i = 1, j = 1)
  g.x(1, 7) += 0.5, g.x(2, 7) += 0.5;  // pushed through the opposite corner of its cell
  const auto r = zc::checkgrid(g);
  EXPECT_TRUE(failed(r).count("cell areas positive")) << zc::text(r, "grid OK");
}

TEST(Check, SkewedFacesAreCounted) {
  zelm::grid g = quads();
  g.x(2, 7) += 0.24;  // node 7 nearly onto the row above: the edges around it far from centred
  const auto r = zc::checkgrid(g);
  const auto& zone = r.sections.at(1);
  double skew = 0;
  for (const auto& q : zone.ranges)
    if (q.name == "skewness") skew = q.max;
  EXPECT_GT(skew, 0.3);
  EXPECT_EQ(failed(r).count("cell areas positive"), 0u) << zc::text(r, "grid OK");
}

TEST(Check, BoundaryCodesAreCountedWithTheirArea) {
  zelm::grid g = quads();  // the unit square's boundary, 4 x 3 edges of 1/4
  const index_t f = onboundary(g);
  g.ifcell(2, f) = -3;
  const auto r = zc::checkgrid(g);
  const auto& b = r.sections.at(1).boundaries;
  ASSERT_EQ(b.size(), 2u);
  EXPECT_EQ(b[0].code, -3);
  EXPECT_EQ(b[0].faces, 1);
  EXPECT_NEAR(b[0].area, 0.25, 0.02);
  EXPECT_EQ(b[1].code, -1);
  EXPECT_EQ(b[1].faces, 13);
  EXPECT_NEAR(b[0].area + b[1].area, 3.5, 0.01);
}

TEST(Check, NumberingAcrossTheGridIsRecognised) {
  zelm::grid g = zelmgen::typed(zelmgen::quadtri(3, 2, false, 2));
  const index_t f0 = g.zones[0].faces;
  for (index_t f = f0 + 1; f <= g.totalfaces(); ++f) {
    for (int s = 1; s <= g.npf(f); ++s) g.ifnode(s, f) += g.zones[0].nodes;
    for (int s = 1; s <= 2; ++s)
      if (g.ifcell(s, f) > 0) g.ifcell(s, f) += g.zones[0].cells;
  }
  const auto r = zc::checkgrid(g);
  EXPECT_EQ(r.failed(), 0) << zc::text(r, "grid OK");
  EXPECT_NE(zc::text(r, "").find("nodes counted across the grid, cells counted across the grid"),
            std::string::npos);
}

TEST(Check, SolutionDefects) {
  fortran::farray<double, 2> v;
  v.allocate(6, 4);
  for (index_t i = 0; i < v.size(); ++i) v.data()[i] = 1.0;
  EXPECT_TRUE(failed(zc::checksolution("pix", v, {4}, "node", zc::pixfixed, {})).empty());
  v(2, 3) = NAN;
  v(1, 2) = 0;
  v(5, 4) = -1;
  const auto s = zc::checksolution("pix", v, {2, 2}, "node", zc::pixfixed, {});
  EXPECT_EQ(failed(s), (std::set<std::string>{"values finite", "density positive", "pressure positive"}));
  EXPECT_EQ(s.checks[1].where.at(0), "variable 2 at zone 2 node 1: nan");
  EXPECT_EQ(s.ranges[4].min, -1);
  EXPECT_EQ(s.ranges[4].minwhere, "zone 2 node 2");
}

// ---- diff -------------------------------------------------------------------------------------

zelm::pix pixof(const zelmgen::grid& g) {
  zelm::pix p;
  p.dvar = 1, p.dgamma = 1.4, p.dp0 = 101325;
  p.text = "diff";
  p.labels = {"extra"};
  p.values.allocate(7, g.x.extent(2));
  // Values that need all of a double's digits.
  for (index_t i = 0; i < p.values.size(); ++i)
    p.values.data()[i] = 1.0 + std::sin(0.1 * static_cast<double>(i)) / 3;
  return p;
}

double maxulps(const zc::report& r) {
  double m = 0;
  for (const auto& s : r.sections)
    for (const auto& q : s.ranges)
      if (q.name.find("ULPs") != std::string::npos) m = std::max(m, q.max);
  return m;
}

class Diff : public zt::zelmtest {};

TEST_F(Diff, FourToEightToFourBytesIsExact) {
  const auto gg = zelmgen::quadtri(4, 3, false);
  const auto g = zelmgen::typed(gg);
  const auto nodes = g.nodesperzone();
  const auto a = path("a4").string(), b = path("b8").string(), c = path("c4").string();
  zelm::writepix(a, {zelm::encoding::unformatted, false}, pixof(gg), nodes);
  zelm::writepix(b, {zelm::encoding::binary, true},
                 zelm::readpix(a, {zelm::encoding::unformatted, false}, nodes), nodes);
  zelm::writepix(c, {zelm::encoding::formatted, false},
                 zelm::readpix(b, {zelm::encoding::binary, true}, nodes), nodes);
  const auto pa = zelm::readpix(a, {zelm::encoding::unformatted, false}, nodes);
  const auto pc = zelm::readpix(c, {zelm::encoding::formatted, false}, nodes);
  const auto r = zc::diffpix(pa, {false}, pc, {false}, nodes, &g, {});
  EXPECT_EQ(r.failed(), 0) << zc::text(r, "equal");
  EXPECT_EQ(maxulps(r), 0);
}

TEST_F(Diff, EightToFourBytesStaysWithinHalfAnUlp) {
  const auto gg = zelmgen::quadtri(4, 3, false);
  const auto nodes = zelmgen::typed(gg).nodesperzone();
  const auto a = path("a8").string(), b = path("b4").string();
  zelm::writepix(a, {zelm::encoding::unformatted, true}, pixof(gg), nodes);
  zelm::writepix(b, {zelm::encoding::binary, false}, pixof(gg), nodes);
  const auto pa = zelm::readpix(a, {zelm::encoding::unformatted, true}, nodes);
  const auto pb = zelm::readpix(b, {zelm::encoding::binary, false}, nodes);
  const auto exact = zc::diffpix(pa, {true}, pb, {false}, nodes, nullptr, {});
  EXPECT_GT(exact.failed(), 0);  // the values did change
  EXPECT_GT(maxulps(exact), 0.0);
  EXPECT_LE(maxulps(exact), 0.5);
  EXPECT_EQ(zc::diffpix(pa, {true}, pb, {false}, nodes, nullptr, {0, 0, 0.5}).failed(), 0);
}

TEST_F(Diff, OneChangedValueIsFoundAtItsPlace) {
  const auto gg = zelmgen::quadtri(4, 3, false, 2);
  const auto g = zelmgen::typed(gg);
  const auto nodes = g.nodesperzone();
  const auto a = pixof(gg);
  auto b = pixof(gg);
  const index_t at = nodes[0] + 6;  // zone 2, node 6
  b.values(3, at) += 1e-3;
  const auto r = zc::diffpix(a, {true}, b, {true}, nodes, &g, {1e-9, 0, 0});
  EXPECT_EQ(failed(r), std::set<std::string>{"variable 3"});
  const auto& values = r.sections.at(1);
  const auto& check = values.checks.at(2);
  EXPECT_EQ(check.failures, 1);
  const std::string place = "zone 2 node 6 at (";
  EXPECT_EQ(check.where.at(0).rfind(place, 0), 0u) << check.where.at(0);
  EXPECT_NEAR(values.ranges.at(6).max, 1e-3, 1e-12);  // variable 3's largest absolute difference
  EXPECT_EQ(values.ranges.at(6).maxwhere.rfind(place, 0), 0u);
}

TEST_F(Diff, GridsDifferInCoordinatesAndConnectivity) {
  const auto a = tets();
  auto b = tets();
  EXPECT_EQ(zc::diffgrids(a, {false}, b, {false}, {}).failed(), 0);
  b.x(2, 5) += 1e-3;
  std::swap(b.ifnode(1, 9), b.ifnode(2, 9));
  const auto r = zc::diffgrids(a, {false}, b, {false}, {});
  EXPECT_EQ(failed(r), (std::set<std::string>{"y within tolerance", "faces equal, face for face"}));
  ++b.zones[0].cells;
  EXPECT_EQ(failed(zc::diffgrids(a, {false}, b, {false}, {})), std::set<std::string>{"zone 1 counts equal"});
}

TEST_F(Diff, UlpDistance) {
  EXPECT_EQ(zc::ulpdistance(1.0, std::nextafter(1.0f, 2.0f), false), 1.0);
  EXPECT_EQ(zc::ulpdistance(1.0, std::nextafter(1.0, 2.0), true), 1.0);
  EXPECT_EQ(zc::ulpdistance(NAN, NAN, true), 0.0);
  EXPECT_TRUE(std::isinf(zc::ulpdistance(1.0, NAN, true)));
}

}  // namespace
