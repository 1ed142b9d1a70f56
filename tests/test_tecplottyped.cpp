// zelm::writetecplot: the Tecplot export of a typed grid. It must write the bytes and say the lines
// that writetecplotfile writes and prints for the same arrays, on the suite's grids and the bundled
// examples, without touching the module's state; refuse hostile counts at once; take any path; and
// give the same files from several threads at once.
#include <chrono>
#include <climits>
#include <filesystem>
#include <thread>

#include "gridgen.hpp"
#include "tecplotgrids.hpp"
#include "zelmgrid/files.hpp"
#include "zelmgrid/tecplot.hpp"

namespace fs = std::filesystem;
using fortran::farray;
using fortran::index_t;
using strings = std::vector<std::string>;

namespace {

const char* const leftoutprefix = "zelmgrid: Tecplot export:";

// The typed grid of a suite grid built with cumulative nfacesz (tt::build's default).
zelm::grid typedgrid(const tt::grid& t) {
  zelm::grid g;
  g.ndim = t.ndim;
  int before = 0;
  for (int k = 1; k <= t.nzones; ++k) {
    g.zones.push_back({t.nptsz(k), t.nfacesz(k) - before, t.ncellsz(k), t.mnpfz(k), t.mfpcz(k)});
    before = t.nfacesz(k);
  }
  g.x.allocate(t.x.extent(1), t.x.extent(2));
  std::copy_n(t.x.data(), t.x.size(), g.x.data());
  g.npf.allocate(t.npf.extent(1));
  std::copy_n(t.npf.data(), t.npf.size(), g.npf.data());
  g.ifnode.allocate(t.ifnode.extent(1), t.ifnode.extent(2));
  std::copy_n(t.ifnode.data(), t.ifnode.size(), g.ifnode.data());
  g.ifcell.allocate(2, t.ifcell.extent(2));
  std::copy_n(t.ifcell.data(), t.ifcell.size(), g.ifcell.data());
  return g;
}

// Node values of every node of g: rows beyond the six exported ones too, so that only the first six
// may reach the file.
farray<double, 2> nodevalues(const zelm::grid& g, int rows = 8) {
  farray<double, 2> v;
  v.allocate(rows, g.totalnodes());
  for (index_t n = 1; n <= g.totalnodes(); ++n)
    for (int r = 1; r <= rows; ++r) v(r, n) = tt::qvalue(r, static_cast<int>(n)) - 0.125 * r * r;
  return v;
}

// The arguments of writetecplotfile for the same export, sliced out of the typed grid here: zone k
// alone (its own nodes and faces), or every zone with nfacesz the highest face of each.
tt::grid routinearrays(const zelm::grid& g, const farray<double, 2>* values, int zone) {
  tt::grid r;
  r.ndim = g.ndim;
  const int first = zone > 0 ? zone - 1 : 0;
  const int last = zone > 0 ? zone - 1 : static_cast<int>(g.zones.size()) - 1;
  r.nzones = last - first + 1;
  for (auto* a : {&r.nptsz, &r.nfacesz, &r.ncellsz, &r.mnpfz, &r.mfpcz}) a->allocate(r.nzones);
  index_t node0 = 0, face0 = 0;
  for (int k = 0; k < first; ++k) node0 += g.zones[k].nodes, face0 += g.zones[k].faces;
  index_t faces = 0, nodes = 0;
  for (int iz = 1; iz <= r.nzones; ++iz) {
    const auto& z = g.zones[static_cast<std::size_t>(first + iz - 1)];
    faces += z.faces;
    nodes = zone > 0 ? z.nodes : std::max<index_t>(nodes, z.nodes);
    r.nptsz(iz) = z.nodes, r.ncellsz(iz) = z.cells, r.mnpfz(iz) = z.mnpf, r.mfpcz(iz) = z.mfpc;
    r.nfacesz(iz) = static_cast<int>(zone > 0 ? z.faces : faces);
  }
  if (zone == 0) faces = g.ifcell.extent(2), nodes = g.x.extent(2);
  r.x.allocate(g.ndim, nodes);
  r.qnode.allocate(6, nodes);
  for (index_t n = 1; n <= nodes; ++n) {
    for (int d = 1; d <= g.ndim; ++d) r.x(d, n) = g.x(d, node0 + n);
    for (int v = 1; v <= 6; ++v) r.qnode(v, n) = values ? (*values)(v, node0 + n) : 0.0;
  }
  r.npf.allocate(faces);
  r.ifnode.allocate(g.ifnode.extent(1), faces);
  r.ifcell.allocate(2, faces);
  for (index_t f = 1; f <= faces; ++f) {
    r.npf(f) = g.npf(face0 + f);
    for (index_t s = 1; s <= g.ifnode.extent(1); ++s) r.ifnode(s, f) = g.ifnode(s, face0 + f);
    for (int s = 1; s <= 2; ++s) r.ifcell(s, f) = g.ifcell(s, face0 + f);
  }
  return r;
}

// One export's outcome: the file, the lines said, and how it ended.
struct outcome {
  std::string file;
  strings progress, leftouts;  // standard output and standard error of the routine
  bool stopped = false;        // the routine stopped / the typed export threw for an unorderable cell
};

strings splitmessages(const strings& said, bool leftout) {
  strings out;
  for (const auto& l : said)
    if ((l.rfind(leftoutprefix, 0) == 0) == leftout) out.push_back(l);
  return out;
}

class tecplottyped : public zt::zelmtest {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    mod_gridvars::npixvar = zelm::tecplotvalues;
    mod_gridvars::numrstrtvar = zelm::tecplotvalues;
  }
  void TearDown() override {
    fortran::allocationlimit = SIZE_MAX;
    zt::zelmtest::TearDown();
  }

  // writetecplotfile on the module's state, afresh, to "r.plt".
  outcome byroutine(const zelm::grid& g, const farray<double, 2>* values, int zone) {
    mod_zelmgrid::resetstate();
    tt::grid r = routinearrays(g, values, zone);
    outcome o;
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    try {
      r.write(fortran::char40("r.plt"));
    } catch (const zt::stopped&) {
      o.stopped = true;
    }
    std::fflush(stdout);
    o.progress = zt::lines(::testing::internal::GetCapturedStdout());
    o.leftouts = zt::lines(::testing::internal::GetCapturedStderr());
    mod_zelmgrid::io::closeall();  // a stopped export leaves its unit connected
    o.file = zt::readfile("r.plt");
    return o;
  }

  // zelm::writetecplot to "t.plt"; `leftout` gets its result.
  outcome bytyped(const zelm::grid& g, const farray<double, 2>* values, int zone, std::int64_t& leftout) {
    strings said;
    zelm::tecplotoptions options;
    options.zone = zone;
    options.messages = [&](std::string_view l) { said.emplace_back(l); };
    outcome o;
    try {
      leftout = zelm::writetecplot("t.plt", g, values, options);
    } catch (const zelm::error& e) {
      EXPECT_NE(std::string(e.what()).find("nodes cannot be ordered"), std::string::npos) << e.what();
      o.stopped = true;
    }
    o.progress = splitmessages(said, false);
    o.leftouts = splitmessages(said, true);
    o.file = zt::readfile("t.plt");
    return o;
  }

  // Both exports of g agree: file bytes, progress lines, reports, the count left out, the stop.
  void expectsame(const zelm::grid& g, const farray<double, 2>* values, int zone, const std::string& what) {
    SCOPED_TRACE(what + ", zone " + std::to_string(zone) +
                 (values ? ", with node values" : ", no node values"));
    const outcome r = byroutine(g, values, zone);
    std::int64_t leftout = -1;
    const outcome t = bytyped(g, values, zone, leftout);
    EXPECT_FALSE(r.file.empty());
    EXPECT_EQ(t.file, r.file);
    EXPECT_EQ(t.progress, r.progress);
    EXPECT_EQ(t.stopped, r.stopped);
    if (t.stopped) return;
    // The typed export adds one line, the total, when it left out more than it reported.
    strings reports = t.leftouts;
    if (leftout > 20) {
      ASSERT_FALSE(reports.empty());
      EXPECT_EQ(reports.back(), std::string(leftoutprefix) + " " + std::to_string(leftout) +
                                    " references outside the arrays were left out in all");
      reports.pop_back();
    } else {
      EXPECT_EQ(static_cast<std::int64_t>(reports.size()), leftout);
    }
    EXPECT_EQ(reports, r.leftouts);
  }

  // Every way of exporting g: each zone alone and all together, with and without node values.
  void expectsameeverywhere(const zelm::grid& g, const std::string& what) {
    const farray<double, 2> values = nodevalues(g);
    for (int zone = 0; zone <= static_cast<int>(g.zones.size()); ++zone) {
      expectsame(g, &values, zone, what);
      expectsame(g, nullptr, zone, what);
    }
  }
};

std::string messageof(const std::function<void()>& f) {
  try {
    f();
  } catch (const zelm::error& e) {
    return e.what();
  }
  return "(no error)";
}

// A one-zone two-dimensional grid of three nodes and three faces with the given counts.
zelm::grid smalltriangle(int cells, int mfpc) {
  zelm::grid g;
  g.ndim = 2;
  g.zones = {{3, 3, cells, 2, mfpc}};
  g.x.allocate(2, 3);
  const double xy[6] = {0, 0, 1, 0, 0, 1};
  std::copy_n(xy, 6, g.x.data());
  g.npf.allocate(3);
  g.ifnode.allocate(2, 3);
  g.ifcell.allocate(2, 3);
  const int faces[3][4] = {{1, 2, 1, -1}, {2, 3, 1, -1}, {3, 1, 1, -1}};
  for (int f = 1; f <= 3; ++f) {
    g.npf(f) = 2;
    g.ifnode(1, f) = faces[f - 1][0], g.ifnode(2, f) = faces[f - 1][1];
    g.ifcell(1, f) = faces[f - 1][2], g.ifcell(2, f) = faces[f - 1][3];
  }
  return g;
}

}  // namespace

// ==== the same bytes as writetecplotfile ==============================================================

TEST_F(tecplottyped, SuiteGridsInTwoDimensionsGiveTheRoutinesBytesAndLines) {
  expectsameeverywhere(typedgrid(tt::build(2, {tt::quadstrip()})), "quadrilaterals");
  expectsameeverywhere(typedgrid(tt::build(2, {tt::trianglefan()})), "triangles");
  expectsameeverywhere(typedgrid(tt::build(2, {tt::quadstrip(), tt::trianglefan()})), "two zones");
  expectsameeverywhere(typedgrid(tt::build(2, {tt::trianglefan(), tt::trianglefan(), tt::quadstrip()})),
                       "three zones");
}

TEST_F(tecplottyped, SuiteGridsInThreeDimensionsGiveTheRoutinesBytesAndLines) {
  expectsameeverywhere(typedgrid(tt::build(3, {tt::tetstar()})), "tetrahedra");
  expectsameeverywhere(typedgrid(tt::build(3, {tt::prismwithtet()})), "tetrahedron and prism");
  expectsameeverywhere(typedgrid(tt::build(3, {tt::tetstar(), tt::prismwithtet()})), "two zones");
}

TEST_F(tecplottyped, GeneratedGridsGiveTheRoutinesBytesAndLines) {
  expectsameeverywhere(zelmgen::typed(zelmgen::quadtri(5, 4, false, 2)), "quadrilaterals in two zones");
  expectsameeverywhere(zelmgen::typed(zelmgen::quadtri(4, 3, true)), "triangles");
  expectsameeverywhere(zelmgen::typed(zelmgen::tetprism(3, 3, 4, 2, 2)),
                       "tetrahedra and prisms in two zones");
}

TEST_F(tecplottyped, BundledExamplesGiveTheRoutinesBytesAndLines) {
  for (const std::string sample : {"flow2d", "flow3d"}) {
    const std::string base = std::string(ZELM_SOURCE_DIR) + "/examples/" + sample;
    const zelm::grid g = zelm::readgrid(base + "-grid.unf", {zelm::encoding::unformatted, false});
    const zelm::pix p =
        zelm::readpix(base + "-pix.txt", {zelm::encoding::formatted, false}, g.nodesperzone());
    ASSERT_GE(p.values.extent(1), 7);  // six variables and a free one, which is not exported
    for (int zone = 0; zone <= static_cast<int>(g.zones.size()); ++zone) {
      expectsame(g, &p.values, zone, sample);
      expectsame(g, nullptr, zone, sample);
    }
  }
}

TEST_F(tecplottyped, UnorderableCellThrowsWhereTheRoutineStops) {
  auto z = tt::quadstrip();
  z.faces[2].nodes = {2, 6};  // cell 2: no edge but the first touches node 3
  const zelm::grid g = typedgrid(tt::build(2, {z}));
  expectsame(g, nullptr, 1, "degenerate quadrilateral");
  const std::string m = messageof([&] { zelm::writetecplot("t.plt", g); });
  EXPECT_EQ(m,
            "Tecplot export: zone 1 cell 2: the cell's nodes cannot be ordered (error: in subroutine tripts: "
            "ifc3.eq.0)");
}

TEST_F(tecplottyped, LeavesTheModuleStateAsItWas) {
  const zelm::grid g = typedgrid(tt::build(3, {tt::prismwithtet()}));
  mod_gridvars::npixvar = 2;
  mod_gridvars::numrstrtvar = 1;
  zelm::writetecplot("t.plt", g);
  for (std::size_t i = 1; i <= 8; ++i) EXPECT_EQ(mod_zelmgrid::const_(i), 0);
  for (std::size_t i = 1; i <= 5; ++i) EXPECT_EQ(mod_zelmgrid::formt(i), 0);
  EXPECT_FALSE(mod_zelmgrid::io::isconnected(10));
  EXPECT_TRUE(zt::services().allocstatuses.empty());  // no checkallocationerror
  // npixvar and numrstrtvar play no part: six values a node whatever they say.
  EXPECT_EQ(zt::lines(zt::readfile("t.plt"))[3].size(), 9u * 26u);  // x y z and six values, 26 columns each
  // Called again: the same file, where writetecplotfile's second call finds its arrays allocated.
  const std::string first = zt::readfile("t.plt");
  zelm::writetecplot("t.plt", g);
  EXPECT_EQ(zt::readfile("t.plt"), first);
}

TEST_F(tecplottyped, MessagesGoWhereTheCallerSays) {
  const zelm::grid g = typedgrid(tt::build(2, {tt::quadstrip()}));
  // Silent without a sink, whatever the module's standard output setting.
  const std::string printed = zt::capturestdout([&] { zelm::writetecplot("t.plt", g); });
  EXPECT_EQ(printed, "");
  // To a stream: the lines writetecplotfile prints.
  std::FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  zelm::tecplotoptions options;
  options.messages = zelm::messagesto(f);
  zelm::writetecplot("t.plt", g, nullptr, options);
  std::rewind(f);
  std::string got;
  char buf[256];
  while (std::fgets(buf, sizeof buf, f)) got += buf;
  std::fclose(f);
  EXPECT_EQ(got, zt::capturestdout([&] {
              tt::grid r = routinearrays(g, nullptr, 0);
              r.write(fortran::char40("r.plt"));
            }));
  EXPECT_FALSE(zelm::messagesto(nullptr));
}

// ==== hostile counts ====================================================================================

TEST_F(tecplottyped, ZoneClaimingMoreCellsThanItsFacesBorderIsRefusedAtOnce) {
  // The text grid of the report: three faces, 2147483647 cells.
  zt::writefile("g.txt", "2 1 0\n3 3 2147483647 2 3\n0 0\n1 0\n0 1\n2 1 2 1 -1\n2 2 3 1 -1\n2 3 1 1 -1\n");
  const zelm::grid g = zelm::readgrid("g.txt", {zelm::encoding::formatted, false});
  ASSERT_EQ(g.zones[0].cells, INT_MAX);
  const auto start = std::chrono::steady_clock::now();
  const std::string m = messageof([&] { zelm::writetecplot("t.plt", g); });
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 1.0);
  EXPECT_EQ(m, "Tecplot export: zone 1 claims 2147483647 cells, but its 3 faces border at most 6");
  EXPECT_FALSE(fs::exists("t.plt"));  // refused before anything is opened
  EXPECT_EQ(messageof([&] { zelm::writetecplot("t.plt", g, nullptr, {1, {}}); }), m);
  // The same grid framed (a file of 180 bytes) is refused the same way.
  zelm::writegrid("g.unf", {zelm::encoding::unformatted, false}, g);
  ASSERT_EQ(fs::file_size("g.unf"), 180u);
  const zelm::grid framed = zelm::readgrid("g.unf", {zelm::encoding::unformatted, false});
  EXPECT_EQ(messageof([&] { zelm::writetecplot("t.plt", framed); }), m);
}

TEST_F(tecplottyped, CellsOfMoreFacesThanTheZoneHasAreRefused) {
  EXPECT_EQ(messageof([] { zelm::writetecplot("t.plt", smalltriangle(1, INT_MAX)); }),
            "Tecplot export: zone 1 claims cells of up to 2147483647 faces (mfpcz), but it has 3 faces");
  EXPECT_FALSE(fs::exists("t.plt"));
  // Without cells the face slots are never allocated: a large mfpcz is harmless there.
  zelm::grid nocells = smalltriangle(0, INT_MAX);
  for (int f = 1; f <= 3; ++f) nocells.ifcell(1, f) = 0;  // no face names a cell
  EXPECT_EQ(zelm::writetecplot("t.plt", nocells), 0);
}

TEST_F(tecplottyped, WorkArraysBeyondTheGridsSizeAreRefused) {
  // 20000 faces may border 40000 cells of 40000 faces each, in principle: 6.4 GB of face slots
  // for a grid of a few hundred kilobytes.
  zelm::grid g;
  g.ndim = 2;
  const int faces = 20000;
  g.zones = {{2, faces, 2 * faces, 2, 2 * faces}};
  g.x.allocate(2, 2);
  g.npf.allocate(faces);
  g.ifnode.allocate(2, faces);
  g.ifcell.allocate(2, faces);
  std::fill_n(g.x.data(), g.x.size(), 0.0);
  std::fill_n(g.npf.data(), g.npf.size(), 2);
  std::fill_n(g.ifnode.data(), g.ifnode.size(), 1);
  std::fill_n(g.ifcell.data(), g.ifcell.size(), 0);
  const std::string m = messageof([&] { zelm::writetecplot("t.plt", g); });
  EXPECT_NE(m.find("the work arrays for 40000 cells of up to 40000 faces would take 6400"), std::string::npos)
      << m;
  EXPECT_FALSE(fs::exists("t.plt"));
}

TEST_F(tecplottyped, CountsTheGridsArraysDoNotHoldAreRefused) {
  EXPECT_EQ(messageof([] {
              zelm::writetecplot("t.plt", smalltriangle(1, 3), nullptr, {2, {}});
            }),
            "Tecplot export: zone 2 asked for, but the grid has 1 zone(s)");
  auto negative = smalltriangle(-1, 3);
  EXPECT_NE(messageof([&] { zelm::writetecplot("t.plt", negative); }).find("zone 1 has a negative count"),
            std::string::npos);
  auto shortx = smalltriangle(1, 3);
  shortx.zones[0].nodes = 4;
  EXPECT_EQ(messageof([&] { zelm::writetecplot("t.plt", shortx); }),
            "Tecplot export: the zones read 2 coordinates of nodes up to 4, but x holds 2 by 3");
  auto shortfaces = smalltriangle(1, 3);
  shortfaces.zones[0].faces = 4;
  EXPECT_NE(messageof([&] { zelm::writetecplot("t.plt", shortfaces); }).find("faces up to 4"),
            std::string::npos);
  farray<double, 2> five;
  five.allocate(5, 3);
  EXPECT_EQ(
      messageof([&] { zelm::writetecplot("t.plt", smalltriangle(1, 3), &five); }),
      "Tecplot export: the node values hold 5 variables of 3 nodes; the export writes 6 of nodes up to 3");
  auto fourd = smalltriangle(1, 3);
  fourd.ndim = 4;
  EXPECT_EQ(messageof([&] { zelm::writetecplot("t.plt", fourd); }),
            "Tecplot export: the export takes 2D or 3D grids; this grid has ndim 4");
  EXPECT_FALSE(fs::exists("t.plt"));
}

TEST_F(tecplottyped, AFailedAllocationThrows) {
  const zelm::grid g = typedgrid(tt::build(2, {tt::quadstrip()}));
  fortran::allocationlimit = 16;  // every array but the smallest
  const std::string m = messageof([&] { zelm::writetecplot("t.plt", g); });
  fortran::allocationlimit = SIZE_MAX;
  EXPECT_NE(m.find("out of memory"), std::string::npos) << m;
}

TEST_F(tecplottyped, ManyReferencesLeftOutAreCountedAndSummed) {
  auto z = tt::quadstrip();
  for (int k = 0; k < 30; ++k) z.faces.push_back({{1, 100 + k}, 0, -1});
  const zelm::grid g = typedgrid(tt::build(2, {z}));
  expectsame(g, nullptr, 1, "thirty boundary nodes outside the grid");
  strings said;
  zelm::tecplotoptions options;
  options.messages = [&](std::string_view l) { said.emplace_back(l); };
  EXPECT_EQ(zelm::writetecplot("t.plt", g, nullptr, options), 30);
  const strings reports = splitmessages(said, true);
  ASSERT_EQ(reports.size(), 22u);
  EXPECT_EQ(reports[20], std::string(leftoutprefix) +
                             " further references outside the arrays are left out "
                             "without a message");
  EXPECT_EQ(reports[21],
            std::string(leftoutprefix) + " 30 references outside the arrays were left out in all");
}

// ==== files =============================================================================================

TEST_F(tecplottyped, AnyPathIsUsedExactlyAsGiven) {
  const zelm::grid g = typedgrid(tt::build(3, {tt::prismwithtet()}));
  zelm::writetecplot("t.plt", g);
  const std::string want = zt::readfile("t.plt");
  const fs::path dir = dir_ / "a folder with blanks in its name" / "and a second one, longer than forty";
  fs::create_directories(dir);
  const fs::path file = dir / "the Tecplot file.dat";
  ASSERT_GT(file.string().size(), 100u);
  zelm::writetecplot(file.string(), g);
  EXPECT_EQ(zt::readfile(file), want);
  // Trailing blanks are part of the name.
  zelm::writetecplot("blank.dat  ", g);
  EXPECT_TRUE(fs::exists("blank.dat  "));
  EXPECT_FALSE(fs::exists("blank.dat"));
  EXPECT_EQ(zt::readfile("blank.dat  "), want);
}

TEST_F(tecplottyped, AnExistingFileIsReplacedWhole) {
  zt::writefile("t.plt", std::string(100000, 'x'));
  zelm::grid empty;
  empty.ndim = 2;
  EXPECT_EQ(zelm::writetecplot("t.plt", empty), 0);
  EXPECT_EQ(zt::readfile("t.plt"), "");  // no zone, no title: an empty file
  const zelm::grid g = typedgrid(tt::build(2, {tt::trianglefan()}));
  zelm::writetecplot("t.plt", g);
  const std::string want = zt::readfile("t.plt");
  zt::writefile("t.plt", std::string(100000, 'x'));
  zelm::writetecplot("t.plt", g);
  EXPECT_EQ(zt::readfile("t.plt"), want);
}

TEST_F(tecplottyped, AnOutputThatCannotBeOpenedThrowsTheLibrarysError) {
  const zelm::grid g = typedgrid(tt::build(2, {tt::trianglefan()}));
  const std::string m = messageof([&] { zelm::writetecplot("no such folder/t.plt", g); });
  EXPECT_NE(m.find("\"no such folder/t.plt\""), std::string::npos) << m;
  EXPECT_NE(m.find("No such file or directory"), std::string::npos) << m;
}

// ==== threads =========================================================================================

TEST_F(tecplottyped, ThreadsExportingAtOnceWriteWhatOneThreadWrites) {
  std::vector<zelm::grid> grids;
  grids.push_back(zelmgen::typed(zelmgen::quadtri(12, 9, false, 2)));
  grids.push_back(zelmgen::typed(zelmgen::quadtri(10, 8, true)));
  grids.push_back(zelmgen::typed(zelmgen::tetprism(5, 4, 4, 2)));
  grids.push_back(typedgrid(tt::build(3, {tt::prismwithtet()})));
  grids.push_back(smalltriangle(INT_MAX, 3));  // refused: its message must not mix with others'
  std::vector<farray<double, 2>> values;
  for (const auto& g : grids) values.push_back(nodevalues(g));

  // What each export gives in this thread alone: the file, or the error; and the lines said.
  auto exportone = [&](std::size_t k, const fs::path& file, strings& said) {
    zelm::tecplotoptions options;
    options.zone = 1;
    options.messages = [&](std::string_view l) { said.emplace_back(l); };
    try {
      zelm::writetecplot(file.string(), grids[k], &values[k], options);
      return zt::readfile(file);
    } catch (const zelm::error& e) {
      return "error: " + std::string(e.what());
    }
  };
  std::vector<std::string> want(grids.size());
  std::vector<strings> wantsaid(grids.size());
  for (std::size_t k = 0; k < grids.size(); ++k) want[k] = exportone(k, dir_ / "alone.plt", wantsaid[k]);
  EXPECT_EQ(want.back(),
            "error: Tecplot export: zone 1 claims 2147483647 cells, but its 3 faces border at most 6");

  constexpr int threads = 8, rounds = 20;
  std::vector<std::vector<std::string>> got(threads);
  std::vector<std::vector<strings>> gotsaid(threads);
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t)
    pool.emplace_back([&, t] {
      for (int r = 0; r < rounds; ++r)
        for (std::size_t i = 0; i < grids.size(); ++i) {
          const std::size_t k = (i + static_cast<std::size_t>(t)) % grids.size();  // different grids at once
          strings said;
          got[t].push_back(exportone(k, dir_ / ("thread" + std::to_string(t) + ".plt"), said));
          gotsaid[t].push_back(said);
        }
    });
  for (auto& th : pool) th.join();
  for (int t = 0; t < threads; ++t)
    for (int r = 0; r < rounds; ++r)
      for (std::size_t i = 0; i < grids.size(); ++i) {
        const std::size_t k = (i + static_cast<std::size_t>(t)) % grids.size();
        const std::size_t at = static_cast<std::size_t>(r) * grids.size() + i;
        EXPECT_EQ(got[t][at], want[k]) << "thread " << t << " round " << r << " grid " << k;
        EXPECT_EQ(gotsaid[t][at], wantsaid[k]) << "thread " << t << " round " << r << " grid " << k;
      }
}
