// The bundled mod_gridvars, through the complete library: what it announces, how it reports failed
// reads and allocations, and that it returns so that the routines go on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "zelmgrid/mod_zelmgrid.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;

namespace {

// A one-zone grid: a triangle's three nodes and one of its edges.
struct tinygrid {
  int ndim = 2, nzones = 1, ngridaux = 0;
  farray<float, 2> x;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;

  void make() {
    for (auto* a : {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}) a->allocate(1);
    nptsz(1) = 3, nfacesz(1) = 1, ncellsz(1) = 1, mnpfz(1) = 2, mfpcz(1) = 3;
    x.allocate(2, 3);
    for (int i = 1; i <= 3; ++i) x(1, i) = static_cast<float>(i), x(2, i) = 0.5f * static_cast<float>(i);
    npf.allocate(1);
    ifnode.allocate(2, 1);
    ifcell.allocate(2, 1);
    npf(1) = 2, ifnode(1, 1) = 1, ifnode(2, 1) = 2, ifcell(1, 1) = 1, ifcell(2, 1) = 0;
  }
  void write(const char40& name, int filetype, logical dblprec) {
    writezelmgrid(name, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz,
                  npf, ifnode, ifcell);
    io::close(4);
  }
  void read(const char40& name, int filetype, logical dblprec) {
    readzelmgrid(name, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz,
                 npf, ifnode, ifcell, 1);
  }
};

std::string slurp(std::FILE* f) {
  std::fflush(f);
  std::rewind(f);
  std::string s;
  char buf[512];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) s.append(buf, n);
  return s;
}

class bundled : public ::testing::Test {
 protected:
  void SetUp() override {
    resetstate();
    mod_gridvars::announcements = stdout;
    mod_gridvars::readerrordetail.clear();
    io::setstdout(stdout);
    dir_ = std::filesystem::temp_directory_path() / ("zelmgrid-bundled-" + std::to_string(::getpid()));
    std::filesystem::remove_all(dir_);
    std::filesystem::create_directories(dir_);
    old_ = std::filesystem::current_path();
    std::filesystem::current_path(dir_);
  }
  void TearDown() override {
    resetstate();
    mod_gridvars::announcements = stdout;
    std::filesystem::current_path(old_);
    std::filesystem::remove_all(dir_);
  }
  std::filesystem::path dir_, old_;
};

}  // namespace

// Announcements go to standard output by default, before the routine's progress lines.
TEST_F(bundled, AnnouncesReadsAndWritesOnStandardOutput) {
  tinygrid g;
  g.make();
  ::testing::internal::CaptureStdout();
  g.write("g.dat", binary, 1);
  tinygrid r;
  r.read("g.dat", binary, 1);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(out,
            " Writing grid file \"g.dat\" (binary, 8-byte reals)\n"
            " Writing Grid Points in Zone            1 ...\n"
            " Writing Connectivity in Zone            1 ...\n"
            " Reading grid file \"g.dat\" (binary, 8-byte reals)\n"
            " Reading Grid Points in Zone            1 ...\n"
            " Reading Connectivity Information in Zone            1 ...\n");
  EXPECT_EQ(r.x(2, 3), 1.5f);
}

// Each encoding and precision is named; an unknown code by its number; a variable when given.
TEST_F(bundled, AnnouncementsNameTheKindTheEncodingAndTheVariable) {
  std::FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  mod_gridvars::announcements = f;
  io::setstdout(nullptr);
  tinygrid g;
  g.make();
  g.write("u4.dat", unformatted, 0);
  g.write("u8.dat", unformatted, 1);
  g.write("f.txt", formatted, 1);
  g.write("x.dat", 7, 0);
  const int ivar = 3;
  mod_gridvars::dispreadwrite(1, 20, 100, char40("r.dat"), 0, 1, &ivar);
  mod_gridvars::dispreadwrite(2, 30, 100, char40("p.dat"), 2, 0, &ivar);
  mod_gridvars::dispreadwrite(1, 99, 100, char40("q.dat"), 1, 0);
  EXPECT_EQ(slurp(f),
            " Writing grid file \"u4.dat\" (unformatted, 4-byte reals)\n"
            " Writing grid file \"u8.dat\" (unformatted, 8-byte reals)\n"
            " Writing grid file \"f.txt\" (formatted)\n"
            " Writing grid file \"x.dat\" (unknown encoding code 7)\n"
            " Reading restart file \"r.dat\" (unformatted, 8-byte reals), variable 3\n"
            " Writing pix file \"p.dat\" (binary, 4-byte reals), variable 3\n"
            " Reading data file \"q.dat\" (formatted)\n");
  std::fclose(f);
}

TEST_F(bundled, NoAnnouncementsWhenSilenced) {
  mod_gridvars::announcements = nullptr;
  tinygrid g;
  g.make();
  ::testing::internal::CaptureStdout();
  g.write("g.dat", unformatted, 0);
  EXPECT_EQ(
      ::testing::internal::GetCapturedStdout(),
      " Writing Grid Points in Zone            1 ...\n Writing Connectivity in Zone            1 ...\n");
}

// A failed read: one line on standard error with what the file layer knows; the routine returns.
TEST_F(bundled, AFailedReadIsReportedOnStandardErrorAndTheRoutineReturns) {
  mod_gridvars::announcements = nullptr;
  io::setstdout(nullptr);
  tinygrid g;
  g.make();
  g.write("g.dat", unformatted, 0);
  std::string b;
  {
    std::ifstream in("g.dat", std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    b = ss.str();
  }
  std::ofstream("cut.dat", std::ios::binary) << b.substr(0, b.size() - 6);
  tinygrid r;
  ::testing::internal::CaptureStderr();
  r.read("cut.dat", unformatted, 0);
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      err,
      "zelmgrid: cannot read grid file \"cut.dat\" (unformatted, unit 13), record 6 (zone 1 face 1) at byte "
      "96: the file ends inside a record (truncated file)\n");
  EXPECT_EQ(mod_gridvars::readerrordetail, io::lastreaderror());
  EXPECT_TRUE(io::isconnected(13));
  EXPECT_EQ(r.x(1, 3), 3.0f);  // what was read stays
}

// The header reader announces nothing, so its failures name the file without its kind unless the
// last announcement was about the same file.
TEST_F(bundled, HeaderReaderFailuresNameTheFile) {
  mod_gridvars::announcements = nullptr;
  io::setstdout(nullptr);
  tinygrid g;
  g.make();
  g.write("g.dat", binary, 0);
  std::ofstream("empty.dat").close();
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  ::testing::internal::CaptureStderr();
  readzelmgridheader("empty.dat", binary, ndim, nzones, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "zelmgrid: cannot read \"empty.dat\" (binary, unit 14), record 1 (grid header) at byte 0: end of "
            "file: 0 "
            "bytes left where the statement reads 4\n");
  io::close(14);
  std::ofstream("g.dat", std::ios::binary | std::ios::trunc).close();  // the announced file, emptied
  ::testing::internal::CaptureStderr();
  readzelmgridheader("g.dat", formatted, ndim, nzones, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "zelmgrid: cannot read grid file \"g.dat\" (formatted, unit 14), line 1 (grid header) at byte 0: "
            "end of "
            "file before all values were read\n");
}

// Allocation statuses are reported with their meaning and the file being read or written; status 0
// is silent, and the service returns for every status so that the routine goes on.
TEST_F(bundled, AllocationFailuresAreReportedAndTheRoutineGoesOn) {
  mod_gridvars::announcements = nullptr;
  io::setstdout(nullptr);
  tinygrid g;
  g.make();
  g.write("g.dat", unformatted, 0);
  tinygrid r;
  // Already allocated: its allocation fails with status 1 and the rest of the chain is skipped.
  // Status 1 is a note with the announcements (the export meets it on every call), not an error.
  r.nptsz.allocate(5);
  mod_gridvars::announcements = stdout;
  ::testing::internal::CaptureStderr();
  ::testing::internal::CaptureStdout();
  r.read("g.dat", unformatted, 0);
  const std::string out = ::testing::internal::GetCapturedStdout();
  const std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(
      out.find(" note: allocation status 1 (the array is already allocated and kept) while reading grid file "
               "\"g.dat\"\n"),
      std::string::npos)
      << out;
  EXPECT_EQ(
      err,
      "zelmgrid: cannot read grid file \"g.dat\" (unformatted, unit 13), record 2 (zone counts) at byte 20: "
      "the zone-count arrays for 1 zones could not be allocated\n");
  // The caller's array is large enough, but the chain stopped at it: the counts of the other arrays
  // have nowhere to go, and the read stops there instead of storing outside them.
  EXPECT_EQ(r.nptsz.extent(1), 5);
  EXPECT_FALSE(r.nfacesz.allocated());
  EXPECT_FALSE(r.x.allocated());
  EXPECT_TRUE(io::isconnected(13));

  ::testing::internal::CaptureStderr();
  mod_gridvars::checkallocationerror(0);
  mod_gridvars::checkallocationerror(2);
  mod_gridvars::checkallocationerror(3);
  mod_gridvars::checkallocationerror(-9);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "zelmgrid: allocation status 2 (out of memory) while reading grid file \"g.dat\"\n"
            "zelmgrid: allocation status 3 (the array is not allocated) while reading grid file \"g.dat\"\n"
            "zelmgrid: allocation status -9 (allocation failed) while reading grid file \"g.dat\"\n");
}

TEST_F(bundled, AReadFailureWithoutDetailsStillSaysSo) {
  mod_gridvars::readerrordetail.clear();
  ::testing::internal::CaptureStderr();
  mod_gridvars::dispfilereaderror();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "zelmgrid: cannot read file: read failed\n");
}
