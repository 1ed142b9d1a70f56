// Grid files: header reader, reader and writer.
#include "records.hpp"
#include "refgrid.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::farray;
using zt::bytes;

namespace {

class gridfiles : public zt::zelmtest {};

struct encodingcase {
  int filetype;
  logical dblprec;
};

class gridroundtrip : public zt::zelmtest, public ::testing::WithParamInterface<encodingcase> {};

void expectsamegrid(const zt::grid& a, const zt::grid& b) {
  ASSERT_EQ(a.ndim, b.ndim);
  ASSERT_EQ(a.nzones, b.nzones);
  EXPECT_EQ(a.ngridaux, b.ngridaux);
  for (int k = 1; k <= a.nzones; ++k) {
    EXPECT_EQ(a.nptsz(k), b.nptsz(k));
    EXPECT_EQ(a.nfacesz(k), b.nfacesz(k));
    EXPECT_EQ(a.ncellsz(k), b.ncellsz(k));
    EXPECT_EQ(a.mnpfz(k), b.mnpfz(k));
    EXPECT_EQ(a.mfpcz(k), b.mfpcz(k));
  }
  ASSERT_EQ(a.x.size(), b.x.size());
  for (fortran::index_t i = 0; i < a.x.size(); ++i) EXPECT_EQ(a.x.data()[i], b.x.data()[i]) << i;
  ASSERT_EQ(a.npf.size(), b.npf.size());
  for (int f = 1; f <= a.npf.extent(1); ++f) {
    EXPECT_EQ(a.npf(f), b.npf(f));
    for (int i = 1; i <= a.npf(f); ++i) EXPECT_EQ(a.ifnode(i, f), b.ifnode(i, f));
    EXPECT_EQ(a.ifcell(1, f), b.ifcell(1, f));
    EXPECT_EQ(a.ifcell(2, f), b.ifcell(2, f));
  }
}

}  // namespace

TEST_P(gridroundtrip, OneZoneReadsBackExactly) {
  const auto [filetype, dblprec] = GetParam();
  const auto g = zt::makegrid(1);
  g.write("g.dat", filetype, dblprec);
  zt::grid r;
  r.read("g.dat", filetype, dblprec);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  expectsamegrid(g, r);
}

TEST_P(gridroundtrip, HeaderReaderAgreesWithReader) {
  const auto [filetype, dblprec] = GetParam();
  const auto g = zt::makegrid(filetype == formatted ? 1 : 3);
  g.write("g.dat", filetype, dblprec);
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("g.dat", filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
  zt::grid r;
  r.read("g.dat", filetype, dblprec);
  EXPECT_EQ(ndim, r.ndim);
  EXPECT_EQ(nzones, r.nzones);
  EXPECT_EQ(ngridaux, r.ngridaux);
  for (int k = 1; k <= nzones; ++k) {
    EXPECT_EQ(nptsz(k), r.nptsz(k));
    EXPECT_EQ(ncellsz(k), r.ncellsz(k));
  }
  EXPECT_FALSE(io::isconnected(14));
}

INSTANTIATE_TEST_SUITE_P(encodings, gridroundtrip,
                         ::testing::Values(encodingcase{unformatted, 0}, encodingcase{unformatted, 1},
                                           encodingcase{binary, 0}, encodingcase{binary, 1},
                                           encodingcase{formatted, 0}, encodingcase{formatted, 1}));

TEST_F(gridfiles, MultiZoneFramedRoundTrip) {
  const auto g = zt::makegrid(3);
  g.write("g.dat", unformatted, 0);
  zt::grid r;
  r.read("g.dat", unformatted, 0);
  expectsamegrid(g, r);
}

TEST_F(gridfiles, FramedBytesOfAOneFaceGrid) {
  zt::grid g;
  g.ndim = 2, g.nzones = 1, g.ngridaux = 5;
  for (auto* a : {&g.nptsz, &g.nfacesz, &g.ncellsz, &g.mnpfz, &g.mfpcz}) a->allocate(1);
  g.nptsz(1) = 2, g.nfacesz(1) = 1, g.ncellsz(1) = 1, g.mnpfz(1) = 2, g.mfpcz(1) = 3;
  g.x.allocate(2, 2);
  g.x(1, 1) = 0.5f, g.x(2, 1) = 1.5f, g.x(1, 2) = 2.5f, g.x(2, 2) = 3.5f;
  g.npf.allocate(1);
  g.ifnode.allocate(2, 1);
  g.ifcell.allocate(2, 1);
  g.npf(1) = 2, g.ifnode(1, 1) = 1, g.ifnode(2, 1) = 2, g.ifcell(1, 1) = 1, g.ifcell(2, 1) = -1;
  g.write("g.dat", unformatted, 1);
  const auto expect = bytes()
                          .record(bytes().i4(2).i4(1).i4(5))
                          .record(bytes().i4(2).i4(1).i4(1).i4(2).i4(3))
                          .record(bytes().r8(0.5).r8(1.5))
                          .record(bytes().r8(2.5).r8(3.5))
                          .record(bytes().i4(2).i4(1).i4(2).i4(1).i4(-1));
  EXPECT_EQ(zt::readfile("g.dat"), expect.b);
}

TEST_F(gridfiles, WriterProgressLines) {
  const auto g = zt::makegrid(2);
  const std::string out = zt::capturestdout([&] { g.write("g.dat", binary, 0); });
  EXPECT_EQ(zt::lines(out), (std::vector<std::string>{
                                " Writing Grid Points in Zone            1 ...",
                                " Writing Connectivity in Zone            1 ...",
                                " Writing Grid Points in Zone            2 ...",
                                " Writing Connectivity in Zone            2 ...",
                            }));
}

TEST_F(gridfiles, ReadconnFalseWithThreeZonesReadsOnlyZoneOnesNodes) {
  const auto g = zt::makegrid(3);
  g.write("g.dat", unformatted, 0);
  fortran::allocationfill = 0x55;
  zt::grid r;
  const std::string out = zt::capturestdout([&] { r.read("g.dat", unformatted, 0, 0); });
  EXPECT_EQ(zt::lines(out),
            (std::vector<std::string>{" Reading Grid Points in Zone            1 ...",
                                      " Skipping Connectivity Information in Zone            1 ..."}));
  ASSERT_TRUE(r.x.allocated());
  EXPECT_EQ(r.x.extent(2), 4 + 5 + 6);
  EXPECT_EQ(r.x(1, 4), g.x(1, 4));
  float unset;
  std::memset(&unset, 0x55, 4);
  EXPECT_EQ(r.x(1, 5), unset);
  EXPECT_TRUE(r.nptsz.allocated());
  EXPECT_FALSE(r.nfacesz.allocated());
  EXPECT_FALSE(r.ncellsz.allocated());
  EXPECT_FALSE(r.mnpfz.allocated());
  EXPECT_FALSE(r.mfpcz.allocated());
  EXPECT_FALSE(r.npf.allocated());
  EXPECT_FALSE(r.ifnode.allocated());
  EXPECT_FALSE(r.ifcell.allocated());
}

TEST_F(gridfiles, FormattedReadconnFalseAllocatesConnectivityUnfilled) {
  const auto g = zt::makegrid(1);
  g.write("g.dat", formatted, 0);
  zt::grid r;
  r.read("g.dat", formatted, 0, 0);
  EXPECT_TRUE(r.npf.allocated());
  EXPECT_TRUE(r.ifnode.allocated());
  EXPECT_TRUE(r.ifcell.allocated());
}

TEST_F(gridfiles, FormattedZoneCountsSpreadOverLinesAreReadByTheHeaderReaderOnly) {
  const auto g = zt::makegrid(2);
  g.write("g.dat", formatted, 0);
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("g.dat", formatted, ndim, nzones, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_EQ(nptsz(2), 5);
  EXPECT_EQ(ncellsz(2), 2);
  zt::grid r;
  r.read("g.dat", formatted, 0);
  EXPECT_NE(r.nptsz(2), 5);  // zone 2's counts began on zone 1's line: the reader takes others
}

TEST_F(gridfiles, NoZones) {
  zt::grid g;
  g.ndim = 3;
  for (auto* a : {&g.nptsz, &g.nfacesz, &g.ncellsz, &g.mnpfz, &g.mfpcz}) a->allocate(0);
  const std::string out = zt::capturestdout([&] { g.write("g.dat", unformatted, 0); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(zt::readfile("g.dat"), bytes().record(bytes().i4(3).i4(0).i4(0)).i4(0).i4(0).b);
  int ndim = 0, nzones = -1, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("g.dat", unformatted, ndim, nzones, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_EQ(nzones, 0);
  EXPECT_TRUE(nptsz.allocated());
  EXPECT_EQ(nptsz.extent(1), 0);
  EXPECT_FALSE(io::isconnected(14));
}

TEST_F(gridfiles, HeaderReaderWithAnUnknownCodeAllocatesWithThePriorZoneCount) {
  int ndim = 9, nzones = 4, ngridaux = 8;
  farray<int, 1> nptsz, ncellsz;
  io::open(14, "other.dat", "unformatted", "unknown");
  readzelmgridheader("g.dat", 3, ndim, nzones, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(nptsz.extent(1), 4);
  EXPECT_EQ(ncellsz.extent(1), 4);
  EXPECT_EQ(ndim, 9);
  EXPECT_EQ(ngridaux, 8);
  EXPECT_FALSE(io::isconnected(14));
  EXPECT_EQ(zt::services().readerrors, 0);
}

TEST_F(gridfiles, TruncatedFileFailsThroughTheServiceAndKeepsWhatWasRead) {
  const auto g = zt::makegrid(1);
  g.write("g.dat", unformatted, 0);
  std::string b = zt::readfile("g.dat");
  zt::writefile("g.dat", b.substr(0, b.size() - 10));
  zt::grid r;
  r.read("g.dat", unformatted, 0);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("zone 1 face"), std::string::npos) << zt::services().lastdetail;
  EXPECT_TRUE(io::isconnected(13));
  EXPECT_TRUE(r.x.allocated());
  EXPECT_EQ(r.x(1, 1), g.x(1, 1));
}

TEST_F(gridfiles, WriterLeavesUnitFourConnected) {
  const auto g = zt::makegrid(1);
  writezelmgrid("g.dat", binary, 0, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz, g.ncellsz, g.mnpfz,
                g.mfpcz, g.npf, g.ifnode, g.ifcell);
  EXPECT_TRUE(io::isconnected(4));
}

TEST_F(gridfiles, AMissingFileEndsTheRunAtTheOpen) {
  zt::grid r;
  EXPECT_THROW(r.read("nothere.dat", unformatted, 0), zt::iofailure);
}

// ---- header reader ------------------------------------------------------------------------------

class headerzones : public zt::zelmtest, public ::testing::WithParamInterface<int> {};

// nzones = 0: both outputs are allocated with extent 0, the empty zone-count record is consumed
// and the file is closed, in every encoding.
TEST_P(headerzones, NoZonesAllocatesEmptyOutputsAndClosesTheFile) {
  const int filetype = GetParam();
  zt::grid g = zt::makegrid(0);
  g.write("g.dat", filetype, 0);
  zt::services().clear();
  int ndim = 0, nzones = -1, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("g.dat", filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  EXPECT_EQ(ndim, 3);
  EXPECT_EQ(nzones, 0);
  EXPECT_EQ(ngridaux, 77);
  ASSERT_TRUE(nptsz.allocated());
  ASSERT_TRUE(ncellsz.allocated());
  EXPECT_EQ(nptsz.extent(1), 0);
  EXPECT_EQ(ncellsz.extent(1), 0);
  EXPECT_FALSE(io::isconnected(14));
  EXPECT_TRUE(zt::services().announced.empty());  // the header reader announces nothing
}

// A negative zone count in the file is used as extent 0; the zone-count record is still consumed.
TEST_P(headerzones, ANegativeZoneCountIsUsedAsExtentZero) {
  const int filetype = GetParam();
  if (filetype == formatted)
    zt::writefile("g.dat", " 2 -4 0\n\n");
  else if (filetype == unformatted)
    zt::writefile("g.dat", bytes().record(bytes().i4(2).i4(-4).i4(0)).i4(0).i4(0).b);
  else
    zt::writefile("g.dat", bytes().i4(2).i4(-4).i4(0).b);
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("g.dat", filetype, ndim, nzones, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  EXPECT_EQ(nzones, -4);
  EXPECT_TRUE(nptsz.allocated());
  EXPECT_EQ(nptsz.extent(1), 0);
  EXPECT_EQ(ncellsz.extent(1), 0);
  EXPECT_EQ(zt::services().allocstatuses, std::vector<int>{0});
  EXPECT_FALSE(io::isconnected(14));
}

INSTANTIATE_TEST_SUITE_P(
    encodings, headerzones, ::testing::Values(unformatted, binary, formatted), [](const auto& i) {
      return std::string(i.param == unformatted ? "unformatted" : i.param == binary ? "binary" : "formatted");
    });

// The header reader reads all zones' counts with one statement, so the line breaks do not matter:
// one value a line, several zones on one line, or a record continued over lines.
TEST_F(gridfiles, FormattedZoneCountsOnAnyLinesAreReadTheSameByTheHeaderReader) {
  const std::string texts[] = {
      " 3 2 9\n 4\n 3\n 1\n 3\n 5\n 5\n 4\n 2\n 4\n 6\n",
      " 3 2 9\n 4 3 1 3 5 5 4 2 4 6\n",
      " 3,2,9\n 4 3 1 3 5 5 4\n 2 4 6 99 99\n",
  };
  for (const auto& t : texts) {
    zt::writefile("g.txt", t);
    int ndim = 0, nzones = 0, ngridaux = 0;
    farray<int, 1> nptsz, ncellsz;
    readzelmgridheader("g.txt", formatted, ndim, nzones, ngridaux, nptsz, ncellsz);
    EXPECT_EQ(zt::services().readerrors, 0) << t;
    EXPECT_EQ(ndim, 3);
    EXPECT_EQ(ngridaux, 9);
    ASSERT_EQ(nzones, 2);
    EXPECT_EQ(nptsz(1), 4);
    EXPECT_EQ(ncellsz(1), 1);
    EXPECT_EQ(nptsz(2), 5);
    EXPECT_EQ(ncellsz(2), 2);
  }
}

// ---- reader -------------------------------------------------------------------------------------

// Progress of a whole read: each zone's points, then its connectivity.
TEST_F(gridfiles, ReaderProgressLines) {
  zt::makegrid(2).write("g.dat", unformatted, 0);
  zt::grid r;
  const std::string out = zt::capturestdout([&] { r.read("g.dat", unformatted, 0); });
  EXPECT_EQ(out,
            " Reading Grid Points in Zone            1 ...\n"
            " Reading Connectivity Information in Zone            1 ...\n"
            " Reading Grid Points in Zone            2 ...\n"
            " Reading Connectivity Information in Zone            2 ...\n");
}

// Announcements of the reader and the writer (the header reader makes none).
TEST_F(gridfiles, ReaderAndWriterAnnounceThemselves) {
  zt::makegrid(1).write("g.dat", binary, 1);
  zt::grid r;
  r.read("g.dat", binary, 1, 0);
  ASSERT_EQ(zt::services().announced.size(), 2u);
  const auto& w = zt::services().announced[0];
  const auto& rd = zt::services().announced[1];
  EXPECT_EQ(std::tie(w.iop, w.ikind, w.ilevel, w.file, w.filetype, w.dblprec, w.hasivar),
            std::make_tuple(2, 10, 100, std::string("g.dat"), binary, 1, false));
  EXPECT_EQ(std::tie(rd.iop, rd.ikind, rd.ilevel, rd.file, rd.filetype, rd.dblprec, rd.hasivar),
            std::make_tuple(1, 10, 100, std::string("g.dat"), binary, 1, false));
}

// A face without nodes: its record holds the count and the two cells only.
TEST_F(gridfiles, AFaceWithNoNodesHoldsItsCountAndCellsOnly) {
  zt::grid g = zt::makegrid(1);
  g.npf(2) = 0;
  g.ifcell(1, 2) = 41;
  g.ifcell(2, 2) = 42;
  g.write("g.dat", unformatted, 0);
  const std::string b = zt::readfile("g.dat");
  // Header 20 bytes, counts 28, 4 nodes of 20, face 1 with 3 nodes: 32. Face 2 follows.
  const std::size_t at = 20 + 28 + 4 * 20 + 32;
  EXPECT_EQ(b.substr(at, 20), bytes().record(bytes().i4(0).i4(41).i4(42)).b);
  fortran::allocationfill = 0x55;
  zt::grid r;
  r.read("g.dat", unformatted, 0);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  EXPECT_EQ(r.npf(2), 0);
  EXPECT_EQ(r.ifnode(1, 2), 0x55555555);  // nothing stored in the face's column
  EXPECT_EQ(r.ifcell(1, 2), 41);
  EXPECT_EQ(r.ifcell(2, 2), 42);
  EXPECT_EQ(r.npf(3), g.npf(3));
  EXPECT_EQ(r.ifcell(2, 3), g.ifcell(2, 3));
}

// ifnode is as wide as the largest mnpfz over all zones, so a face with more nodes than its own
// zone's mnpfz still fits its column.
TEST_F(gridfiles, AFaceWiderThanItsZoneButNotThanTheWidestZoneFits) {
  const auto g = zt::refgrid(3);  // face 2 of zone 1 (mnpfz 3) has 5 nodes; the widest zone has 5
  ASSERT_EQ(g.npf(2), 5);
  ASSERT_EQ(g.mnpfz(1), 3);
  g.write("g.dat", binary, 0);
  zt::grid r;
  r.read("g.dat", binary, 0);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  ASSERT_EQ(r.ifnode.extent(1), 5);
  for (int m = 1; m <= 5; ++m) EXPECT_EQ(r.ifnode(m, 2), 1020 + m);
  EXPECT_EQ(r.ifcell(1, 2), 2);
  EXPECT_EQ(r.npf(3), 4);
}

// A face with more nodes than the widest zone's mnpfz would be stored past its column; the routine
// checks no count, and the encoding layer stops the read there rather than write outside ifnode.
TEST_F(gridfiles, AFaceWiderThanEveryZoneEndsTheReadInsteadOfOverflowing) {
  zt::grid g = zt::makegrid(1);  // mnpfz 3
  g.write("g.dat", unformatted, 0);
  std::string b = zt::readfile("g.dat");
  // Face 1 (3 nodes, record at 128): claim 4 nodes with a record that holds them.
  const std::size_t at = 20 + 28 + 4 * 20;
  b.replace(at, 32, bytes().record(bytes().i4(4).i4(1).i4(2).i4(3).i4(4).i4(5).i4(6)).b.substr(0, 32));
  b.insert(at + 32, std::string(4, '\0'));
  std::int32_t len = 28;
  std::memcpy(&b[at], &len, 4);
  std::memcpy(&b[at + 32], &len, 4);
  zt::writefile("g.dat", b);
  zt::grid r;
  r.read("g.dat", unformatted, 0);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("(zone 1 face 1)"), std::string::npos)
      << zt::services().lastdetail;
  EXPECT_NE(zt::services().lastdetail.find("a count of 4 items exceeds the 3 that the array holds"),
            std::string::npos)
      << zt::services().lastdetail;
  EXPECT_EQ(r.npf(1), 4);
}

// ---- writer -------------------------------------------------------------------------------------

// No zones: the header and an empty zone-count record, and no progress line, in every encoding.
TEST_F(gridfiles, WriterWithNoZonesWritesTheHeaderAndAnEmptyCountRecord) {
  zt::grid g = zt::makegrid(0);
  for (int filetype : {unformatted, binary, formatted}) {
    const std::string out = zt::capturestdout([&] { g.write("g.dat", filetype, 1); });
    EXPECT_EQ(out, "");
    const std::string expect = filetype == unformatted
                                   ? bytes().record(bytes().i4(3).i4(0).i4(77)).i4(0).i4(0).b
                               : filetype == binary ? bytes().i4(3).i4(0).i4(77).b
                                                    : "           3           0          77\n\n";
    EXPECT_EQ(zt::readfile("g.dat"), expect) << filetype;
  }
}

// dblprec has no effect on a formatted file: the same characters either way.
TEST_F(gridfiles, WriterIgnoresThePrecisionFlagForFormattedFiles) {
  const auto g = zt::refgrid(2);
  g.write("r4.txt", formatted, 0);
  g.write("r8.txt", formatted, 1);
  const std::string r4 = zt::readfile("r4.txt");
  EXPECT_EQ(r4, zt::readfile("r8.txt"));
  EXPECT_NE(r4.find("   1.43333328    "), std::string::npos);  // 9 digits of the 4-byte real, fixed form
}

// The writer leaves unit 4 connected in every encoding; the caller closes it.
TEST_F(gridfiles, WriterLeavesUnitFourConnectedInEveryEncoding) {
  const auto g = zt::makegrid(1);
  for (int filetype : {unformatted, formatted, binary}) {
    writezelmgrid("g.dat", filetype, 0, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz, g.ncellsz,
                  g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
    EXPECT_TRUE(io::isconnected(4)) << filetype;
    EXPECT_EQ(io::getunit(4).file(), "g.dat");
    io::close(4);
  }
}

// An unknown code writes nothing and opens nothing, after the announcement.
TEST_F(gridfiles, WriterWithAnUnknownCodeWritesNothing) {
  const auto g = zt::makegrid(1);
  const std::string out = zt::capturestdout([&] { g.write("g.dat", 5, 0); });
  EXPECT_EQ(out, "");
  EXPECT_FALSE(std::filesystem::exists("g.dat"));
  ASSERT_EQ(zt::services().announced.size(), 1u);
  EXPECT_EQ(zt::services().announced[0].filetype, 5);
}

// ---- file names ---------------------------------------------------------------------------------

// A name of 40 non-blank characters is used in full; a shorter one is padded with blanks that are
// not part of the name.
TEST_F(gridfiles, FileNamesAreFortyCharactersWithoutTheirTrailingBlanks) {
  const std::string full(40, 'n');
  const auto g = zt::makegrid(1);
  g.write(fortran::char40(full), binary, 0);
  EXPECT_TRUE(std::filesystem::exists(full));
  g.write(fortran::char40("short.dat"), binary, 0);
  EXPECT_TRUE(std::filesystem::exists("short.dat"));
  EXPECT_FALSE(std::filesystem::exists("short.dat" + std::string(31, ' ')));
  zt::grid r;
  r.read(fortran::char40(full), binary, 0);
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_EQ(r.nptsz(1), 4);
  EXPECT_EQ(zt::services().announced.back().file, full);
}

// An unknown code returns before the arrays are looked at: arrays that do not match the counts
// do not end the run.
TEST_F(gridfiles, WriterWithAnUnknownCodeIgnoresItsArrays) {
  farray<float, 2> x;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;
  EXPECT_NO_THROW(
      writezelmgrid("g.dat", -1, 1, 3, 4, 0, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, ifcell));
  EXPECT_FALSE(std::filesystem::exists("g.dat"));
  EXPECT_FALSE(io::isconnected(4));
  EXPECT_EQ(zt::services().announced.size(), 1u);
  // With a valid code the same arrays end the run instead of being read outside their storage.
  EXPECT_THROW(writezelmgrid("g.dat", binary, 0, 3, 4, 0, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf,
                             ifnode, ifcell),
               zt::iofailure);
}

// An output array passed already allocated makes its allocation fail (status 1, reported); when
// it is too small for the file's counts, the read stops there as a failed read naming the record
// that would have overflowed it.
TEST_F(gridfiles, AnArrayPassedAllocatedAndTooSmallStopsTheReadAtItsRecord) {
  zt::makegrid(2).write("g.dat", unformatted, 0);
  zt::grid r;
  r.x.allocate(3, 2);
  r.read("g.dat", unformatted, 0);
  EXPECT_EQ(zt::services().allocstatuses, (std::vector<int>{0, 0, fortran::stat_already_allocated}));
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_EQ(zt::services().lastdetail,
            "\"g.dat\" (unformatted, unit 13), record 3 (zone 1 node 1) at byte 68: zone 1's 4 nodes do not "
            "fit the "
            "coordinate array");
  EXPECT_EQ(r.x.extent(2), 2);
}

// The same one-face grid in the other two encodings, character for character and byte for byte.
TEST_F(gridfiles, FormattedAndBinaryBytesOfAOneFaceGrid) {
  zt::grid g;
  g.ndim = 2, g.nzones = 1, g.ngridaux = 5;
  for (auto* a : {&g.nptsz, &g.nfacesz, &g.ncellsz, &g.mnpfz, &g.mfpcz}) a->allocate(1);
  g.nptsz(1) = 2, g.nfacesz(1) = 1, g.ncellsz(1) = 1, g.mnpfz(1) = 2, g.mfpcz(1) = 3;
  g.x.allocate(2, 2);
  g.x(1, 1) = 0.5f, g.x(2, 1) = 1.5f, g.x(1, 2) = -2.5e-7f, g.x(2, 2) = 3.5e12f;
  g.npf.allocate(1);
  g.ifnode.allocate(2, 1);
  g.ifcell.allocate(2, 1);
  g.npf(1) = 2, g.ifnode(1, 1) = 1, g.ifnode(2, 1) = 2, g.ifcell(1, 1) = 1, g.ifcell(2, 1) = -1;
  g.write("g.txt", formatted, 0);
  // Nine significant digits of the 4-byte values, as gfortran writes them: fixed form from 0.1 up,
  // exponent form for -2.5e-7f (-2.49999999e-7) and 3.5e12f (3.49999989e12).
  EXPECT_EQ(zt::readfile("g.txt"),
            "           2           1           5\n"
            "           2           1           1           2           3\n"
            "  0.500000000       1.50000000    \n"
            "  -2.49999999E-07   3.49999989E+12\n"
            "           2           1           2           1          -1\n");
  g.write("g.dat", binary, 0);
  EXPECT_EQ(zt::readfile("g.dat"), bytes()
                                       .i4(2)
                                       .i4(1)
                                       .i4(5)
                                       .i4(2)
                                       .i4(1)
                                       .i4(1)
                                       .i4(2)
                                       .i4(3)
                                       .r4(0.5f)
                                       .r4(1.5f)
                                       .r4(-2.5e-7f)
                                       .r4(3.5e12f)
                                       .i4(2)
                                       .i4(1)
                                       .i4(2)
                                       .i4(1)
                                       .i4(-1)
                                       .b);
  zt::grid r;
  r.read("g.txt", formatted, 0);
  EXPECT_EQ(r.x(1, 2), -2.5e-7f);
  EXPECT_EQ(r.x(2, 2), 3.5e12f);
}
