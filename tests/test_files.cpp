// The typed, zone-exact file interface.
#include <sys/stat.h>

#include <chrono>
#include <sstream>

#include "gridfixtures.hpp"
#include "gridgen.hpp"
#include "testsupport.hpp"
#include "zelmgrid/detect.hpp"
#include "zelmgrid/files.hpp"

using zelm::encoding;
using zelm::format;

namespace {

class typedfiles : public zt::zelmtest, public ::testing::WithParamInterface<format> {};
class typedfile : public zt::zelmtest {};

// A generated grid as the typed interface holds it.
zelm::grid typedgrid(int zones) {
  const auto g = zelmgen::tetprism(2, 2, 2, 1, zones);
  zelm::grid t;
  t.ndim = g.ndim;
  t.aux = 7;
  for (int k = 1; k <= g.nzones; ++k)
    t.zones.push_back({g.nptsz(k), g.nfacesz(k), g.ncellsz(k), g.mnpfz(k), g.mfpcz(k)});
  t.x.allocate(g.ndim, g.x.extent(2));
  for (fortran::index_t i = 0; i < g.x.size(); ++i)
    t.x.data()[i] = g.x.data()[i] + 1e-9 * static_cast<double>(i);  // not a float
  t.npf.allocate(g.npf.extent(1));
  t.ifnode.allocate(g.ifnode.extent(1), g.ifnode.extent(2));
  t.ifcell.allocate(2, g.ifcell.extent(2));
  for (fortran::index_t f = 1; f <= g.npf.extent(1); ++f) {
    t.npf(f) = g.npf(f);
    for (int s = 1; s <= g.ifnode.extent(1); ++s) t.ifnode(s, f) = g.ifnode(s, f);
    t.ifcell(1, f) = g.ifcell(1, f);
    t.ifcell(2, f) = g.ifcell(2, f);
  }
  return t;
}

double expected(double v, format f) {
  return f.dblprec ? v : static_cast<double>(static_cast<float>(v));
}

}  // namespace

TEST_P(typedfiles, GridRoundTripKeepsEveryZone) {
  const format f = GetParam();
  const auto g = typedgrid(3);
  zelm::writegrid("g.dat", f, g);
  const auto r = zelm::readgrid("g.dat", f);
  ASSERT_EQ(r.zones.size(), 3u);
  EXPECT_EQ(r.aux, 7);
  EXPECT_EQ(r.zones[2].cells, g.zones[2].cells);
  ASSERT_EQ(r.x.size(), g.x.size());
  for (fortran::index_t i = 0; i < g.x.size(); ++i) EXPECT_EQ(r.x.data()[i], expected(g.x.data()[i], f)) << i;
  for (fortran::index_t fc = 1; fc <= g.npf.extent(1); ++fc) {
    ASSERT_EQ(r.npf(fc), g.npf(fc));
    for (int s = 1; s <= g.npf(fc); ++s) EXPECT_EQ(r.ifnode(s, fc), g.ifnode(s, fc));
    EXPECT_EQ(r.ifcell(2, fc), g.ifcell(2, fc));
  }
}

TEST_P(typedfiles, RestartZonesKeepTheirPlaces) {
  const format f = GetParam();
  const std::vector<int> cells = {3, 5, 2};
  zelm::restart r;
  r.dtime = 0.1, r.lastcyc = 12, r.rstype = 3, r.dgamma = 1.4, r.drgas = 287.05, r.dr0 = 1.2, r.drm0 = 0.3,
  r.dp0 = 1e5;
  r.q.allocate(4, 10);
  for (int v = 1; v <= 4; ++v)
    for (int c = 1; c <= 10; ++c) r.q(v, c) = v * 100 + c + 1.0 / 3;
  zelm::writerestart("r.dat", f, r, cells);
  const auto b = zelm::readrestart("r.dat", f, cells, 4);
  EXPECT_EQ(b.lastcyc, 12);
  EXPECT_EQ(b.rstype, 3);
  EXPECT_EQ(b.dgamma, expected(1.4, f.enc == encoding::formatted ? format{f.enc, true} : f));
  for (int v = 1; v <= 4; ++v)
    for (int c = 1; c <= 10; ++c) EXPECT_EQ(b.q(v, c), expected(r.q(v, c), f)) << v << " " << c;
}

TEST_P(typedfiles, PixWithAndWithoutFreeVariables) {
  const format f = GetParam();
  const std::vector<int> nodes = {4, 2};
  for (int nfree : {0, 2}) {
    zelm::pix p;
    p.dvar = 2.5, p.dgamma = 1.4, p.text = "run 7";
    for (int k = 1; k <= nfree; ++k) p.labels.push_back("label " + std::to_string(k));
    p.values.allocate(6 + nfree, 6);
    for (int v = 1; v <= 6 + nfree; ++v)
      for (int n = 1; n <= 6; ++n) p.values(v, n) = v + n / 7.0;
    zelm::writepix("p.dat", f, p, nodes);
    const auto b = zelm::readpix("p.dat", f, nodes);
    EXPECT_EQ(b.text, "run 7" + std::string(20, ' '));
    ASSERT_EQ(b.labels.size(), static_cast<std::size_t>(nfree));
    if (nfree > 0) {
      EXPECT_EQ(b.labels[1], "label 2" + std::string(18, ' '));
    }
    ASSERT_EQ(b.values.extent(1), 6 + nfree);
    for (int v = 1; v <= 6 + nfree; ++v)
      for (int n = 1; n <= 6; ++n) EXPECT_EQ(b.values(v, n), expected(p.values(v, n), f));
  }
}

INSTANTIATE_TEST_SUITE_P(formats, typedfiles,
                         ::testing::Values(format{encoding::unformatted, false},
                                           format{encoding::unformatted, true},
                                           format{encoding::binary, false}, format{encoding::binary, true},
                                           format{encoding::formatted, false},
                                           format{encoding::formatted, true}));

TEST_F(typedfile, TypedReadOfATruncatedGridThrowsWithTheRecord) {
  zelm::writegrid("g.dat", {encoding::unformatted, false}, typedgrid(1));
  const auto b = zt::readfile("g.dat");
  zt::writefile("g.dat", b.substr(0, b.size() - 30));
  try {
    zelm::readgrid("g.dat", {encoding::unformatted, false});
    FAIL() << "no error";
  } catch (const zelm::error& e) {
    EXPECT_NE(std::string(e.what()).find("face"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("g.dat"), std::string::npos) << e.what();
  }
}

TEST_F(typedfile, TypedReadWithTheWrongPrecisionThrows) {
  zelm::writegrid("g.dat", {encoding::binary, true}, typedgrid(1));
  EXPECT_THROW(zelm::readgrid("g.dat", {encoding::binary, false}), zelm::error);
  EXPECT_THROW(zelm::readgrid("missing.dat", {encoding::binary, false}), mod_zelmgrid::io::ioerror);
}

TEST_F(typedfile, TypedInterfaceLeavesTheUnitTableAlone) {
  zelm::writegrid("g.dat", {encoding::unformatted, false}, typedgrid(1));
  zelm::readgrid("g.dat", {encoding::unformatted, false});
  for (int n : {4, 13, 14, 15, 16}) EXPECT_FALSE(mod_zelmgrid::io::isconnected(n));
}

// ---- hostile files: counts proven before memory is spent, only regular files ---------------------

namespace {

// Runs `read` and expects a zelm::error whose message holds `words`, within a second.
template <class F>
void refusedquickly(F&& read, const std::string& words) {
  const auto start = std::chrono::steady_clock::now();
  try {
    read();
    ADD_FAILURE() << "no error; expected one about " << words;
  } catch (const zelm::error& e) {
    EXPECT_NE(std::string(e.what()).find(words), std::string::npos) << e.what();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

}  // namespace

TEST_F(typedfile, TextGridClaimingTwoToThe28NodesIsRefusedBeforeAllocating) {
  zt::writefile("g.txt", "3 1 0\n268435456 0 0 0 0\n1 2 3\n");
  refusedquickly([] { zelm::readgrid("g.txt", {encoding::formatted, false}); }, "268,435,456 nodes");
}

TEST_F(typedfile, BinaryGridOfEmptyNodeRecordsEndsAtOnce) {
  // ndim 0: each node record of the unframed encoding takes no bytes.
  zt::bytes b;
  b.i4(0).i4(4).i4(0);
  for (int k = 0; k < 4; ++k) b.i4(2147483647).i4(0).i4(0).i4(0).i4(0);
  zt::writefile("g.bin", b.b);
  const auto start = std::chrono::steady_clock::now();
  const auto g = zelm::readgrid("g.bin", {encoding::binary, false});
  EXPECT_EQ(g.totalnodes(), 4 * fortran::index_t{2147483647});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(typedfile, PixTextOfHugeRepeatCountsIsRefusedByTheMemoryRule) {
  std::string text = "1 2 3\n4 5 6\n" + std::string(25, 't') + "\n";
  for (int v = 0; v < 6; ++v) text += "2000000000*1.0\n";
  zt::writefile("p.txt", text);
  refusedquickly(
      [] {
        zelm::readpix("p.txt", {encoding::formatted, false}, {2000000000});
      },
      "bytes of arrays");
}

TEST_F(typedfile, SmallRestartWithAHugeGridIsRefused) {
  // A 4-byte-real header (56 bytes) and one record of one value: 68 bytes.
  zt::bytes b;
  b.record(zt::bytes().r4(1).i4(2).i4(3))
      .record(zt::bytes().r4(1.4f).r4(287))
      .record(zt::bytes().r4(1).r4(2).r4(3));
  b.record(zt::bytes().r4(5));
  ASSERT_EQ(b.b.size(), 68u);
  zt::writefile("r.unf", b.b);
  refusedquickly(
      [] {
        zelm::readrestart("r.unf", {encoding::unformatted, false}, {1 << 28}, 1);
      },
      "268,435,456 cells");
}

TEST_F(typedfile, OnlyRegularFilesAreRead) {
  refusedquickly([] { zelm::readgrid("/dev/zero", {encoding::binary, false}); }, "a device");
  std::filesystem::create_directory("d");
  refusedquickly([] { zelm::readgrid("d", {encoding::binary, false}); }, "a folder");
  ASSERT_EQ(::mkfifo("fifo", 0600), 0);
  refusedquickly([] { zelm::readgrid("fifo", {encoding::binary, false}); }, "FIFO");  // no writer: no wait
  refusedquickly([] { zelm::writegrid("d", {encoding::binary, false}, zelm::grid{}); }, "");
}

TEST_F(typedfile, FileNamesAreUsedExactlyAsGiven) {
  const auto g = typedgrid(1);
  zelm::writegrid("twin.dat ", {encoding::binary, false}, g);
  EXPECT_TRUE(std::filesystem::exists("twin.dat "));
  EXPECT_FALSE(std::filesystem::exists("twin.dat"));
  const std::string longname(200, 'n');
  zelm::writegrid(longname + "\xc3\xa9", {encoding::binary, false}, g);
  EXPECT_EQ(zelm::readgrid(longname + "\xc3\xa9", {encoding::binary, false}).totalnodes(), g.totalnodes());
}

TEST_F(typedfile, ReadErrorsSayWhere) {
  const auto g = typedgrid(1);
  zelm::writegrid("g.dat", {encoding::unformatted, false}, g);
  const std::string whole = zt::readfile("g.dat");
  zt::writefile("g.dat", whole.substr(0, whole.size() - 3));
  try {
    zelm::readgrid("g.dat", {encoding::unformatted, false});
    FAIL() << "no error";
  } catch (const zelm::readerror& e) {
    EXPECT_EQ(e.file, "g.dat");
    EXPECT_EQ(e.encoding, "unformatted");
    EXPECT_GT(e.record, 2);
    EXPECT_GT(e.offset, 0);
    EXPECT_NE(e.cause.find("truncated"), std::string::npos) << e.cause;
  }
}

TEST_F(typedfile, TextGridFromTheTypedWriterHasOneZoneALineAndReadsBothWays) {
  const auto g = typedgrid(3);
  zelm::writegrid("g.txt", {encoding::formatted, false}, g);
  const auto l = zt::lines(zt::readfile("g.txt"));
  ASSERT_GT(l.size(), 4u);
  for (std::size_t k = 1; k <= 3; ++k) {
    std::istringstream in(l[k]);
    int v = 0, n = 0;
    while (in >> v) ++n;
    EXPECT_EQ(n, 5) << l[k];
  }
  // The routine's reader (one statement a zone) reads it.
  zt::grid rg;
  rg.read("g.txt", mod_zelmgrid::formatted, 0);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  EXPECT_EQ(rg.nzones, 3);
  // And the typed reader reads the routine's file, every count on one line.
  const auto made = zt::makegrid(3);
  made.write("r.txt", mod_zelmgrid::formatted, 0);
  EXPECT_EQ(zt::lines(zt::readfile("r.txt"))[1].size() > 100, true);
  EXPECT_EQ(zelm::readgrid("r.txt", {encoding::formatted, false}).zones.size(), 3u);
}

TEST_F(typedfile, PixFreeCountOfZeroIsKeptAndACutCountIsNone) {
  zelm::pix p;
  p.text = "title";
  p.values.allocate(6, 2);
  p.hasfreecount = true;
  zelm::writepix("p.unf", {encoding::unformatted, false}, p, {2});
  const auto withcount = zt::readfile("p.unf");
  const auto r = zelm::readpix("p.unf", {encoding::unformatted, false}, {2});
  EXPECT_TRUE(r.hasfreecount);
  zelm::writepix("q.unf", {encoding::unformatted, false}, r, {2});
  EXPECT_EQ(zt::readfile("q.unf"), withcount);
  // Cut inside the count record: read as ending before it.
  zt::writefile("c.unf", withcount.substr(0, withcount.size() - 6));
  const auto cut = zelm::readpix("c.unf", {encoding::unformatted, false}, {2});
  EXPECT_FALSE(cut.hasfreecount);
  EXPECT_TRUE(cut.labels.empty());
}

TEST_F(typedfile, RecognitionOfAFaceOfTheLargestCountDoesNotOverflow) {
  // A binary grid whose only face claims 2147483647 nodes (36 bytes).
  zt::bytes b;
  b.i4(2).i4(1).i4(0).i4(0).i4(1).i4(0).i4(2147483647).i4(0).i4(2147483647);
  ASSERT_EQ(b.b.size(), 36u);
  zt::writefile("g.bin", b.b);
  const auto d = zelm::detect("g.bin");
  EXPECT_EQ(d.kind, zelm::filekind::unknown);
}

TEST_F(typedfile, RecognitionNamesATruncatedFramedFile) {
  zelm::writegrid("g.unf", {encoding::unformatted, false}, typedgrid(1));
  const std::string whole = zt::readfile("g.unf");
  zt::writefile("g.unf", whole.substr(0, whole.size() - 10));
  const auto d = zelm::detect("g.unf");
  EXPECT_TRUE(d.truncated);
  EXPECT_EQ(d.enc, encoding::unformatted);
  ASSERT_FALSE(d.problems.empty());
  EXPECT_NE(d.problems[0].find("truncated"), std::string::npos) << d.problems[0];
  EXPECT_THROW(zelm::detect("/dev/zero"), zelm::error);
}
