// Grid files against independent readers and writers: gfortran programs that use the compiler's
// own READ and WRITE statements (tests/fortran/gridref.f90, built twice: with the default largest
// sub-record and with 12 bytes), and scipy.io.FortranFile (tests/python/gridcheck.py).
#include <sys/wait.h>

#include <cstdio>

#include "refgrid.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::farray;

namespace {

struct runresult {
  int status = -1;
  std::string out;
};

// Runs a command line and returns its exit status and standard output.
runresult run(const std::string& command) {
  runresult r;
  std::fflush(nullptr);
  std::FILE* p = ::popen(command.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  const int st = ::pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + (WIFSIGNALED(st) ? WTERMSIG(st) : 0);
  return r;
}

std::string fortran(const std::string& program) {
  return std::string(ZELM_FORTRAN_DIR) + "/fortran_" + program;
}

const char* encodingword(int filetype) {
  return filetype == unformatted ? "unformatted" : filetype == binary ? "binary" : "formatted";
}

// The reference program writes the reference grid.
void gfortranwrites(const std::string& program, int filetype, bool wide, int nzones,
                    const std::string& file) {
  const auto r = run(fortran(program) + " write " + encodingword(filetype) + (wide ? " 8 " : " 4 ") +
                     std::to_string(nzones) + " " + file);
  ASSERT_EQ(r.status, 0) << r.out;
}

// The reference program reads a grid file and prints it.
std::string gfortranreads(const std::string& program, int filetype, bool wide, const std::string& file) {
  const auto r = run(fortran(program) + " read " + encodingword(filetype) + (wide ? " 8 " : " 4 ") + file);
  EXPECT_EQ(r.status, 0) << r.out;
  return r.out;
}

class gfortranreference : public zt::zelmtest {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    if (std::string(ZELM_FORTRAN_DIR).empty())
      GTEST_SKIP() << "no Fortran compiler: the reference programs were not built";
    io::setstdout(nullptr);  // the routines' progress lines are tested elsewhere
  }
};

struct rawcase {
  int filetype;
  bool wide;
  int nzones;
};
std::string rawcasename(const ::testing::TestParamInfo<rawcase>& i) {
  return std::string(encodingword(i.param.filetype)) + (i.param.wide ? "8" : "4") + "_zones" +
         std::to_string(i.param.nzones);
}
void PrintTo(const rawcase& c, std::ostream* os) {
  *os << encodingword(c.filetype) << (c.wide ? " r8 " : " r4 ") << c.nzones;
}

class rawbytes : public gfortranreference, public ::testing::WithParamInterface<rawcase> {};
class subrecords : public gfortranreference, public ::testing::WithParamInterface<rawcase> {};

void expectsamegrid(const zt::grid& a, const zt::grid& b) {
  EXPECT_EQ(zt::dump(a, false), zt::dump(b, false));
}

}  // namespace

// The framed and unframed files are identical byte for byte to the layout built here record by
// record and to what gfortran writes for the same grid.
TEST_P(rawbytes, WriterMatchesTheLayoutAndGfortranByteForByte) {
  const auto [filetype, wide, nzones] = GetParam();
  const auto g = zt::refgrid(nzones);
  g.write("ours.dat", filetype, wide);
  gfortranwrites("gridref", filetype, wide, nzones, "gfortran.dat");
  const std::string ours = zt::readfile("ours.dat");
  EXPECT_EQ(ours, zt::gridbytes(g, filetype == unformatted, wide));
  EXPECT_EQ(ours, zt::readfile("gfortran.dat"));
}

// gfortran's files read back as the grid that it wrote, by the reader and the header reader.
TEST_P(rawbytes, ReadersReadGfortransFiles) {
  const auto [filetype, wide, nzones] = GetParam();
  gfortranwrites("gridref", filetype, wide, nzones, "gfortran.dat");
  zt::grid r;
  r.read("gfortran.dat", filetype, wide);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  expectsamegrid(r, zt::refgrid(nzones));
  int ndim = 0, nz = 0, ngridaux = 0;
  farray<int, 1> nptsz, ncellsz;
  readzelmgridheader("gfortran.dat", filetype, ndim, nz, ngridaux, nptsz, ncellsz);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  ASSERT_EQ(nz, nzones);
  EXPECT_EQ(ndim, 3);
  EXPECT_EQ(ngridaux, 77);
  for (int k = 1; k <= nzones; ++k) {
    EXPECT_EQ(nptsz(k), 3 + k);
    EXPECT_EQ(ncellsz(k), k);
  }
}

// gfortran reads the files that the writer wrote and finds the grid that was written.
TEST_P(rawbytes, GfortranReadsOurFiles) {
  const auto [filetype, wide, nzones] = GetParam();
  const auto g = zt::refgrid(nzones);
  g.write("ours.dat", filetype, wide);
  EXPECT_EQ(gfortranreads("gridref", filetype, wide, "ours.dat"), zt::dump(g, wide));
}

// Sub-records of 12 bytes: the records of the grid file are exact multiples of 12 bytes (header,
// 4-byte nodes, 8-byte nodes, which split a real between sub-records, the zone counts of three
// zones, faces of three nodes), longer ones that are not, and the empty zone-count record of a grid
// without zones.
TEST_P(subrecords, MatchGfortranByteForByte) {
  const auto [filetype, wide, nzones] = GetParam();
  io::setmaxsubrecord(12);
  const auto g = zt::refgrid(nzones);
  g.write("ours.dat", filetype, wide);
  gfortranwrites("gridref_sub12", filetype, wide, nzones, "gfortran.dat");
  const std::string ours = zt::readfile("ours.dat");
  EXPECT_EQ(ours, zt::readfile("gfortran.dat"));
  // The header is one sub-record of 12 bytes: not split. The zone counts follow, split when any.
  std::int32_t m[4];
  ASSERT_GE(ours.size(), 28u);
  std::memcpy(m, ours.data(), 4);
  std::memcpy(m + 1, ours.data() + 16, 4);
  std::memcpy(m + 2, ours.data() + 20, 4);
  std::memcpy(m + 3, ours.data() + 24, 4);
  EXPECT_EQ(m[0], 12);
  EXPECT_EQ(m[1], 12);
  if (nzones == 0) {
    EXPECT_EQ(m[2], 0);  // the empty record: two zero length words
    EXPECT_EQ(m[3], 0);
    EXPECT_EQ(ours.size(), 28u);
  } else {
    EXPECT_EQ(m[2], -12);  // 20 bytes a zone: more sub-records follow
  }
  // Both read each other's sub-records.
  zt::grid r;
  r.read("gfortran.dat", filetype, wide);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  expectsamegrid(r, g);
  EXPECT_EQ(gfortranreads("gridref_sub12", filetype, wide, "ours.dat"), zt::dump(g, wide));
}

INSTANTIATE_TEST_SUITE_P(gfortran, rawbytes,
                         ::testing::Values(rawcase{unformatted, false, 3}, rawcase{unformatted, true, 3},
                                           rawcase{binary, false, 3}, rawcase{binary, true, 3},
                                           rawcase{unformatted, false, 0}, rawcase{unformatted, true, 0},
                                           rawcase{binary, false, 0}, rawcase{unformatted, true, 1}),
                         rawcasename);
INSTANTIATE_TEST_SUITE_P(gfortran, subrecords,
                         ::testing::Values(rawcase{unformatted, false, 3}, rawcase{unformatted, true, 3},
                                           rawcase{unformatted, false, 0}, rawcase{unformatted, true, 1}),
                         rawcasename);

// The sub-record layout of a record that is an exact multiple of the largest sub-record: the last
// sub-record has a positive leading and a negative trailing length, as gfortran writes it.
TEST_F(gfortranreference, ExactMultipleOfTheSubrecordLengthAgreesWithTheDocumentedLayout) {
  io::setmaxsubrecord(12);
  const auto g = zt::refgrid(3);  // the zone counts: 60 bytes, five sub-records of 12
  g.write("ours.dat", unformatted, 0);
  const std::string b = zt::readfile("ours.dat");
  std::vector<std::int32_t> markers;
  for (std::size_t at = 20, k = 0; k < 5; ++k, at += 20) {
    std::int32_t lead, trail;
    std::memcpy(&lead, b.data() + at, 4);
    std::memcpy(&trail, b.data() + at + 16, 4);
    markers.push_back(lead);
    markers.push_back(trail);
  }
  EXPECT_EQ(markers, (std::vector<std::int32_t>{-12, 12, -12, -12, -12, -12, -12, -12, 12, -12}));
}

// Formatted files are read both ways, and are the characters gfortran writes: the same bytes for
// one zone. For several, gfortran's reference writes one zone's counts per line where the writer
// puts all zones' counts in one record; a list-directed integer takes the same 12 characters
// wherever it stands, so the files differ only by the line ends between those lines.
TEST_F(gfortranreference, FormattedFilesAreGfortransAndAreReadBothWays) {
  const auto g = zt::refgrid(3);
  gfortranwrites("gridref", formatted, false, 3, "gfortran.txt");  // one line per zone's counts
  zt::grid r;
  r.read("gfortran.txt", formatted, 0);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  expectsamegrid(r, g);

  // The writer puts every zone's counts on one line; gfortran reads them with one
  // statement, as the header reader does.
  g.write("ours.txt", formatted, 0);
  EXPECT_EQ(gfortranreads("gridref", formatted, false, "ours.txt"), zt::dump(g, false));

  std::string theirs = zt::readfile("gfortran.txt");
  std::size_t at = theirs.find('\n');  // the end of the header line
  for (int k = 1; k < 3; ++k) theirs.erase(at = theirs.find('\n', at + 1), 1);
  EXPECT_EQ(zt::readfile("ours.txt"), theirs);

  zt::refgrid(1).write("ours1.txt", formatted, 0);
  gfortranwrites("gridref", formatted, false, 1, "gfortran1.txt");
  const std::string one = zt::readfile("ours1.txt");
  EXPECT_EQ(one, zt::readfile("gfortran1.txt"));
  EXPECT_NE(one.find("   1.43333328    "), std::string::npos);  // a 4-byte real in fixed form
}

// scipy.io.FortranFile reads the framed files of the writer.
class scipyreader : public zt::zelmtest, public ::testing::WithParamInterface<bool> {};

TEST_P(scipyreader, ReadsTheFramedGridFile) {
  const bool wide = GetParam();
  io::setstdout(nullptr);
  const auto g = zt::refgrid(3);
  g.write("ours.dat", unformatted, wide);
  const auto r = run("/usr/bin/python3 " + std::string(ZELM_SOURCE_DIR) +
                     "/tests/python/gridcheck.py ours.dat " + (wide ? "8" : "4"));
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, zt::dump(g, wide));
}

INSTANTIATE_TEST_SUITE_P(precisions, scipyreader, ::testing::Values(false, true),
                         [](const auto& i) { return std::string(i.param ? "r8" : "r4"); });
