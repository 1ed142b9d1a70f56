// Allocation failures and counts that do not fit: every place where a routine goes on after an
// allocation failed, or meets counts larger than its arrays, ends in a located failed read
// (readers), a run-ending failure (writers) or a left-out reference (Tecplot export) - never in a
// transfer to or from an array that is not allocated or too small. One test per case.
//
// fortran::allocationlimit makes a chosen allocation fail on any machine: the limit is set between
// the sizes of the arrays that must succeed and the one that must fail.
#include <climits>
#include <cstdint>
#include <string>

#include "gridgen.hpp"
#include "tecplot.hpp"
#include "tecplotgrids.hpp"
#include "testsupport.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::char25;
using fortran::char40;
using fortran::farray;
using fortran::index_t;
using zt::bytes;

namespace {

class allocfail : public zt::zelmtest {
 protected:
  void TearDown() override {
    fortran::allocationlimit = SIZE_MAX;
    zt::zelmtest::TearDown();
  }
  const std::string& detail() const { return zt::services().lastdetail; }
  int readerrors() const { return zt::services().readerrors; }
  bool allocationfailed() const { return zt::services().nonzeroallocations() > 0; }
};

bool has(const std::string& s, const std::string& part) {
  return s.find(part) != std::string::npos;
}

// The grid read back by these tests: two quadrilaterals, 6 nodes, 7 faces of 2 nodes, one zone.
zelmgen::grid smallgrid() {
  return zelmgen::quadtri(2, 1, false, 1);
}

void writegrid(const std::string& name, int code, bool wide) {
  auto g = smallgrid();
  writezelmgrid(char40(name), code, wide ? 1 : 0, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz,
                g.ncellsz, g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
  io::close(4);
}

struct gridout {
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<float, 2> x;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;
  void read(const std::string& name, int code, bool wide, bool conn) {
    readzelmgrid(char40(name), code, wide ? 1 : 0, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz,
                 mfpcz, npf, ifnode, ifcell, conn ? 1 : 0);
  }
};

farray<int, 1> counts(std::initializer_list<int> n) {
  farray<int, 1> a;
  (void)a.allocate(static_cast<index_t>(n.size()));
  index_t i = 1;
  for (int v : n) a(i++) = v;
  return a;
}

farray<float, 2> values(int rows, index_t cols) {
  farray<float, 2> a;
  (void)a.allocate(rows, cols);
  for (index_t c = 1; c <= cols; ++c)
    for (int r = 1; r <= rows; ++r) a(r, c) = static_cast<float>(r * 100 + c);
  return a;
}

// Restart file of 2 variables over zones of 3 and 2 cells, written by the library.
void writerestart(const std::string& name, int code, bool wide) {
  mod_gridvars::numrstrtvar = 2;
  const auto n = counts({3, 2});
  const auto q = values(2, 5);
  writezelmrstrtfile(char40(name), code, wide ? 1 : 0, 2, n, q);
}

// Pix file over one zone of 4 nodes with nfree free variables, written by the library.
void writepix(const std::string& name, int code, bool wide, int nfree) {
  mod_gridvars::npixvar = 6 + nfree;
  mod_zelmgrid::nfree = nfree;
  for (int k = 1; k <= nfree && k <= 20; ++k)
    strfree(static_cast<std::size_t>(k)) = char25("label " + std::to_string(k));
  const auto n = counts({4});
  const auto p = values(6 + nfree, 4);
  writezelmpixfile(char40(name), code, wide ? 1 : 0, 1, n, p);
}

// ---- grid header reader -----------------------------------------------------------------------

TEST_F(allocfail, GridHeaderZoneCountArraysNotAllocatedIsAFailedRead) {
  zt::writefile("g.bin", bytes().i4(2).i4(1 << 20).i4(0).b);
  fortran::allocationlimit = 1 << 20;  // 4 MiB per count array is refused
  int ndim = 0, nzones = 0, aux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader(char40("g.bin"), binary, ndim, nzones, aux, nptsz, ncellsz);
  EXPECT_EQ(nzones, 1 << 20);
  EXPECT_TRUE(allocationfailed());
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(),
                  "\"g.bin\" (binary, unit 14), record 2 (zone counts) at byte 12: the zone-count "
                  "arrays for 1048576 zones could not be allocated"))
      << detail();
  EXPECT_FALSE(nptsz.allocated());
}

// ---- grid reader ----------------------------------------------------------------------------

TEST_F(allocfail, GridZoneCountArraysNotAllocatedIsAFailedRead) {
  zt::writefile("g.unf", bytes().record(bytes().i4(2).i4(1 << 20).i4(0)).b);
  fortran::allocationlimit = 1 << 20;
  gridout g;
  g.read("g.unf", unformatted, false, true);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(),
                  "record 2 (zone counts) at byte 20: the zone-count arrays for 1048576 zones could "
                  "not be allocated"))
      << detail();
  EXPECT_FALSE(g.x.allocated());
}

TEST_F(allocfail, GridCoordinateArrayNotAllocatedIsAFailedRead) {
  writegrid("g.unf", unformatted, false);
  fortran::allocationlimit = 40;  // x needs 2 x 6 x 4 = 48 bytes; the count arrays 4 each
  gridout g;
  g.read("g.unf", unformatted, false, false);
  EXPECT_TRUE(allocationfailed());
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(zone 1 node 1) at byte 48: zone 1's 6 nodes do not fit the coordinate array"))
      << detail();
  EXPECT_FALSE(g.x.allocated());
}

TEST_F(allocfail, GridEightByteCoordinatesNotAllocatedIsAFailedRead) {
  writegrid("g.bin", binary, true);
  fortran::allocationlimit = 64;  // the 8-byte temporary needs 96 bytes
  gridout g;
  g.read("g.bin", binary, true, false);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(zone 1 node 1) at byte 32: zone 1's 6 nodes do not fit the coordinate array"))
      << detail();
  EXPECT_FALSE(g.x.allocated());
}

TEST_F(allocfail, GridConnectivityArraysNotAllocatedIsAFailedReadAfterTheNodes) {
  writegrid("g.unf", unformatted, false);
  fortran::allocationlimit = 50;  // npf (28 bytes) and x (48) are allowed, ifnode (2 x 7 x 4 = 56) refused
  gridout g;
  g.read("g.unf", unformatted, false, true);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(zone 1 face 1)")) << detail();
  EXPECT_TRUE(has(detail(), "zone 1's 7 faces do not fit the connectivity arrays")) << detail();
  ASSERT_TRUE(g.x.allocated());  // the nodes were read before the faces
  fortran::allocationlimit = SIZE_MAX;
  auto ref = smallgrid();
  for (index_t i = 0; i < ref.x.size(); ++i) EXPECT_EQ(g.x.data()[i], ref.x.data()[i]);
}

TEST_F(allocfail, GridCoordinateArrayPassedAllocatedTooSmallIsAFailedRead) {
  writegrid("g.txt", formatted, false);
  gridout g;
  (void)g.x.allocate(1, 1);  // the routine's allocation fails (already allocated) and it goes on
  g.x(1, 1) = 7.0f;
  g.read("g.txt", formatted, false, true);
  EXPECT_EQ(zt::services().allocstatuses.back(), fortran::stat_already_allocated);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "\"g.txt\" (formatted, unit 13), line 3 (zone 1 node 1)")) << detail();
  EXPECT_TRUE(has(detail(), "do not fit the coordinate array")) << detail();
  EXPECT_EQ(g.x(1, 1), 7.0f);
}

TEST_F(allocfail, GridFaceArraysPassedAllocatedTooSmallIsAFailedRead) {
  writegrid("g.bin", binary, false);
  gridout g;
  (void)g.ifnode.allocate(2, 3);  // 3 faces of room for 7
  g.read("g.bin", binary, false, true);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(zone 1 face 1)")) << detail();
  EXPECT_TRUE(has(detail(), "do not fit the connectivity arrays")) << detail();
}

TEST_F(allocfail, GridFourByteCopyNotAllocatedKeepsTheCallersCoordinates) {
  writegrid("g.unf", unformatted, true);
  gridout g;
  (void)g.x.allocate(1, 1);  // the copy from the 8-byte temporary cannot be allocated
  g.x(1, 1) = 7.0f;
  g.read("g.unf", unformatted, true, true);
  EXPECT_EQ(readerrors(), 0);  // every record was read
  EXPECT_EQ(zt::services().allocstatuses.back(), fortran::stat_already_allocated);
  EXPECT_EQ(g.x.extent(1), 1);
  EXPECT_EQ(g.x(1, 1), 7.0f);  // nothing was narrowed into an array of the wrong shape
  EXPECT_EQ(g.npf.extent(1), 7);
}

// ---- restart readers -------------------------------------------------------------------------

TEST_F(allocfail, RestartValueArrayNotAllocatedIsAFailedRead) {
  writerestart("r.unf", unformatted, false);
  fortran::allocationlimit = 32;  // q needs 2 x 5 x 4 = 40 bytes
  mod_gridvars::readallvars = 1;
  const auto n = counts({3, 2});
  farray<float, 2> q;
  readzelmrstrtfile(char40("r.unf"), unformatted, 0, 2, n, q);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(),
                  "record 4 (variable 1 zone 1) at byte 56: the 3 values of variable 1 of zone 1 "
                  "from position 1 do not fit q (0 x 0)"))
      << detail();
  EXPECT_EQ(mod_zelmgrid::lastcyc, 0);  // header values were written as zero and read
}

TEST_F(allocfail, RestartEightByteValuesNotAllocatedIsAFailedRead) {
  writerestart("r.bin", binary, true);
  fortran::allocationlimit = 60;  // q (40 bytes) fits, the 8-byte array (80) does not
  mod_gridvars::readallvars = 1;
  const auto n = counts({3, 2});
  farray<float, 2> q;
  readzelmrstrtfile(char40("r.bin"), binary, 1, 2, n, q);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(variable 1 zone 1)")) << detail();
  EXPECT_TRUE(has(detail(), "do not fit q (2 x 5)")) << detail();
  EXPECT_TRUE(q.allocated());
}

TEST_F(allocfail, RestartOneRowNotAllocatedFailsTheNextVariableRead) {
  writerestart("r.txt", formatted, false);
  fortran::allocationlimit = 16;  // one row needs 5 x 4 = 20 bytes
  mod_gridvars::readallvars = 0;
  const auto n = counts({3, 2});
  farray<float, 2> q;
  readzelmrstrtfile(char40("r.txt"), formatted, 0, 2, n, q);
  EXPECT_EQ(readerrors(), 0);
  EXPECT_FALSE(q.allocated());
  readnextzelmrstrtvar(1, char40("r.txt"), formatted, 0, 2, n, q);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "line 4 (variable 1 zone 1)")) << detail();
  EXPECT_TRUE(has(detail(), "do not fit row 1 of q (0 x 0)")) << detail();
}

TEST_F(allocfail, RestartNextEightByteRowNotAllocatedIsAFailedRead) {
  writerestart("r.unf", unformatted, true);
  mod_gridvars::readallvars = 0;
  const auto n = counts({3, 2});
  farray<float, 2> q;
  readzelmrstrtfile(char40("r.unf"), unformatted, 1, 2, n, q);
  ASSERT_TRUE(q.allocated());
  fortran::allocationlimit = 32;  // the 8-byte row needs 40 bytes
  readnextzelmrstrtvar(1, char40("r.unf"), unformatted, 1, 2, n, q);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(variable 1 zone 1)")) << detail();
}

TEST_F(allocfail, RestartCountArrayShorterThanZonesIsAFailedRead) {
  writerestart("r.unf", unformatted, false);
  mod_gridvars::readallvars = 1;
  const auto n = counts({3});  // nzones is 2
  farray<float, 2> q;
  readzelmrstrtfile(char40("r.unf"), unformatted, 0, 2, n, q);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(variable 1 zone 2)")) << detail();
  EXPECT_TRUE(has(detail(), "ncellsz holds 1 zone counts, fewer than nzones = 2")) << detail();
}

// ---- pix readers ------------------------------------------------------------------------------

TEST_F(allocfail, PixValueArrayNotAllocatedIsAFailedRead) {
  writepix("p.unf", unformatted, false, 0);
  fortran::allocationlimit = 64;  // pix needs 6 x 4 x 4 = 96 bytes
  mod_gridvars::readallvars = 1;
  const auto n = counts({4});
  farray<float, 2> pix;
  readzelmpixfile(char40("p.unf"), unformatted, 0, 1, n, pix);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(variable 1 zone 1)")) << detail();
  EXPECT_TRUE(has(detail(), "4 values for node columns 1 .. 4 of row 1 do not fit an unallocated array"))
      << detail();
}

TEST_F(allocfail, PixEightByteValuesNotAllocatedIsAFailedRead) {
  writepix("p.bin", binary, true, 0);
  fortran::allocationlimit = 128;  // pix 96 bytes fits; the 8-byte array, 192, does not
  mod_gridvars::readallvars = 1;
  const auto n = counts({4});
  farray<float, 2> pix;
  readzelmpixfile(char40("p.bin"), binary, 1, 1, n, pix);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(variable 1 zone 1)")) << detail();
  EXPECT_TRUE(has(detail(), "do not fit an unallocated array")) << detail();
  EXPECT_TRUE(pix.allocated());
}

TEST_F(allocfail, PixOneRowNotAllocatedFailsTheNextVariableRead) {
  writepix("p.txt", formatted, false, 0);
  fortran::allocationlimit = 8;  // one row needs 16 bytes
  mod_gridvars::readallvars = 0;
  const auto n = counts({4});
  farray<float, 2> pix;
  readzelmpixfile(char40("p.txt"), formatted, 0, 1, n, pix);
  EXPECT_EQ(readerrors(), 0);
  readnextzelmpixvar(1, char40("p.txt"), formatted, 0, 1, n, pix);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "line 4 (variable 1 zone 1)")) << detail();
  EXPECT_TRUE(has(detail(), "do not fit an unallocated array")) << detail();
}

TEST_F(allocfail, PixNextEightByteWorkRowNotAllocatedIsAFailedRead) {
  writepix("p.unf", unformatted, true, 0);
  mod_gridvars::readallvars = 0;
  const auto n = counts({4});
  farray<float, 2> pix;
  readzelmpixfile(char40("p.unf"), unformatted, 1, 1, n, pix);
  ASSERT_TRUE(pix.allocated());
  fortran::allocationlimit = 8;  // the work row needs 16 bytes
  readnextzelmpixvar(1, char40("p.unf"), unformatted, 1, 1, n, pix);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(variable 1 zone 1)")) << detail();
}

TEST_F(allocfail, PixCountArrayShorterThanZonesIsAFailedRead) {
  writepix("p.unf", unformatted, false, 0);
  mod_gridvars::readallvars = 1;
  const auto n = counts({4});
  farray<float, 2> pix;
  readzelmpixfile(char40("p.unf"), unformatted, 0, 3, n, pix);
  EXPECT_EQ(readerrors(), 1);
  EXPECT_TRUE(has(detail(), "(variable 1 zone 2)")) << detail();
  EXPECT_TRUE(has(detail(), "nptsz holds 1 node counts for 3 zones")) << detail();
}

TEST_F(allocfail, PixMoreThanTwentyFreeVariablesKeepsTwentyLabelsAndEveryValue) {
  writepix("p.unf", unformatted, false, 22);
  mod_zelmgrid::resetstate();
  mod_gridvars::readallvars = 1;
  const auto n = counts({4});
  farray<float, 2> pix;
  readzelmpixfile(char40("p.unf"), unformatted, 0, 1, n, pix);
  EXPECT_EQ(readerrors(), 0) << detail();
  EXPECT_EQ(mod_zelmgrid::nfree, 22);
  EXPECT_EQ(mod_gridvars::npixvar, 28);
  EXPECT_EQ(strfree(20).view(), char25("label 20").view());
  ASSERT_EQ(pix.extent(1), 28);
  EXPECT_EQ(pix(28, 4), 2804.0f);  // the values of variables 21 and 22 are read all the same
}

TEST_F(allocfail, PixWriterWithMoreThanTwentyFreeVariablesWritesBlankLabels) {
  writepix("p.txt", formatted, false, 21);
  const auto lines = zt::lines(zt::readfile("p.txt"));
  // H1, H2, H3, 6 value records, the count, labels 1 .. 21: label 21 is 25 blanks.
  ASSERT_GT(lines.size(), 31u);
  EXPECT_EQ(lines[10], "label 1                  ");
  EXPECT_EQ(lines[30], std::string(25, ' '));
}

// ---- writers ---------------------------------------------------------------------------------

TEST_F(allocfail, GridWriterEightByteCopyNotAllocatedEndsTheRunBeforeOpening) {
  auto g = smallgrid();
  fortran::allocationlimit = 64;  // the copy needs 96 bytes
  try {
    writezelmgrid(char40("g.unf"), unformatted, 1, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz,
                  g.ncellsz, g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
    FAIL() << "the writer went on";
  } catch (const zt::iofailure& e) {
    EXPECT_TRUE(has(e.what(), "writezelmgrid: no memory for the 8-byte copy of x (2 x 6)")) << e.what();
  }
  EXPECT_FALSE(std::filesystem::exists("g.unf"));
}

TEST_F(allocfail, RestartWriterEightByteCopyNotAllocatedEndsTheRun) {
  mod_gridvars::numrstrtvar = 2;
  const auto n = counts({3, 2});
  const auto q = values(2, 5);
  fortran::allocationlimit = 60;  // the copy needs 80 bytes
  try {
    writezelmrstrtfile(char40("r.unf"), unformatted, 1, 2, n, q);
    FAIL() << "the writer went on";
  } catch (const zt::iofailure& e) {
    EXPECT_TRUE(has(e.what(), "writezelmrstrtfile: the 8-byte copy of q could not be allocated")) << e.what();
  }
}

TEST_F(allocfail, RestartNextWriterEightByteCopyNotAllocatedEndsTheRun) {
  const auto n = counts({3, 2});
  const auto q = values(1, 5);
  fortran::allocationlimit = 32;  // the copy of row 1 needs 40 bytes
  try {
    writenextzelmrstrtvar(1, char40("r.unf"), unformatted, 1, 2, n, q);
    FAIL() << "the writer went on";
  } catch (const zt::iofailure& e) {
    EXPECT_TRUE(has(e.what(), "writenextzelmrstrtvar: the 8-byte copy of row 1 of q (0 values)")) << e.what();
  }
}

TEST_F(allocfail, PixWriterEightByteCopyNotAllocatedEndsTheRun) {
  mod_gridvars::npixvar = 6;
  const auto n = counts({4});
  const auto p = values(6, 4);
  fortran::allocationlimit = 128;  // the copy needs 192 bytes
  try {
    writezelmpixfile(char40("p.unf"), unformatted, 1, 1, n, p);
    FAIL() << "the writer went on";
  } catch (const zt::iofailure& e) {
    EXPECT_TRUE(has(e.what(), "writezelmpixfile: no memory for the 8-byte copy of pix")) << e.what();
  }
}

TEST_F(allocfail, PixNextWriterEightByteCopyNotAllocatedEndsTheRun) {
  const auto n = counts({4});
  const auto p = values(1, 4);
  fortran::allocationlimit = 16;  // the copy needs 32 bytes
  try {
    writenextzelmpixvar(1, char40("p.unf"), unformatted, 1, 1, n, p);
    FAIL() << "the writer went on";
  } catch (const zt::iofailure& e) {
    EXPECT_TRUE(has(e.what(), "writenextzelmpixvar: no memory for the 8-byte copy of pix")) << e.what();
  }
}

// ---- Tecplot export ----------------------------------------------------------------------------

TEST_F(allocfail, TecplotWorkArraysNotAllocatedAreLeftOutAndTheExportGoesOn) {
  mod_gridvars::npixvar = 6;
  mod_gridvars::numrstrtvar = 6;
  auto g = tt::build(2, {tt::quadstrip()});
  fortran::allocationlimit = 4;  // every work array of the export is refused
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  g.write(char40("t.plt"));
  ::testing::internal::GetCapturedStdout();
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(allocationfailed());
  EXPECT_TRUE(has(err, "is outside mfpc (0 cells): left out")) << err;
  EXPECT_GT(detail::tecplotleftouts(), 0);
  const auto lines = zt::lines(zt::readfile("t.plt"));
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(has(lines[0], "TITLE")) << lines[0];
}

}  // namespace
