// Tecplot export: writetecplotfile and the routines it calls (writer, quapts, tripts, tetpts,
// prsmpts), on grids built here. Files are compared line by line where their layout is fixed, and
// read back with VTK's Tecplot reader.
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "tecplot.hpp"
#include "tecplotgrids.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using tt::build;
using strings = std::vector<std::string>;

namespace {

class tecplot : public zt::zelmtest {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    mod_gridvars::npixvar = 6;
    mod_gridvars::numrstrtvar = 6;
  }
  // Runs the export on g; returns standard output and keeps standard error in err.
  std::string run(tt::grid& g, const std::string& name = "t.plt") {
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    try {
      g.write(fortran::char40(name));
    } catch (...) {  // a stop or failure: release both captures first
      std::fflush(stdout);
      printed = ::testing::internal::GetCapturedStdout();
      err = ::testing::internal::GetCapturedStderr();
      throw;
    }
    printed = ::testing::internal::GetCapturedStdout();
    err = ::testing::internal::GetCapturedStderr();
    return printed;
  }
  std::string printed, err;  // what the last run printed
};

strings filelines(const std::string& name) {
  return zt::lines(zt::readfile(name));
}

// A list-directed line on standard output or unit 10: a text, then integers.
std::string said(const std::string& text, std::initializer_list<int> ints = {}) {
  std::string s = " " + text;
  for (int v : ints) {
    char b[16];
    std::snprintf(b, sizeof b, " %11d", v);
    s += b;
  }
  return s;
}

// A list-directed integer as it follows a text: a blank and 11 columns.
std::string ld(int v) {
  char b[16];
  std::snprintf(b, sizeof b, " %11d", v);
  return b;
}

const std::string title = " TITLE = \"TAVREN Unstructured Grid Result\" ";
const std::string variables2 = " VARIABLES = \"X\",\"Y\",\"RHO\",\"U\",\"V\",\"W\",\"P\",\"FREE\"";
const std::string variables3 = " VARIABLES = \"X\",\"Y\",\"Z\",\"RHO\",\"U\",\"V\",\"W\",\"P\",\"FREE\"";

std::string bodypointheader(int iz, int n) {
  return " ZONE  T= \"Body " + ld(iz) + " \" F=POINT, I= " + ld(n);
}
// The three-dimensional body header: one list-directed record.
strings bodysurfaceheader(int iz, int n, int e, const std::string& et) {
  return {" ZONE  T= \"Body " + ld(iz) + " \"  N= " + ld(n) + "  , E= " + ld(e) + "  , F=FEPOINT, ET=" + et};
}

void expectlines(const strings& got, const strings& want) {
  EXPECT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < std::min(got.size(), want.size()); ++i)
    EXPECT_EQ(got[i], want[i]) << "line " << i + 1;
}

int count(const strings& v, const std::string& s) {
  return static_cast<int>(std::count(v.begin(), v.end(), s));
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Stops and run-ending failures restore the default handlers inside a death test's statement.
void defaulthandlers() {
  io::setfailurehandler(nullptr);
  io::setstophandler(nullptr);
}

}  // namespace

// ==== two dimensions ================================================================================

TEST_F(tecplot, QuadrilateralGridFileLineByLine) {
  auto g = build(2, {tt::quadstrip()});
  const std::string out = run(g);
  strings want = {title, variables2,
                  " ZONE  T= \"Zone   1\"  N=         6 , E=         2 , F=FEPOINT, ET=QUADRILATERAL"};
  for (int n = 1; n <= 6; ++n) tt::append(want, tt::noderecord(g, n, 6));
  tt::append(want, {"      1      2      5      4", "      2      3      6      5"});
  want.push_back(bodypointheader(1, 6));
  for (int n = 1; n <= 6; ++n) tt::append(want, tt::noderecord(g, n, 6));
  expectlines(filelines("t.plt"), want);
  EXPECT_EQ(err, "");
  EXPECT_FALSE(io::isconnected(10));
}

TEST_F(tecplot, QuadrilateralGridMessagesLineByLine) {
  auto g = build(2, {tt::quadstrip()});
  expectlines(zt::lines(run(g)), {
                                     said("Writing to Tecplot file..."),
                                     "",
                                     " generating face/cell relationships for zone:   1",
                                     said("done with face/cell relationships"),
                                     "",
                                     " writing info for zone:   1",
                                     said("done writing title and node info......."),
                                     said("NDOTS", {4}),
                                     said("writing cell/node connectivity info for quads"),
                                     said("done writing quad cell/node info......."),
                                     "",
                                     said("writing info for body surfaces......."),
                                     said(" # of boundary faces: ", {6}),
                                     said(" # of boundary nodes for those faces: ", {6}),
                                     said("done writing info for body surfaces......"),
                                 });
}

TEST_F(tecplot, TriangleGridFileLineByLineLeavesTheInnerNodeOutOfTheBody) {
  auto g = build(2, {tt::trianglefan()});
  const std::string out = run(g);
  strings want = {title, variables2,
                  " ZONE  T= \"Zone   1\"  N=         5 , E=         4 , F=FEPOINT, ET=TRIANGLE"};
  for (int n = 1; n <= 5; ++n) tt::append(want, tt::noderecord(g, n, 6));
  for (const auto& t : std::vector<std::vector<int>>{{1, 2, 5}, {2, 3, 5}, {3, 4, 5}, {4, 1, 5}})
    tt::append(want, tt::intrecord(t));
  want.push_back(bodypointheader(1, 4));
  for (int n = 1; n <= 4; ++n) tt::append(want, tt::noderecord(g, n, 6));
  expectlines(filelines("t.plt"), want);
  const strings lines = zt::lines(out);
  EXPECT_EQ(count(lines, said("writing cell/node connectivity info for triangles")), 1);
  EXPECT_EQ(count(lines, said("done writing tri cell/node info.......")), 1);
  EXPECT_EQ(count(lines, said("NDOTS", {3})), 1);
  EXPECT_EQ(count(lines, said(" # of boundary nodes for those faces: ", {4})), 1);
}

TEST_F(tecplot, IfcellIsConsumedInTwoDimensions) {
  auto g = build(2, {tt::trianglefan()});
  run(g);
  for (int f = 1; f <= g.ifcell.extent(2); ++f) {
    EXPECT_EQ(g.ifcell(1, f), 0) << f;
    EXPECT_EQ(g.ifcell(2, f), 0) << f;
  }
}

TEST_F(tecplot, QuadrilateralEdgesInAnyOrderGiveTheSameCyclicOrder) {
  // Cell 1 of the strip has the edges 1-2 (first), 5-4, 4-1 and 2-5; every order of the last
  // three, and either direction of each, yields 1 2 5 4.
  std::vector<tt::face> others = {{{5, 4}, 1, -1}, {{4, 1}, 1, -1}, {{2, 5}, 1, 0}};
  std::vector<int> order = {0, 1, 2};
  int runs = 0;
  do {
    for (int flip = 0; flip < 8; ++flip) {
      tt::zone z;
      z.points = {{0, 0, 0}, {1, 0, 0}, {9, 9, 0}, {0, 1, 0}, {1, 1, 0}};
      z.faces.push_back({{1, 2}, 1, -1});
      for (int k = 0; k < 3; ++k) {
        tt::face f = others[static_cast<std::size_t>(order[static_cast<std::size_t>(k)])];
        if (flip & (1 << k)) std::swap(f.nodes[0], f.nodes[1]);
        z.faces.push_back(f);
      }
      z.ncells = 1;
      z.mfpc = 4;
      auto g = build(2, {z});
      mod_zelmgrid::resetstate();
      run(g);
      const strings lines = filelines("t.plt");
      EXPECT_EQ(count(lines, "      1      2      5      4"), 1)
          << "order " << order[0] << order[1] << order[2] << " flip " << flip;
      ++runs;
    }
  } while (std::next_permutation(order.begin(), order.end()));
  EXPECT_EQ(runs, 48);
}

TEST_F(tecplot, QuadrilateralOrderStartsFromTheFirstEdgeAsStored) {
  // The first edge stored as 2-1 makes 2 the first node: 2 1 4 5.
  auto z = tt::quadstrip();
  z.faces[0].nodes = {2, 1};
  auto g = build(2, {z});
  run(g);
  EXPECT_EQ(count(filelines("t.plt"), "      2      1      4      5"), 1);
}

TEST_F(tecplot, TwoDimensionalZoneWithMfpczNeitherThreeNorFourGetsNodesOnly) {
  auto z = tt::quadstrip();
  z.mfpc = 5;
  auto g = build(2, {z});
  const strings out = zt::lines(run(g));
  strings want = {title, variables2};
  for (int n = 1; n <= 6; ++n) tt::append(want, tt::noderecord(g, n, 6));
  want.push_back(bodypointheader(1, 6));
  for (int n = 1; n <= 6; ++n) tt::append(want, tt::noderecord(g, n, 6));
  expectlines(filelines("t.plt"), want);
  EXPECT_EQ(count(out, said("NDOTS", {5})), 1);
  EXPECT_EQ(count(out, said("done writing title and node info.......")), 1);
  EXPECT_EQ(count(out, said("writing cell/node connectivity info for quads")), 0);
  EXPECT_EQ(count(out, said("writing cell/node connectivity info for triangles")), 0);
}

TEST_F(tecplot, TwoDimensionalZoneWithNoBoundaryNodeWritesBodyHeaderWithIZeroAndNoNodeRecords) {
  auto z = tt::quadstrip();
  for (auto& f : z.faces)
    if (f.c2 < 0) f.c2 = 0;  // no boundary faces
  auto g = build(2, {z});
  const strings out = zt::lines(run(g));
  const strings lines = filelines("t.plt");
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), bodypointheader(1, 0));
  EXPECT_EQ(lines[lines.size() - 2], "      2      3      6      5");
  EXPECT_EQ(count(out, said(" # of boundary faces: ", {0})), 1);
  EXPECT_EQ(count(out, said(" # of boundary nodes for those faces: ", {0})), 1);
}

TEST_F(tecplot, TitleAndVariablesOnceBeforeTheFirstZoneEvenWhenZoneOneHasNoCells) {
  tt::zone empty;
  empty.points = {{5, 5, 0}, {6, 5, 0}};
  empty.mfpc = 4;
  auto g = build(2, {empty, tt::quadstrip()});
  run(g);
  const strings lines = filelines("t.plt");
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[0], title);
  EXPECT_EQ(lines[1], variables2);
  EXPECT_EQ(lines[2], " ZONE  T= \"Zone   1\"  N=         2 , E=         0 , F=FEPOINT, ET=QUADRILATERAL");
  EXPECT_EQ(count(lines, title), 1);
  EXPECT_EQ(count(lines, variables2), 1);
  EXPECT_EQ(count(lines, " ZONE  T= \"Zone   2\"  N=         6 , E=         2 , F=FEPOINT, ET=QUADRILATERAL"),
            1);
  EXPECT_EQ(count(lines, bodypointheader(1, 0)), 1);
}

TEST_F(tecplot, NoZonesOpensAndClosesAnEmptyFile) {
  tt::grid g = build(2, {});
  const strings out = zt::lines(run(g));
  ASSERT_TRUE(std::filesystem::exists("t.plt"));
  EXPECT_EQ(zt::readfile("t.plt"), "");
  expectlines(out, {said("Writing to Tecplot file...")});
  EXPECT_FALSE(io::isconnected(10));
  EXPECT_EQ(const_(3), INT_MIN);  // the largest of no mnpfz values
}

TEST_F(tecplot, SwitchesAreSetOnEveryCall) {
  formt(1) = 41, formt(2) = 42, formt(3) = 0, formt(4) = 0, formt(5) = 0;
  auto g = build(2, {tt::quadstrip()});
  run(g);
  EXPECT_EQ(formt(1), 41);  // not used by the export
  EXPECT_EQ(formt(2), 42);
  EXPECT_EQ(formt(3), 2);
  EXPECT_EQ(formt(4), 1);
  EXPECT_EQ(formt(5), 3);
  EXPECT_EQ(const_(1), 6);  // boundary nodes of the zone
  EXPECT_EQ(const_(2), 6);  // boundary faces of the zone
  EXPECT_EQ(const_(3), 2);  // largest mnpfz
  EXPECT_EQ(const_(4), 4);  // most faces found for one cell
}

TEST_F(tecplot, AnExistingFileIsWrittenFromItsStart) {
  zt::writefile("t.plt", std::string(100000, 'x') + "\n");
  auto g = build(2, {tt::quadstrip()});
  run(g);
  const std::string text = zt::readfile("t.plt");
  EXPECT_EQ(text.find('x'), std::string::npos);
  EXPECT_EQ(text.rfind(title + "\n", 0), 0u);
}

TEST_F(tecplot, FaceWhoseTwoSidesNameTheSameCellIsAddedTwice) {
  auto z = tt::quadstrip();
  z.faces[6] = {{2, 5}, 1, 1};  // the shared edge, both sides cell 1
  z.mfpc = 5;                   // room for a fifth face; no connectivity is written for 5
  auto g = build(2, {z});
  run(g);
  auto work = detail::tecplotwork();
  ASSERT_EQ(work.iface.extent(2), 5);
  EXPECT_EQ(work.iface(1, 1), 1);
  EXPECT_EQ(work.iface(1, 2), 5);
  EXPECT_EQ(work.iface(1, 3), 6);
  EXPECT_EQ(work.iface(1, 4), 7);
  EXPECT_EQ(work.iface(1, 5), 7);
  EXPECT_EQ(const_(4), 5);  // the most faces found for one cell
  EXPECT_EQ(err, "");
}

TEST_F(tecplot, SeveralZonesWriteEachZoneFromTheFirstColumnsOfXAndTheFirstCells) {
  // Zone 1 is a unit square, zone 2 a triangle elsewhere; nfacesz is the highest face of each
  // zone. Zone 2's node records and cells run from 1 like every zone's: it repeats zone 1's first
  // three nodes and a triangle over them. Its triangle (cell 1 in its own numbering) collects its
  // faces after zone 1's four in mfpc, beyond iface's four slots: left out and reported.
  tt::zone square;
  square.points = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};
  square.faces = {{{1, 2}, 1, -1}, {{2, 3}, 1, -1}, {{3, 4}, 1, -1}, {{4, 1}, 1, -1}};
  square.ncells = 1;
  square.mfpc = 4;
  tt::zone triangle;
  triangle.points = {{5, 0, 0}, {6, 0, 0}, {5, 1, 0}};
  triangle.faces = {{{1, 2}, 1, -1}, {{2, 3}, 1, -1}, {{3, 1}, 1, -1}};
  triangle.ncells = 1;
  triangle.mfpc = 3;
  auto g = build(2, {square, triangle});
  ASSERT_EQ(g.nfacesz(2), 7);
  const strings out = zt::lines(run(g));
  strings want = {title, variables2,
                  " ZONE  T= \"Zone   1\"  N=         4 , E=         1 , F=FEPOINT, ET=QUADRILATERAL"};
  for (int n = 1; n <= 4; ++n) tt::append(want, tt::noderecord(g, n, 6));
  want.push_back("      1      2      3      4");
  want.push_back(bodypointheader(1, 4));
  for (int n = 1; n <= 4; ++n) tt::append(want, tt::noderecord(g, n, 6));
  want.push_back(" ZONE  T= \"Zone   2\"  N=         3 , E=         1 , F=FEPOINT, ET=TRIANGLE");
  for (int n = 1; n <= 3; ++n) tt::append(want, tt::noderecord(g, n, 6));
  tt::append(want, tt::intrecord({1, 2, 3}));
  want.push_back(bodypointheader(2, 3));
  for (int n = 1; n <= 3; ++n) tt::append(want, tt::noderecord(g, n, 6));
  expectlines(filelines("t.plt"), want);
  EXPECT_EQ(count(out, " generating face/cell relationships for zone:   2"), 1);
  EXPECT_EQ(count(out, " writing info for zone:   2"), 1);
  EXPECT_EQ(count(out, said(" # of boundary faces: ", {3})), 1);
  EXPECT_TRUE(
      contains(err, "zone 2: face 5 is the 5th face of cell 1, outside iface (2 cells, 4 slots): left out"))
      << err;
  EXPECT_EQ(detail::tecplotleftouts(), 3);

  // Numbering zone 2's triangle as cell 2 stores its faces, and writes the same file.
  const std::string first = zt::readfile("t.plt");
  mod_zelmgrid::resetstate();
  triangle.faces = {{{1, 2}, 2, -1}, {{2, 3}, 2, -1}, {{3, 1}, 2, -1}};
  auto h = build(2, {square, triangle});
  run(h);
  EXPECT_EQ(zt::readfile("t.plt"), first);
  EXPECT_EQ(err, "");
  EXPECT_EQ(detail::tecplotwork().iface(2, 3), 7);
}

TEST_F(tecplot, ZoneNumberAbove999PrintsAsAsterisks) {
  std::vector<tt::zone> zones(1000);
  zones.back().mfpc = 3;
  auto g = build(2, zones);
  const strings out = zt::lines(run(g));
  const strings lines = filelines("t.plt");
  EXPECT_EQ(count(lines, " ZONE  T= \"Zone ***\"  N=         0 , E=         0 , F=FEPOINT, ET=TRIANGLE"), 1);
  EXPECT_EQ(count(lines, bodypointheader(1000, 0)), 1);  // list-directed: the number in full
  EXPECT_EQ(count(lines, bodypointheader(999, 0)), 1);
  EXPECT_EQ(count(out, " generating face/cell relationships for zone: ***"), 1);
  EXPECT_EQ(count(out, " writing info for zone: ***"), 1);
  EXPECT_EQ(count(out, " writing info for zone: 999"), 1);
}

TEST_F(tecplot, QuadrilateralNodeAbove999999PrintsAsSixAsterisks) {
  farray<int, 1> ncellsz;
  farray<int, 2> iface, ifnode;
  ncellsz.allocate(1);
  ncellsz(1) = 1;
  iface.allocate(1, 4);
  ifnode.allocate(2, 4);
  const int edges[4][2] = {{1234567, 2}, {2, 3}, {3, 4}, {4, 1234567}};
  for (int f = 1; f <= 4; ++f) {
    iface(1, f) = f;
    ifnode(1, f) = edges[f - 1][0];
    ifnode(2, f) = edges[f - 1][1];
  }
  formt(4) = 1;
  io::open(10, "q.plt", "formatted", "unknown");
  zt::capturestdout([&] { quapts(1, ncellsz, iface, ifnode); });
  io::close(10);
  expectlines(filelines("q.plt"), {" ******      2      3      4"});
}

TEST_F(tecplot, FormtFourOffQuadAndTriangleWritersWriteAndPrintNothing) {
  farray<int, 1> ncellsz;
  farray<int, 2> iface, ifnode;
  ncellsz.allocate(1);
  ncellsz(1) = 1;
  iface.allocate(1, 4);
  ifnode.allocate(2, 4);
  // A good quadrilateral 1 2 3 4, edges 1-2 2-3 3-4 4-1.
  for (int f = 1; f <= 4; ++f) {
    iface(1, f) = f;
    ifnode(1, f) = f;
    ifnode(2, f) = f % 4 + 1;
  }
  formt(4) = 0;
  ASSERT_FALSE(io::isconnected(10));  // a record written to unit 10 would fail
  EXPECT_EQ(zt::capturestdout([&] { quapts(1, ncellsz, iface, ifnode); }), "");
  EXPECT_EQ(zt::capturestdout([&] { tripts(1, ncellsz, iface, ifnode); }), "");
}

TEST_F(tecplot, FormtFourOffOrderingChecksStillRunAndStopWithTheTriptsMessage) {
  farray<int, 1> ncellsz;
  farray<int, 2> iface, ifnode;
  ncellsz.allocate(1);
  ncellsz(1) = 1;
  iface.allocate(1, 4);
  ifnode.allocate(2, 4);
  const int edges[4][2] = {{1, 2}, {3, 4}, {4, 1}, {1, 3}};  // nothing else touches node 2
  for (int f = 1; f <= 4; ++f) {
    iface(1, f) = f;
    ifnode(1, f) = edges[f - 1][0];
    ifnode(2, f) = edges[f - 1][1];
  }
  formt(4) = 0;
  ::testing::internal::CaptureStdout();
  EXPECT_THROW(quapts(1, ncellsz, iface, ifnode), zt::stopped);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            said(" error: in subroutine tripts: ifc3.eq.0 ") + "\n");
  // A triangle 1 2 x whose other edges hold only 1 and 2 stops too.
  ifnode(1, 2) = 2, ifnode(2, 2) = 1, ifnode(1, 3) = 1, ifnode(2, 3) = 2;
  ::testing::internal::CaptureStdout();
  EXPECT_THROW(tripts(1, ncellsz, iface, ifnode), zt::stopped);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            said(" error: in subroutine tripts: ifc3.eq.0 ") + "\n");
}

namespace {

// The quadrilateral strip as the driver hands it to writer: the faces of each cell, every node on
// the boundary, the six boundary faces; unit 10 open on w.plt.
struct writerinput {
  tt::grid g = build(2, {tt::quadstrip()});
  farray<int, 1> ipf, ibf;
  farray<int, 2> iface;
  writerinput() {
    ipf.allocate(6);
    std::fill_n(ipf.data(), 6, -1);
    ibf.allocate(6);
    for (int j = 1; j <= 6; ++j) ibf(j) = j;
    iface.allocate(2, 4);
    const int faces[2][4] = {{1, 5, 6, 7}, {2, 3, 4, 7}};
    for (int c = 1; c <= 2; ++c)
      for (int k = 1; k <= 4; ++k) iface(c, k) = faces[c - 1][k - 1];
    const_(2) = 6;
    formt(3) = 2;
    io::open(10, "w.plt", "formatted", "unknown");
  }
  std::string write() {
    const std::string out = zt::capturestdout([&] {
      writer(1, 2, g.mfpcz, g.nptsz, g.ncellsz, ipf, g.x, g.qnode, g.ifnode, iface, g.npf, g.ifcell, ibf);
    });
    io::close(10);
    return out;
  }
};

}  // namespace

TEST_F(tecplot, WriterWithFormtFourOffStillWritesTheBodySurface) {
  writerinput in;
  formt(4) = 0;
  formt(5) = 3;
  const strings out = zt::lines(in.write());
  strings want = {title, variables2, bodypointheader(1, 6)};
  for (int n = 1; n <= 6; ++n) tt::append(want, tt::noderecord(in.g, n, 6));
  expectlines(filelines("w.plt"), want);
  expectlines(out, {"", " writing info for zone:   1", said("NDOTS", {4}), "",
                    said("writing info for body surfaces......."), said(" # of boundary faces: ", {6}),
                    said(" # of boundary nodes for those faces: ", {6}),
                    said("done writing info for body surfaces......")});
  for (int n = 1; n <= 6; ++n) EXPECT_EQ(in.ipf(n), n);  // numbered inside the body zone
}

TEST_F(tecplot, WriterWithFormtFiveBelowTwoWritesNoBodySurface) {
  writerinput in;
  formt(4) = 1;
  formt(5) = 1;
  const strings out = zt::lines(in.write());
  const strings lines = filelines("w.plt");
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "      2      3      6      5");
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.back(), said("done writing quad cell/node info......."));
  EXPECT_EQ(const_(1), 6);  // the boundary list is built all the same
  EXPECT_EQ(detail::tecplotwork().ipbf(6), 6);
}

// ==== three dimensions ==============================================================================

TEST_F(tecplot, TetrahedraOnlyFileLineByLineHasNoPrismZone) {
  auto g = build(3, {tt::tetstar()});
  ASSERT_EQ(g.mnpfz(1), 3);
  run(g);
  EXPECT_EQ(const_(3), 3);
  strings want = {title, variables3,
                  " ZONE  T= \"Tet-Zone   1\"  N=         5 , E=         4 , F=FEPOINT, ET=TETRAHEDRON"};
  for (int n = 1; n <= 5; ++n) tt::append(want, tt::noderecord(g, n, 6));
  for (const auto& t : std::vector<std::vector<int>>{{1, 2, 3, 5}, {1, 2, 4, 5}, {1, 3, 4, 5}, {2, 3, 4, 5}})
    tt::append(want, tt::intrecord(t));
  // mfpcz is 4: the body header says QUADRILATERAL, and each face has three node numbers.
  tt::append(want, bodysurfaceheader(1, 4, 4, "QUADRILATERAL"));
  for (int n = 1; n <= 4; ++n) tt::append(want, tt::noderecord(g, n, 6));
  for (const auto& f : std::vector<std::vector<int>>{{1, 2, 3}, {1, 2, 4}, {1, 3, 4}, {2, 3, 4}})
    tt::append(want, tt::intrecord(f));
  const strings lines = filelines("t.plt");
  expectlines(lines, want);
  for (const auto& l : lines) EXPECT_FALSE(contains(l, "Prism-Zone")) << l;
}

TEST_F(tecplot, TetrahedraOnlyMessagesLineByLine) {
  auto g = build(3, {tt::tetstar()});
  expectlines(zt::lines(run(g)), {
                                     said("Writing to Tecplot file..."),
                                     "",
                                     " generating face/cell relationships for zone:   1",
                                     said("done with face/cell relationships"),
                                     "",
                                     said("total number of tetrahedra,pts: ", {4, 5}),
                                     "",
                                     " writing info for zone:   1",
                                     said("writing node & connectivity info for tetrahedra"),
                                     said("done writing tet node info......."),
                                     said(" number of nodes (known,counted): ", {5, 5}),
                                     said("done writing tet connectivity info......"),
                                     said(" number of tets (known,counted):  ", {4, 4}),
                                     "",
                                     said("writing info for body surfaces......."),
                                     said(" # of boundary faces: ", {4}),
                                     said(" # of boundary nodes for those faces: ", {4}),
                                     said("done writing info for body surfaces......"),
                                 });
  EXPECT_EQ(const_(5), 4);
  EXPECT_EQ(const_(6), 0);
  EXPECT_EQ(const_(7), 5);
  EXPECT_EQ(const_(8), 0);
}

TEST_F(tecplot, TetrahedraAndPrismFileLineByLine) {
  auto g = build(3, {tt::prismwithtet()});
  run(g);
  EXPECT_EQ(const_(3), 4);
  strings want = {title, variables3,
                  " ZONE  T= \"Tet-Zone   1\"  N=         4 , E=         1 , F=FEPOINT, ET=TETRAHEDRON"};
  for (int n : {4, 5, 6, 7}) tt::append(want, tt::noderecord(g, n, 6));
  tt::append(want, tt::intrecord({1, 2, 3, 4}));
  want.push_back(" ZONE  T= \"Prism-Zone   1\"  N=         6 , E=         1 , F=FEPOINT, ET=BRICK");
  for (int n : {1, 2, 3, 4, 5, 6}) tt::append(want, tt::noderecord(g, n, 6));
  // Apex 3 over the edge 1-2 of the quadrilateral 1 2 5 4, apex 6 over its edge 4-5.
  tt::append(want, tt::intrecord({3, 3, 6, 6, 1, 2, 5, 4}));
  // mfpcz is 5: no body header; the body nodes are those the prism zone collected (1, 2, 3), and
  // the faces carry whatever number ipf holds for the others (prism-zone and tet-zone numbers).
  for (int n : {1, 2, 3}) tt::append(want, tt::noderecord(g, n, 6));
  for (const auto& f : std::vector<std::vector<int>>{
           {1, 2, 3}, {1, 2, 5}, {2, 3, 6}, {3, 1, 4}, {4, 5, 4}, {5, 6, 4}, {6, 4, 4}})
    tt::append(want, tt::intrecord(f));
  expectlines(filelines("t.plt"), want);
  EXPECT_EQ(err, "");
}

TEST_F(tecplot, TetrahedraAndPrismCounts) {
  auto g = build(3, {tt::prismwithtet()});
  run(g);
  EXPECT_EQ(const_(1), 3);  // boundary nodes that the prism zone collected
  EXPECT_EQ(const_(2), 7);
  EXPECT_EQ(const_(3), 4);
  EXPECT_EQ(const_(4), 5);
  EXPECT_EQ(const_(5), 1);
  EXPECT_EQ(const_(6), 1);
  EXPECT_EQ(const_(7), 4);
  EXPECT_EQ(const_(8), 6);
}

TEST_F(tecplot, PrismWhoseFirstQuadrilateralEdgeJoinsTheTrianglesGivesTheSameBrickShape) {
  // The quadrilateral 1 2 5 4 stored as 2 5 4 1: its first edge 2-5 joins the triangles, so edge A
  // is 2-1 (apex 3) and edge B is 5-4 (apex 6).
  auto z = tt::prismwithtet();
  z.faces[1].nodes = {2, 5, 4, 1};
  auto g = build(3, {z});
  run(g);
  const strings lines = filelines("t.plt");
  const strings brick = tt::intrecord({3, 3, 6, 6, 2, 1, 4, 5});
  const auto at = std::find(lines.begin(), lines.end(), brick[0]);
  ASSERT_NE(at, lines.end());
  EXPECT_EQ(brick.size(), 1u);
}

TEST_F(tecplot, SixFaceCellWithoutTrianglesIsWrittenFromThePreviousPrismsTriangles) {
  // A prism (cell 1) and a hexahedron (cell 2) on its quadrilateral 1 2 5 4. The hexahedron is
  // written as a prism: its first five faces hold no triangle, so the triangle nodes of the prism
  // before it are used, no apex is found, and node 0 is written as 0 (and reported).
  tt::zone z;
  z.points = {{0, 0, 0}, {1, 0, 0},  {0, 1, 0},  {0, 0, 1},  {1, 0, 1},
              {0, 1, 1}, {0, -1, 0}, {1, -1, 0}, {1, -1, 1}, {0, -1, 1}};
  z.faces = {{{1, 2, 3}, 1, -1},     {{1, 2, 5, 4}, 1, 2},   {{2, 3, 6, 5}, 1, -1}, {{3, 1, 4, 6}, 1, -1},
             {{4, 5, 6}, 1, -1},     {{7, 8, 9, 10}, 2, -1}, {{1, 2, 8, 7}, 2, -1}, {{4, 5, 9, 10}, 2, -1},
             {{1, 4, 10, 7}, 2, -1}, {{2, 5, 9, 8}, 2, -1}};
  z.ncells = 2;
  z.mfpc = 6;
  auto g = build(3, {z});
  const strings out = zt::lines(run(g));
  EXPECT_EQ(count(out, said("total number of prisms,pts: ", {2, 10})), 1);
  EXPECT_EQ(count(out, said(" number of prisms (known,counted):", {2, 2})), 1);
  const strings lines = filelines("t.plt");
  EXPECT_EQ(count(lines, " ZONE  T= \"Prism-Zone   1\"  N=        10 , E=         2 , F=FEPOINT, ET=BRICK"),
            1);
  const strings prism = tt::intrecord({3, 3, 6, 6, 1, 2, 5, 4});
  const strings hexahedron = tt::intrecord({0, 0, 0, 0, 7, 10, 9, 8});
  const auto at = std::find(lines.begin(), lines.end(), prism[0]);
  ASSERT_NE(at, lines.end());
  ASSERT_LT(at + 1, lines.end());
  EXPECT_EQ(*(at + 1), hexahedron[0]);
  EXPECT_TRUE(contains(err, "zone 1: node 0 is outside ipf (10 nodes) and is written as 0: left out")) << err;
}

TEST_F(tecplot, TetrahedraAndPrismMessagesLineByLine) {
  auto g = build(3, {tt::prismwithtet()});
  expectlines(zt::lines(run(g)), {
                                     said("Writing to Tecplot file..."),
                                     "",
                                     " generating face/cell relationships for zone:   1",
                                     said("done with face/cell relationships"),
                                     "",
                                     said("total number of tetrahedra,pts: ", {1, 4}),
                                     said("total number of prisms,pts: ", {1, 6}),
                                     "",
                                     " writing info for zone:   1",
                                     said("writing node & connectivity info for tetrahedra"),
                                     said("done writing tet node info......."),
                                     said(" number of nodes (known,counted): ", {4, 4}),
                                     said("done writing tet connectivity info......"),
                                     said(" number of tets (known,counted):  ", {1, 1}),
                                     said("writing node & connectivity info for prisms"),
                                     said("done writing prism node info......."),
                                     said(" number of nodes (known,counted): ", {6, 6}),
                                     said("done writing prism connectivity info......"),
                                     said(" number of prisms (known,counted):", {1, 1}),
                                     "",
                                     said("writing info for body surfaces......."),
                                     said(" # of boundary faces: ", {7}),
                                     said(" # of boundary nodes for those faces: ", {3}),
                                     said("done writing info for body surfaces......"),
                                 });
}

TEST_F(tecplot, NodeSharedByTetrahedronAndPrismIsWrittenInBothZonesWithItsOwnNumber) {
  auto g = build(3, {tt::prismwithtet()});
  run(g);
  const strings lines = filelines("t.plt");
  const auto tetzone =
      std::find(lines.begin(), lines.end(),
                " ZONE  T= \"Tet-Zone   1\"  N=         4 , E=         1 , F=FEPOINT, ET=TETRAHEDRON");
  const auto prismzone =
      std::find(lines.begin(), lines.end(),
                " ZONE  T= \"Prism-Zone   1\"  N=         6 , E=         1 , F=FEPOINT, ET=BRICK");
  ASSERT_NE(tetzone, lines.end());
  ASSERT_NE(prismzone, lines.end());
  // Node 5 (1, 0, 1) is the tet zone's node 2 and the prism zone's node 5.
  const strings node5 = tt::noderecord(g, 5, 6);
  EXPECT_TRUE(std::equal(node5.begin(), node5.end(), tetzone + 1 + 1));
  EXPECT_TRUE(std::equal(node5.begin(), node5.end(), prismzone + 1 + 4));
  // The codes left in ifcell: cell 1 a tetrahedron, cell 2 a prism; nodes 4 5 6 shared (3),
  // 1 2 3 prism only (2), 7 tetrahedron only (1).
  EXPECT_EQ(g.ifcell(1, 1), 1);
  EXPECT_EQ(g.ifcell(1, 2), 2);
  const int use[7] = {2, 2, 2, 3, 3, 3, 1};
  for (int n = 1; n <= 7; ++n) EXPECT_EQ(g.ifcell(2, n), use[n - 1]) << n;
  EXPECT_EQ(g.ifcell(2, 8), 0);
}

TEST_F(tecplot, ThreeDimensionalZoneWithMfpczFiveGetsNoBodyHeaderButItsBodyRecords) {
  auto g = build(3, {tt::prismwithtet()});
  ASSERT_EQ(g.mfpcz(1), 5);
  run(g);
  const strings lines = filelines("t.plt");
  for (const auto& l : lines) EXPECT_FALSE(contains(l, "Body")) << l;
  // After the brick: three body node records and seven face records.
  const auto brick = std::find(lines.begin(), lines.end(), tt::intrecord({3, 3, 6, 6, 1, 2, 5, 4})[0]);
  ASSERT_NE(brick, lines.end());
  EXPECT_EQ(lines.end() - brick - 1, 3 + 7);
}

TEST_F(tecplot, SixFaceCellIsReportedAmongThePrisms) {
  // A tetrahedron (cell 1) on a face of a triangular bipyramid (cell 2, six faces).
  tt::zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.3, 0.3, 1}, {0.3, 0.3, -1}, {0.5, -1, 0.5}};
  z.faces = {{{1, 2, 4}, 1, 2},  {{1, 2, 6}, 1, -1}, {{2, 4, 6}, 1, -1},
             {{1, 4, 6}, 1, -1}, {{2, 3, 4}, 2, -1}, {{3, 1, 4}, 2, -1},
             {{1, 2, 5}, 2, -1}, {{2, 3, 5}, 2, -1}, {{3, 1, 5}, 2, -1}};
  z.ncells = 2;
  z.mfpc = 6;
  auto g = build(3, {z});
  const strings out = zt::lines(run(g));
  EXPECT_EQ(count(out, said("total number of tetrahedra,pts: ", {1, 4})), 1);
  // Its first five faces are visited; nodes 1 2 4, already a tetrahedron's, stay 1 and are not
  // counted: only 3 and 5 are prism nodes.
  EXPECT_EQ(count(out, said("total number of prisms,pts: ", {1, 2})), 1);
  EXPECT_EQ(g.ifcell(1, 2), 2);
  const int use[6] = {1, 1, 2, 1, 2, 1};
  for (int n = 1; n <= 6; ++n) EXPECT_EQ(g.ifcell(2, n), use[n - 1]) << n;
  // mnpfz is 3 everywhere: no prism zone is written.
  for (const auto& l : filelines("t.plt")) EXPECT_FALSE(contains(l, "Prism-Zone")) << l;

  // The same cell with five faces (the last left without cells) makes the shared nodes 3, counted.
  mod_zelmgrid::resetstate();
  z.faces.back().c1 = 0;
  z.faces.back().c2 = 0;
  auto h = build(3, {z});
  const strings out5 = zt::lines(run(h));
  EXPECT_EQ(count(out5, said("total number of prisms,pts: ", {1, 5})), 1);
  const int use5[6] = {3, 3, 2, 3, 2, 1};
  for (int n = 1; n <= 6; ++n) EXPECT_EQ(h.ifcell(2, n), use5[n - 1]) << n;
}

TEST_F(tecplot, ThreeDimensionalZoneWithoutCellsCountsNothing) {
  tt::zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}};
  z.mfpc = 4;
  auto g = build(3, {z});
  const_(5) = const_(6) = const_(7) = const_(8) = 9;
  const strings out = zt::lines(run(g));
  EXPECT_EQ(const_(5), 0);
  EXPECT_EQ(const_(6), 0);
  EXPECT_EQ(const_(7), 0);
  EXPECT_EQ(const_(8), 0);
  EXPECT_EQ(count(out, said("total number of tetrahedra,pts: ", {0, 0})), 1);
  EXPECT_EQ(count(out, said(" number of nodes (known,counted): ", {0, 0})), 1);
  EXPECT_EQ(count(out, said(" number of tets (known,counted):  ", {0, 0})), 1);
  strings want = {title, variables3,
                  " ZONE  T= \"Tet-Zone   1\"  N=         0 , E=         0 , F=FEPOINT, ET=TETRAHEDRON"};
  tt::append(want, bodysurfaceheader(1, 0, 0, "QUADRILATERAL"));
  expectlines(filelines("t.plt"), want);
}

TEST_F(tecplot, ElementZonesWithFormtFourOffPrintOnlyTheCountingMessages) {
  // The tetrahedron-and-prism grid as the driver leaves it before writer: faces of each cell,
  // type and node-use codes, boundary flags.
  auto g = build(3, {tt::prismwithtet()});
  farray<int, 2> iface, ifcell;
  farray<int, 1> ipf, ipbf;
  iface.allocate(2, 5);
  const int faces[2][5] = {{5, 6, 7, 8, 0}, {1, 2, 3, 4, 5}};
  for (int c = 1; c <= 2; ++c)
    for (int k = 1; k <= 5; ++k) iface(c, k) = faces[c - 1][k - 1];
  ifcell.allocate(2, 8);
  std::fill_n(ifcell.data(), ifcell.size(), 0);
  ifcell(1, 1) = 1;
  ifcell(1, 2) = 2;
  const int use[7] = {2, 2, 2, 3, 3, 3, 1};
  for (int n = 1; n <= 7; ++n) ifcell(2, n) = use[n - 1];
  ipf.allocate(7);
  std::fill_n(ipf.data(), 7, -1);
  ipbf.allocate(7);
  const_(5) = 1, const_(6) = 1, const_(7) = 4, const_(8) = 6;
  formt(3) = 2;
  formt(4) = 0;
  ASSERT_FALSE(io::isconnected(10));  // a header or record written to unit 10 would fail
  const std::string out = zt::capturestdout([&] {
    tetpts(1, 3, g.ncellsz, iface, g.ifnode, ipf, ipbf, g.x, g.qnode, g.nptsz, ifcell);
    prsmpts(1, 3, g.ncellsz, iface, g.ifnode, ipf, ipbf, g.x, g.qnode, g.npf, g.nptsz, ifcell);
  });
  expectlines(zt::lines(out), {
                                  said(" number of nodes (known,counted): ", {4, 4}),
                                  said(" number of tets (known,counted):  ", {1, 1}),
                                  said(" number of nodes (known,counted): ", {6, 6}),
                                  said(" number of prisms (known,counted):", {1, 1}),
                              });
  // The renumbering and the boundary list are built all the same.
  const int number[7] = {1, 2, 3, 4, 5, 6, 4};
  for (int n = 1; n <= 7; ++n) EXPECT_EQ(ipf(n), number[n - 1]) << n;
  EXPECT_EQ(const_(1), 3);
  EXPECT_EQ(ipbf(1), 1);
  EXPECT_EQ(ipbf(3), 3);
}

TEST_F(tecplot, KnownAndCountedDifferenceIsOnlyReported) {
  auto g = build(3, {tt::tetstar()});
  farray<int, 2> ifcell;
  farray<int, 1> ipf, ipbf;
  farray<int, 2> iface;
  iface.allocate(4, 4);
  ifcell.allocate(2, 10);
  std::fill_n(ifcell.data(), ifcell.size(), 0);
  ipf.allocate(5);
  std::fill_n(ipf.data(), 5, 0);
  ipbf.allocate(5);
  ifcell(2, 1) = 1;  // one tetrahedron node marked, no tetrahedron
  const_(5) = 7, const_(7) = 9;
  formt(4) = 0;
  const std::string out = zt::capturestdout(
      [&] { tetpts(1, 3, g.ncellsz, iface, g.ifnode, ipf, ipbf, g.x, g.qnode, g.nptsz, ifcell); });
  expectlines(zt::lines(out), {said(" number of nodes (known,counted): ", {9, 1}),
                               said(" number of tets (known,counted):  ", {7, 0})});
}

TEST_F(tecplot, ZoneHeaderCountAboveNineDigitsPrintsAsAsterisks) {
  farray<int, 1> ncellsz, nptsz, ipf, ipbf;
  farray<int, 2> iface, ifnode, ifcell;
  farray<double, 2> x, qnode;
  ncellsz.allocate(1);
  nptsz.allocate(1);
  ncellsz(1) = 0;
  nptsz(1) = 0;
  const_(7) = 1234567890;
  const_(5) = 12;
  formt(4) = 1;
  io::open(10, "h.plt", "formatted", "unknown");
  zt::capturestdout([&] { tetpts(1, 3, ncellsz, iface, ifnode, ipf, ipbf, x, qnode, nptsz, ifcell); });
  io::close(10);
  expectlines(filelines("h.plt"),
              {" ZONE  T= \"Tet-Zone   1\"  N= ********* , E=        12 , F=FEPOINT, ET=TETRAHEDRON"});
}

// ==== saved state, repeated calls, allocation statuses ===============================================

TEST_F(tecplot, RepeatedRequestForMfpcReportsAlreadyAllocatedAndIpbfFromTheSecondZone) {
  auto g = build(2, {tt::quadstrip(), tt::quadstrip()});
  run(g);
  // The driver's chain (its last request, mfpc again), then writer's ipbf for zones 1 and 2.
  EXPECT_EQ(zt::services().allocstatuses,
            (std::vector<int>{fortran::stat_already_allocated, 0, fortran::stat_already_allocated}));
  auto work = detail::tecplotwork();
  EXPECT_FALSE(work.mfpc.allocated());  // released at the end of the call
  EXPECT_EQ(work.ibf.extent(1), 12);    // boundary entries of both rows over the whole table
  EXPECT_EQ(work.ipf.extent(1), 12);
  EXPECT_EQ(work.iface.extent(1), 4);
  EXPECT_EQ(work.iface.extent(2), 4);
  EXPECT_EQ(work.ipbf.extent(1), 12);
}

TEST_F(tecplot, ModuleVariableMfpcIsNotTouched) {
  ASSERT_EQ(mod_zelmgrid::mfpc.allocate(3), 0);
  mod_zelmgrid::mfpc(2) = 77;
  auto g = build(2, {tt::quadstrip()});
  run(g);
  ASSERT_TRUE(mod_zelmgrid::mfpc.allocated());
  EXPECT_EQ(mod_zelmgrid::mfpc.extent(1), 3);
  EXPECT_EQ(mod_zelmgrid::mfpc(2), 77);
}

TEST_F(tecplot, CallingTheExportTwiceFailsAtTheSecondAllocationOfIbfAndWritesTheSameFile) {
  auto g = build(2, {tt::quadstrip()});
  run(g, "a.plt");
  auto again = build(2, {tt::quadstrip()});  // the first call consumed g's ifcell
  run(again, "b.plt");
  // Second call: ibf is still allocated, so the chain ends there with that status; writer's ipbf
  // too. ipf and iface are not requested again.
  EXPECT_EQ(zt::services().allocstatuses,
            (std::vector<int>{fortran::stat_already_allocated, 0, fortran::stat_already_allocated,
                              fortran::stat_already_allocated}));
  EXPECT_EQ(zt::readfile("b.plt"), zt::readfile("a.plt"));
  EXPECT_EQ(err, "");
  EXPECT_FALSE(detail::tecplotwork().mfpc.allocated());
}

TEST_F(tecplot, SecondCallWithALargerGridKeepsTheOldSizesAndLeavesOutWhatDoesNotFit) {
  auto small = build(2, {tt::quadstrip()});  // 6 nodes, 2 cells, 6 boundary faces
  run(small, "a.plt");
  auto larger = build(2, {tt::trianglefan(), tt::trianglefan()});  // 10 nodes, 8 cells, 8 boundary faces
  larger.nfacesz(2) = 16;
  const strings out = zt::lines(run(larger, "b.plt"));
  auto work = detail::tecplotwork();
  EXPECT_EQ(work.ibf.extent(1), 6);
  EXPECT_EQ(work.ipf.extent(1), 6);
  EXPECT_EQ(work.iface.extent(1), 2);
  EXPECT_EQ(work.iface.extent(2), 4);
  EXPECT_EQ(work.ipbf.extent(1), 6);
  EXPECT_EQ(zt::services().allocstatuses.at(2), fortran::stat_already_allocated);
  // Cells 3 and 4 of zone 1 are outside iface: their records are left out and reported.
  EXPECT_TRUE(contains(
      err, "zone 1: cell 3 (face slots 1 to 3) is outside iface (2 cells, 4 slots); its record: left out"))
      << err;
  EXPECT_GT(detail::tecplotleftouts(), 0);
  const strings lines = filelines("b.plt");
  EXPECT_EQ(lines[2], " ZONE  T= \"Zone   1\"  N=         5 , E=         4 , F=FEPOINT, ET=TRIANGLE");
  EXPECT_EQ(count(lines, tt::intrecord({1, 2, 5})[0]), 2);  // cells 1 of both zones
  EXPECT_EQ(count(out, said("done writing info for body surfaces......")), 2);
}

TEST_F(tecplot, ResetStateReleasesTheSavedArrays) {
  auto g = build(2, {tt::quadstrip()});
  run(g, "a.plt");
  auto work = detail::tecplotwork();
  EXPECT_TRUE(work.ibf.allocated());
  EXPECT_TRUE(work.ipf.allocated());
  EXPECT_TRUE(work.iface.allocated());
  EXPECT_TRUE(work.ipbf.allocated());
  mod_zelmgrid::resetstate();
  EXPECT_FALSE(work.mfpc.allocated());
  EXPECT_FALSE(work.ibf.allocated());
  EXPECT_FALSE(work.ipf.allocated());
  EXPECT_FALSE(work.iface.allocated());
  EXPECT_FALSE(work.ipbf.allocated());
  // The next call is a first call again.
  zt::services().clear();
  auto again = build(2, {tt::quadstrip()});
  run(again, "b.plt");
  EXPECT_EQ(zt::services().allocstatuses, (std::vector<int>{fortran::stat_already_allocated, 0}));
  EXPECT_EQ(zt::readfile("b.plt"), zt::readfile("a.plt"));
}

// ==== references outside the arrays ===================================================================

TEST_F(tecplot, NpixvarLargerThanQnodeRowsEndsTheRunBeforeAnythingIsDone) {
  auto g = build(2, {tt::quadstrip()});
  mod_gridvars::npixvar = 7;
  std::string out;
  try {
    out = run(g);
    ADD_FAILURE() << "no failure";
  } catch (const zt::iofailure& e) {
    EXPECT_TRUE(contains(e.what(), "writetecplotfile: qnode holds fewer than npixvar = 7 values"))
        << e.what();
  }
  EXPECT_FALSE(std::filesystem::exists("t.plt"));
  EXPECT_EQ(g.ifcell(1, 1), 1);  // not consumed
  EXPECT_FALSE(detail::tecplotwork().ipf.allocated());
}

TEST_F(tecplot, NumrstrtvarLargerThanQnodeRowsEndsTheRunInThreeDimensionsOnly) {
  mod_gridvars::numrstrtvar = 9;
  auto g3 = build(3, {tt::tetstar()});
  try {
    run(g3);
    ADD_FAILURE() << "no failure";
  } catch (const zt::iofailure& e) {
    EXPECT_TRUE(contains(e.what(), "qnode holds fewer than numrstrtvar = 9 values")) << e.what();
  }
  EXPECT_FALSE(std::filesystem::exists("t.plt"));
  // Two-dimensional files carry npixvar values only.
  auto g2 = build(2, {tt::quadstrip()});
  EXPECT_NO_THROW(run(g2));
  EXPECT_EQ(filelines("t.plt")[2],
            " ZONE  T= \"Zone   1\"  N=         6 , E=         2 , F=FEPOINT, ET=QUADRILATERAL");
}

TEST_F(tecplot, ArgumentArraysSmallerThanTheCountsEndTheRun) {
  {
    auto g = build(2, {tt::quadstrip()});
    g.nfacesz(1) = 8;  // one face more than the table holds
    EXPECT_THROW(run(g), zt::iofailure);
  }
  {
    auto g = build(2, {tt::quadstrip()});
    g.nptsz(1) = 7;  // one node more than x holds
    EXPECT_THROW(run(g), zt::iofailure);
  }
  {
    auto g = build(2, {tt::quadstrip()});
    g.nzones = 2;  // more zones than the count arrays
    EXPECT_THROW(run(g), zt::iofailure);
  }
  {
    auto g = build(2, {tt::quadstrip()});
    g.ndim = 3;  // x has two rows
    EXPECT_THROW(run(g), zt::iofailure);
  }
  EXPECT_FALSE(std::filesystem::exists("t.plt"));
}

TEST_F(tecplot, NodeNumberOutsideTheGridIsLeftOutAndReported) {
  auto z = tt::quadstrip();
  z.faces.push_back({{4, 99}, 0, -1});  // a boundary face with a node the grid does not have
  auto g = build(2, {z});
  run(g);
  EXPECT_TRUE(contains(
      err, "zelmgrid: Tecplot export: zone 1: node 99 of boundary face 8 is outside ipf (6 nodes): left out"))
      << err;
  EXPECT_EQ(detail::tecplotleftouts(), 1);
  // Everything else as without the face.
  mod_zelmgrid::resetstate();
  auto plain = build(2, {tt::quadstrip()});
  run(plain, "plain.plt");
  EXPECT_EQ(zt::readfile("t.plt"), zt::readfile("plain.plt"));
}

TEST_F(tecplot, NodeNumberOutsideTheGridIsWrittenAsZeroInABodyFace) {
  auto z = tt::tetstar();
  z.faces.push_back({{1, 2, 42}, 0, -1});
  auto g = build(3, {z});
  run(g);
  const strings lines = filelines("t.plt");
  EXPECT_EQ(lines.back(), tt::intrecord({1, 2, 0})[0]);
  EXPECT_TRUE(contains(err, "zone 1: node 42 is outside ipf (5 nodes) and is written as 0: left out")) << err;
}

TEST_F(tecplot, CellNumberOutsideTheGridIsPassedOver) {
  auto z = tt::quadstrip();
  z.faces.push_back({{1, 4}, 50, -1});
  auto g = build(2, {z});
  const strings out = zt::lines(run(g));
  EXPECT_TRUE(contains(err, "zone 1: cell 50 of face 8 is outside mfpc (2 cells): left out")) << err;
  EXPECT_EQ(count(out, said(" # of boundary faces: ", {7})), 1);
  EXPECT_EQ(count(filelines("t.plt"), "      1      2      5      4"), 1);
}

TEST_F(tecplot, CellWithMoreFacesThanIfaceHasColumnsKeepsItsFirstFaces) {
  auto z = tt::trianglefan();
  z.faces.push_back({{1, 3}, 1, 0});  // face 9: a fourth face for triangle 1 (after face 6 on side 2)
  auto g = build(2, {z});
  run(g);
  EXPECT_TRUE(
      contains(err, "zone 1: face 6 is the 4th face of cell 1, outside iface (4 cells, 3 slots): left out"))
      << err;
  EXPECT_EQ(const_(4), 4);  // counted all the same
  EXPECT_EQ(detail::tecplotwork().iface(1, 3), 9);
  EXPECT_EQ(count(filelines("t.plt"), tt::intrecord({1, 2, 5})[0]), 1);
}

TEST_F(tecplot, SinglePrismHasMoreNodesThanIfcellHasColumnsForTheirCodes) {
  // Five faces, six nodes: node 6 cannot carry a node-use code, so it is in no element zone and
  // the brick names it by the -1 that marks it as a boundary node.
  tt::zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {0, 1, 1}};
  z.faces = {{{1, 2, 3}, 1, -1},
             {{1, 2, 5, 4}, 1, -1},
             {{2, 3, 6, 5}, 1, -1},
             {{3, 1, 4, 6}, 1, -1},
             {{4, 5, 6}, 1, -1}};
  z.ncells = 1;
  z.mfpc = 5;
  auto g = build(3, {z});
  const strings out = zt::lines(run(g));
  EXPECT_TRUE(
      contains(err, "zone 1: node 6 has no room for its node-use code (ifcell has 5 columns): left out"))
      << err;
  EXPECT_EQ(count(out, said("total number of prisms,pts: ", {1, 5})), 1);
  EXPECT_EQ(count(out, said(" number of nodes (known,counted): ", {5, 5})), 1);
  const strings lines = filelines("t.plt");
  EXPECT_EQ(count(lines, " ZONE  T= \"Prism-Zone   1\"  N=         5 , E=         1 , F=FEPOINT, ET=BRICK"),
            1);
  const strings brick = tt::intrecord({3, 3, -1, -1, 1, 2, 5, 4});
  EXPECT_EQ(count(lines, brick[0]), 1);
}

TEST_F(tecplot, LeftOutReportsStopAfterTwentyLines) {
  auto z = tt::quadstrip();
  for (int k = 0; k < 30; ++k) z.faces.push_back({{1, 100 + k}, 0, -1});
  auto g = build(2, {z});
  run(g);
  EXPECT_EQ(detail::tecplotleftouts(), 30);
  const strings lines = zt::lines(err);
  ASSERT_EQ(lines.size(), 21u);
  EXPECT_EQ(lines.back(),
            "zelmgrid: Tecplot export: further references outside the arrays are left out without a message");
}

TEST_F(tecplot, ElementWritersCalledWithUnallocatedArraysLeaveEverythingOut) {
  farray<int, 1> ncellsz, nptsz, ipf, ipbf, npf;
  farray<int, 2> iface, ifnode, ifcell;
  farray<double, 2> x, qnode;
  ncellsz.allocate(1);
  nptsz.allocate(1);
  ncellsz(1) = 3;
  nptsz(1) = 4;
  formt(4) = 0;
  ::testing::internal::CaptureStderr();
  zt::capturestdout([&] {
    quapts(1, ncellsz, iface, ifnode);
    tripts(1, ncellsz, iface, ifnode);
    tetpts(1, 3, ncellsz, iface, ifnode, ipf, ipbf, x, qnode, nptsz, ifcell);
    prsmpts(1, 3, ncellsz, iface, ifnode, ipf, ipbf, x, qnode, npf, nptsz, ifcell);
  });
  const std::string e = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(contains(e, "zone 1: cell 1 (face slots 1 to 4) is outside iface (0 cells, 0 slots)")) << e;
  EXPECT_TRUE(contains(e, "zone 1: node 1 has no node-use code (ifcell has 0 columns)")) << e;
  // A zone outside the count arrays is passed over.
  mod_zelmgrid::resetstate();  // the reports above used up this call's twenty lines
  ::testing::internal::CaptureStderr();
  zt::capturestdout([&] { quapts(2, ncellsz, iface, ifnode); });
  EXPECT_TRUE(contains(::testing::internal::GetCapturedStderr(), "zone 2 is outside ncellsz (1 zones)"));
}

// ==== stops ===========================================================================================

namespace {

// A death test's child runs the test again from its start, in a scratch directory of its own; it
// writes its file in the parent's, which it finds through the environment.
constexpr const char* sharedvar = "ZELM_TECPLOT_PARENT_DIR";
std::filesystem::path shareddir(const std::filesystem::path& mine) {
  if (const char* p = std::getenv(sharedvar)) return p;
  ::setenv(sharedvar, mine.c_str(), 1);
  return mine;
}

// In the child: default stop and failure handling, standard output into the stream that the
// death test matches, and the parent's directory as the current one.
void childsetup(const std::filesystem::path& shared, const std::filesystem::path& own) {
  defaulthandlers();
  std::fflush(stdout);
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
  std::filesystem::current_path(shared);
  if (own != shared) std::filesystem::remove_all(own);
}

tt::zone degeneratequadstrip() {
  auto z = tt::quadstrip();
  z.faces[2].nodes = {2, 6};  // cell 2: no edge but the first touches node 3
  return z;
}

}  // namespace

TEST_F(tecplot, DegenerateQuadrilateralStopsWithTheTriptsMessageInAChildProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto shared = shareddir(dir_);
  auto g = build(2, {degeneratequadstrip()});
  EXPECT_EXIT(
      {
        childsetup(shared, dir_);
        g.write("t.plt");
      },
      ::testing::ExitedWithCode(0),
      "NDOTS           4\n writing cell/node connectivity info for quads\n  error: in subroutine tripts: "
      "ifc3\\.eq\\.0 \n$");
  ::unsetenv(sharedvar);
  strings want = {title, variables2,
                  " ZONE  T= \"Zone   1\"  N=         6 , E=         2 , F=FEPOINT, ET=QUADRILATERAL"};
  for (int n = 1; n <= 6; ++n) tt::append(want, tt::noderecord(g, n, 6));
  want.push_back("      1      2      5      4");
  expectlines(filelines("t.plt"), want);
}

TEST_F(tecplot, DegenerateQuadrilateralStopsAfterTheGoodCellsWithAThrowingHandler) {
  auto g = build(2, {degeneratequadstrip()});
  std::string out;
  EXPECT_THROW(out = run(g), zt::stopped);
  io::close(10);  // the stop left it connected
  const strings lines = filelines("t.plt");
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "      1      2      5      4");
}

TEST_F(tecplot, TriangleWithoutAThirdNodeStopsInAChildProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto shared = shareddir(dir_);
  tt::zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {2, 2, 0}};
  z.faces = {{{1, 2}, 1, -1}, {{2, 3}, 1, -1}, {{3, 1}, 1, -1},
             {{3, 4}, 2, -1}, {{4, 3}, 2, -1}, {{3, 4}, 2, -1}};
  z.ncells = 2;
  z.mfpc = 3;
  auto g = build(2, {z});
  EXPECT_EXIT(
      {
        childsetup(shared, dir_);
        g.write("t.plt");
      },
      ::testing::ExitedWithCode(0),
      "writing cell/node connectivity info for triangles\n  error: in subroutine tripts: ifc3\\.eq\\.0 \n$");
  ::unsetenv(sharedvar);
  strings want = {title, variables2,
                  " ZONE  T= \"Zone   1\"  N=         4 , E=         2 , F=FEPOINT, ET=TRIANGLE"};
  for (int n = 1; n <= 4; ++n) tt::append(want, tt::noderecord(g, n, 6));
  tt::append(want, tt::intrecord({1, 2, 3}));
  expectlines(filelines("t.plt"), want);
}

TEST_F(tecplot, TetrahedronWithoutAFourthNodeStopsInAChildProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto shared = shareddir(dir_);
  tt::zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {5, 0, 0}, {6, 0, 0}, {5, 1, 0}};
  z.faces = {{{1, 2, 3}, 1, -1}, {{1, 2, 4}, 1, -1}, {{2, 3, 4}, 1, -1}, {{1, 3, 4}, 1, -1},
             {{5, 6, 7}, 2, -1}, {{6, 7, 5}, 2, -1}, {{7, 5, 6}, 2, -1}, {{5, 7, 6}, 2, -1}};
  z.ncells = 2;
  z.mfpc = 4;
  auto g = build(3, {z});
  EXPECT_EXIT(
      {
        childsetup(shared, dir_);
        g.write("t.plt");
      },
      ::testing::ExitedWithCode(0),
      " number of nodes \\(known,counted\\):            7           7\n  error: in subroutine tetpts: "
      "ifc4\\.eq\\.0 \n$");
  ::unsetenv(sharedvar);
  strings want = {title, variables3,
                  " ZONE  T= \"Tet-Zone   1\"  N=         7 , E=         2 , F=FEPOINT, ET=TETRAHEDRON"};
  for (int n = 1; n <= 7; ++n) tt::append(want, tt::noderecord(g, n, 6));
  tt::append(want, tt::intrecord({1, 2, 3, 4}));
  expectlines(filelines("t.plt"), want);
}

TEST_F(tecplot, CallingTheExportTwiceDoesNotEndTheHostInAChildProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto shared = shareddir(dir_);
  EXPECT_EXIT(
      {
        childsetup(shared, dir_);
        auto a = build(2, {tt::quadstrip()});
        a.write("a.plt");
        auto b = build(3, {tt::prismwithtet()});
        b.write("b.plt");
        auto c = build(2, {tt::trianglefan(), tt::trianglefan()});
        c.write("c.plt");
        std::fprintf(stderr, "host goes on\n");
        std::exit(7);
      },
      ::testing::ExitedWithCode(7), "host goes on");
  ::unsetenv(sharedvar);
  EXPECT_EQ(filelines("b.plt")[2],
            " ZONE  T= \"Tet-Zone   1\"  N=         4 , E=         1 , F=FEPOINT, ET=TETRAHEDRON");
  EXPECT_EQ(filelines("c.plt")[2],
            " ZONE  T= \"Zone   1\"  N=         5 , E=         4 , F=FEPOINT, ET=TRIANGLE");
}

// ==== read back by VTK's Tecplot reader =================================================================

namespace {

class tecplotvtk : public tecplot {
 protected:
  void SetUp() override {
    tecplot::SetUp();
    if (!tt::vtkavailable()) GTEST_SKIP() << "python3-vtk9 is not installed";
  }
  tt::json read(const std::string& name) { return tt::readwithvtk((dir_ / name).string()); }
};

const strings solution = {"RHO", "U", "V", "W", "P", "FREE"};

void expectelement(const tt::json& e, const std::string& type, const std::vector<int>& corners,
                   double measure) {
  EXPECT_EQ(e["type"].str, type);
  EXPECT_EQ(e["corners"].ints(), corners);
  EXPECT_NEAR(e["measure"].num, measure, 1e-12);
}

// The reader's points of a zone are the nodes that the file lists, in order.
void expectcoords(const tt::json& zone, const tt::grid& g, const std::vector<int>& nodes) {
  ASSERT_EQ(zone["coords"].size(), nodes.size());
  for (std::size_t i = 0; i < nodes.size(); ++i)
    for (int d = 1; d <= 3; ++d)
      EXPECT_EQ(zone["coords"][i][static_cast<std::size_t>(d - 1)].num, d <= g.ndim ? g.x(d, nodes[i]) : 0.0)
          << "point " << i + 1;
}

}  // namespace

TEST_F(tecplotvtk, QuadrilateralsReadBack) {
  auto g = build(2, {tt::quadstrip()});
  run(g);
  const tt::json r = read("t.plt");
  EXPECT_EQ(r["messages"].str, "");
  EXPECT_EQ(r["variables"].strings(), solution);
  ASSERT_EQ(r["zones"].size(), 2u);
  const tt::json& z = r["zones"][0];
  EXPECT_EQ(z["name"].str, "Zone   1");
  EXPECT_EQ(z["dataset"].str, "vtkUnstructuredGrid");
  EXPECT_EQ(z["points"].integer(), 6);
  EXPECT_EQ(z["cells"].integer(), 2);
  EXPECT_EQ(z["arrays"].strings(), solution);
  expectcoords(z, g, {1, 2, 3, 4, 5, 6});
  expectelement(z["elements"][0], "quad", {1, 2, 5, 4}, 1.0);
  expectelement(z["elements"][1], "quad", {2, 3, 6, 5}, 1.0);
  // The body zone is a point zone: the reader makes it an ordered line through the boundary nodes.
  const tt::json& b = r["zones"][1];
  EXPECT_EQ(b["name"].str, "Body            1 ");
  EXPECT_EQ(b["dataset"].str, "vtkStructuredGrid");
  EXPECT_EQ(b["points"].integer(), 6);
  expectcoords(b, g, {1, 2, 3, 4, 5, 6});
}

TEST_F(tecplotvtk, TrianglesReadBack) {
  auto g = build(2, {tt::trianglefan()});
  run(g);
  const tt::json r = read("t.plt");
  EXPECT_EQ(r["messages"].str, "");
  ASSERT_EQ(r["zones"].size(), 2u);
  const tt::json& z = r["zones"][0];
  EXPECT_EQ(z["name"].str, "Zone   1");
  ASSERT_EQ(z["cells"].integer(), 4);
  expectcoords(z, g, {1, 2, 3, 4, 5});
  const std::vector<std::vector<int>> corners = {{1, 2, 5}, {2, 3, 5}, {3, 4, 5}, {4, 1, 5}};
  for (std::size_t c = 0; c < 4; ++c) expectelement(z["elements"][c], "triangle", corners[c], 0.25);
  EXPECT_EQ(r["zones"][1]["points"].integer(), 4);
  expectcoords(r["zones"][1], g, {1, 2, 3, 4});
}

TEST_F(tecplotvtk, TetrahedraReadBackAndTheBodyFacesAreMisread) {
  auto g = build(3, {tt::tetstar()});
  run(g);
  const tt::json r = read("t.plt");
  EXPECT_EQ(r["messages"].str, "");
  ASSERT_EQ(r["zones"].size(), 2u);
  const tt::json& z = r["zones"][0];
  EXPECT_EQ(z["name"].str, "Tet-Zone   1");
  EXPECT_EQ(z["arrays"].strings(), solution);
  expectcoords(z, g, {1, 2, 3, 4, 5});
  ASSERT_EQ(z["cells"].integer(), 4);
  const std::vector<std::vector<int>> corners = {{1, 2, 3, 5}, {1, 2, 4, 5}, {1, 3, 4, 5}, {2, 3, 4, 5}};
  double volume = 0;
  for (std::size_t c = 0; c < 4; ++c) {
    expectelement(z["elements"][c], "tetra", corners[c], 1.0 / 24);
    volume += z["elements"][c]["measure"].num;
  }
  EXPECT_NEAR(volume, 1.0 / 6, 1e-12);
  // The body header continues on a second line; the reader takes both (its N, E and element
  // type). Under ET=QUADRILATERAL it takes four numbers per element from the faces' three: the
  // elements are the number stream regrouped, and the last one finds no numbers left.
  const tt::json& b = r["zones"][1];
  EXPECT_EQ(b["name"].str, "Body            1 ");
  EXPECT_EQ(b["points"].integer(), 4);
  expectcoords(b, g, {1, 2, 3, 4});
  ASSERT_EQ(b["cells"].integer(), 4);
  EXPECT_EQ(b["elements"][0]["type"].str, "quad");
  EXPECT_EQ(b["elements"][0]["corners"].ints(), (std::vector<int>{1, 2, 3, 1}));
  EXPECT_EQ(b["elements"][1]["corners"].ints(), (std::vector<int>{2, 4, 1, 3}));
  EXPECT_EQ(b["elements"][2]["corners"].ints(), (std::vector<int>{4, 2, 3, 4}));
  for (int c : b["elements"][3]["corners"].ints()) EXPECT_LE(c, 0);
}

TEST_F(tecplotvtk, TetrahedronAndPrismReadBackAndTheHeaderlessBodyStopsTheReader) {
  auto g = build(3, {tt::prismwithtet()});
  run(g);
  const tt::json r = read("t.plt");
  ASSERT_EQ(r["zones"].size(), 2u);
  const tt::json& t = r["zones"][0];
  EXPECT_EQ(t["name"].str, "Tet-Zone   1");
  expectcoords(t, g, {4, 5, 6, 7});
  ASSERT_EQ(t["cells"].integer(), 1);
  expectelement(t["elements"][0], "tetra", {1, 2, 3, 4}, 1.0 / 6);
  const tt::json& p = r["zones"][1];
  EXPECT_EQ(p["name"].str, "Prism-Zone   1");
  EXPECT_EQ(p["arrays"].strings(), solution);
  expectcoords(p, g, {1, 2, 3, 4, 5, 6});
  ASSERT_EQ(p["cells"].integer(), 1);
  // The brick with corners 1 = 2 and 3 = 4 on the apex edge 3-6 has the prism's volume.
  expectelement(p["elements"][0], "hexahedron", {3, 3, 6, 6, 1, 2, 5, 4}, 0.5);
  // The body records that follow without a header are not a record the reader knows: it reports
  // the first number (an 8-byte zero, written as gfortran writes it) and reads no further zone.
  EXPECT_TRUE(contains(r["messages"].str, "The record type 0.0000000000000000 found in the file is unknown"))
      << r["messages"].str;
}

TEST_F(tecplotvtk, PrismFromEitherQuadrilateralLayoutReadsBackWithItsVolume) {
  auto z = tt::prismwithtet();
  z.faces[1].nodes = {2, 5, 4, 1};
  auto g = build(3, {z});
  run(g);
  const tt::json r = read("t.plt");
  ASSERT_EQ(r["zones"].size(), 2u);
  ASSERT_EQ(r["zones"][1]["cells"].integer(), 1);
  expectelement(r["zones"][1]["elements"][0], "hexahedron", {3, 3, 6, 6, 2, 1, 4, 5}, 0.5);
}

TEST_F(tecplotvtk, SeveralZonesReadBackZoneByZone) {
  tt::zone square;
  square.points = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};
  square.faces = {{{1, 2}, 1, -1}, {{2, 3}, 1, -1}, {{3, 4}, 1, -1}, {{4, 1}, 1, -1}};
  square.ncells = 1;
  square.mfpc = 4;
  auto g = build(2, {square, tt::trianglefan()});
  // The fan's cells numbered after the square's, so that every face is stored.
  for (int f = 5; f <= 12; ++f)
    for (int s = 1; s <= 2; ++s)
      if (g.ifcell(s, f) > 0) g.ifcell(s, f) += 1;
  run(g);
  EXPECT_EQ(err, "");
  const tt::json r = read("t.plt");
  EXPECT_EQ(r["messages"].str, "");
  ASSERT_EQ(r["zones"].size(), 4u);
  EXPECT_EQ(r["zones"][0]["name"].str, "Zone   1");
  EXPECT_EQ(r["zones"][1]["name"].str, "Body            1 ");
  EXPECT_EQ(r["zones"][2]["name"].str, "Zone   2");
  EXPECT_EQ(r["zones"][3]["name"].str, "Body            2 ");
  expectelement(r["zones"][0]["elements"][0], "quad", {1, 2, 3, 4}, 1.0);
  // Every zone's nodes and cells are numbered from 1, so zone 2 is written from x's first five
  // columns (the square's four nodes and the fan's first) and from cells 1 .. 4: the square's
  // cell, read as the triangle 1 2 3, then the fan's first three triangles over those points;
  // the first of them, 1 2 5, has two corners at (0, 0). A multi-zone grid is not exported as its
  // own geometry.
  const tt::json& z2 = r["zones"][2];
  EXPECT_EQ(z2["points"].integer(), 5);
  expectcoords(z2, g, {1, 2, 3, 4, 5});
  ASSERT_EQ(z2["cells"].integer(), 4);
  expectelement(z2["elements"][0], "triangle", {1, 2, 3}, 0.5);
  expectelement(z2["elements"][1], "triangle", {1, 2, 5}, 0.0);
  expectelement(z2["elements"][2], "triangle", {2, 3, 5}, 0.5);
  expectelement(z2["elements"][3], "triangle", {3, 4, 5}, 0.5);
}

TEST_F(tecplotvtk, TwoDimensionalZoneWithoutHeaderIsNotReadAsAZone) {
  auto z = tt::quadstrip();
  z.mfpc = 5;
  auto g = build(2, {z});
  run(g);
  const tt::json r = read("t.plt");
  EXPECT_EQ(r["zones"].size(), 0u);
  // The first node record's zero, as gfortran writes an 8-byte zero.
  EXPECT_TRUE(contains(r["messages"].str, "The record type 0.0000000000000000 found in the file is unknown"))
      << r["messages"].str;
}

TEST_F(tecplotvtk, ZoneWithoutCellsReadsAsPointsWithoutElements) {
  // No cells, and one face with a boundary side only, so that the body zone has nodes.
  tt::zone z;
  z.points = {{5, 5, 0}, {6, 5, 0}};
  z.faces = {{{1, 2}, 0, -1}};
  z.mfpc = 4;
  auto g = build(2, {z});
  run(g);
  EXPECT_EQ(filelines("t.plt")[2],
            " ZONE  T= \"Zone   1\"  N=         2 , E=         0 , F=FEPOINT, ET=QUADRILATERAL");
  const tt::json r = read("t.plt");
  EXPECT_EQ(r["messages"].str, "");
  ASSERT_EQ(r["zones"].size(), 2u);
  EXPECT_EQ(r["zones"][0]["name"].str, "Zone   1");
  EXPECT_EQ(r["zones"][0]["points"].integer(), 2);
  EXPECT_EQ(r["zones"][0]["cells"].integer(), 0);
  expectcoords(r["zones"][0], g, {1, 2});
  EXPECT_EQ(r["zones"][1]["points"].integer(), 2);
}

TEST_F(tecplotvtk, BodyPointZoneWithIZeroKeepsTheReaderFromFinishing) {
  // A zone without boundary nodes ends the file with the body header "I= 0"; the reader does not
  // come back from it (it is still running when the time limit ends it).
  tt::zone empty;
  empty.points = {{5, 5, 0}, {6, 5, 0}};
  empty.mfpc = 4;
  auto g = build(2, {empty});
  run(g);
  ASSERT_EQ(filelines("t.plt").back(), bodypointheader(1, 0));
  const tt::vtkrun r = tt::runvtk((dir_ / "t.plt").string(), 5);
  EXPECT_EQ(r.status, 124) << r.output;
}

TEST_F(tecplotvtk, ThreeDimensionalBodyWithMfpczThreeIsATriangleSurface) {
  // mfpcz 3 in zone 1 and 4 in an empty zone 2 (so that iface has room for the tetrahedra's four
  // faces): zone 1's body header ends in TRIANGLE, and its faces' three numbers are well formed.
  auto z = tt::tetstar();
  z.mfpc = 3;
  tt::zone empty;
  empty.mfpc = 4;
  auto g = build(3, {z, empty}, 6, true);
  run(g);
  EXPECT_EQ(err, "");
  const strings lines = filelines("t.plt");
  const strings header = bodysurfaceheader(1, 4, 4, "TRIANGLE");
  const auto at = std::search(lines.begin(), lines.end(), header.begin(), header.end());
  ASSERT_NE(at, lines.end());
  const auto zone2 = at + 1 + 4 + 4;  // the header, four node records, four faces
  ASSERT_LT(zone2, lines.end());
  EXPECT_EQ(*zone2, " ZONE  T= \"Tet-Zone   2\"  N=         0 , E=         0 , F=FEPOINT, ET=TETRAHEDRON");
  // The reader on zone 1's part of the file.
  std::string part;
  for (auto l = lines.begin(); l != zone2; ++l) part += *l + "\n";
  zt::writefile("zone1.plt", part);
  const tt::json r = read("zone1.plt");
  EXPECT_EQ(r["messages"].str, "");
  ASSERT_EQ(r["zones"].size(), 2u);
  const tt::json& b = r["zones"][1];
  EXPECT_EQ(b["name"].str, "Body            1 ");
  expectcoords(b, g, {1, 2, 3, 4});
  ASSERT_EQ(b["cells"].integer(), 4);
  expectelement(b["elements"][0], "triangle", {1, 2, 3}, 0.5);
  expectelement(b["elements"][1], "triangle", {1, 2, 4}, 0.5);
  expectelement(b["elements"][2], "triangle", {1, 3, 4}, 0.5);
  expectelement(b["elements"][3], "triangle", {2, 3, 4}, std::sqrt(3.0) / 2);
  // The whole file, with zone 2's empty zones (N= 0), keeps the reader from finishing.
  EXPECT_EQ(tt::runvtk((dir_ / "t.plt").string(), 5).status, 124);
}
