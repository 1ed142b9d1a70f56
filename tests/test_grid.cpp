// Grid files: header reader, reader and writer.
#include "gridfixtures.hpp"

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
  EXPECT_EQ(zt::lines(out), (std::vector<std::string>{" Reading Grid Points in Zone            1 ...",
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
