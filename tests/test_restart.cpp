// Restart files: the whole-file and one-variable readers and writers.
#include <string>
#include <tuple>
#include <vector>

#include "records.hpp"
#include "restartfixtures.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::farray;
using fortran::index_t;
using zt::bytes;

namespace {

class restart : public zt::zelmtest {};

const char* encodingname(int filetype) {
  return filetype == unformatted ? "unformatted" : filetype == formatted ? "formatted" : "binary";
}

// Builds files of the raw encodings by hand.
struct rawlayout {
  bool framed;
  bool wide;
  bytes rec(const bytes& payload) const { return framed ? bytes().record(payload) : bytes().then(payload); }
  bytes& real(bytes& b, double v) const { return wide ? b.r8(v) : b.r4(static_cast<float>(v)); }
  bytes header(const zt::rheader& h) const {
    bytes h1, h2, h3;
    real(h1, h.dtime).i4(h.lastcyc).i4(h.rstype);
    real(real(h2, h.dgamma), h.drgas);
    real(real(real(h3, h.dr0), h.drm0), h.dp0);
    return rec(h1).then(rec(h2)).then(rec(h3));
  }
  bytes values(std::initializer_list<float> v) const {
    bytes b;
    for (float x : v) real(b, x);
    return rec(b);
  }
};

const rawlayout framed4{true, false}, framed8{true, true}, stream4{false, false}, stream8{false, true};

// A header that no test writes, to tell values the reader stored from values it left alone.
zt::rheader priorheader() {
  return {-7.5, -70, -71, -72.5, -73.5, -74.5, -75.5, -76.5};
}

void readwhole(const fortran::char40& name, int filetype, logical dblprec, int nzones,
               const farray<int, 1>& ncellsz, farray<float, 2>& q) {
  mod_gridvars::readallvars = 1;
  readzelmrstrtfile(name, filetype, dblprec, nzones, ncellsz, q);
}

void writepercall(const fortran::char40& name, int filetype, logical dblprec, int nzones,
                  const farray<int, 1>& ncellsz, const farray<float, 2>& q) {
  for (int v = 1; v <= q.extent(1); ++v) {
    const auto r = zt::row(q, v);
    writenextzelmrstrtvar(v, name, filetype, dblprec, nzones, ncellsz, r);
  }
  io::close(16);
}

// Row `row` of `got` holds variable v of `want` wherever a zone's record reaches, and the
// allocation fill everywhere else.
void expectrow(const farray<float, 2>& got, int row, const farray<float, 2>& want, int v,
               const farray<int, 1>& ncellsz, int nzones) {
  const auto r = zt::reached(ncellsz, nzones);
  for (index_t p = 1; p <= got.extent(2); ++p) {
    if (r[static_cast<std::size_t>(p)])
      EXPECT_EQ(zt::bits(got(row, p)), zt::bits(want(v, p))) << "variable " << v << " position " << p;
    else
      EXPECT_EQ(zt::bits(got(row, p)), zt::bits(zt::unsetfloat())) << "variable " << v << " position " << p;
  }
}

std::string detail() {
  return zt::services().lastdetail;
}

}  // namespace

// ---- round trips in every encoding and precision, with 1, 2 and 3 zones of unequal size -------

namespace {

struct zonecase {
  int nzones;
  std::initializer_list<int> cells;
};
const zonecase zonecases[] = {{1, {7}}, {2, {3, 5}}, {3, {4, 2, 3}}};

class roundtrip : public zt::zelmtest, public ::testing::WithParamInterface<std::tuple<int, logical, int>> {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    std::tie(filetype, dblprec, zc) = GetParam();
    nzones = zonecases[zc].nzones;
    ncellsz = zt::counts(zonecases[zc].cells);
    mod_gridvars::numrstrtvar = nvar;
    q = zt::makeq(nvar, zt::total(ncellsz));
    zt::setheader(zt::sampleheader());
    io::setstdout(nullptr);  // the progress lines have tests of their own
  }
  // What the header reads back as: narrowed for good when written with 4-byte reals.
  zt::rheader headerback() const {
    return filetype != formatted && !dblprec ? zt::narrowed(zt::sampleheader()) : zt::sampleheader();
  }
  // Reads the file one variable at a time, as a restart of a solver does.
  void readoneatatime() {
    zt::setheader(priorheader());
    fortran::allocationfill = 0x55;
    mod_gridvars::readallvars = 0;
    farray<float, 2> got;
    readzelmrstrtfile("r.dat", filetype, dblprec, nzones, ncellsz, got);
    ASSERT_EQ(zt::services().readerrors, 0) << detail();
    zt::expectheader(headerback(), zt::currentheader());
    ASSERT_EQ(got.extent(1), 1);
    ASSERT_EQ(got.extent(2), zt::total(ncellsz));
    EXPECT_TRUE(io::isconnected(15));
    for (int v = 1; v <= nvar; ++v) {
      readnextzelmrstrtvar(v, "r.dat", filetype, dblprec, nzones, ncellsz, got);
      if (filetype == binary) {
        // The next-variable reader reads list-directed for every code but 0: a binary file fails.
        EXPECT_EQ(zt::services().readerrors, 1);
        EXPECT_NE(detail().find("list-directed"), std::string::npos) << detail();
        for (index_t p = 1; p <= got.extent(2); ++p)
          EXPECT_EQ(zt::bits(got(1, p)), zt::bits(zt::unsetfloat()));
        return;
      }
      ASSERT_EQ(zt::services().readerrors, 0) << detail();
      expectrow(got, 1, q, v, ncellsz, nzones);
    }
    EXPECT_TRUE(io::isconnected(15));  // nothing in the module closes it
  }
  void readall() {
    zt::setheader(priorheader());
    fortran::allocationfill = 0x55;
    farray<float, 2> got;
    readwhole("r.dat", filetype, dblprec, nzones, ncellsz, got);
    ASSERT_EQ(zt::services().readerrors, 0) << detail();
    zt::expectheader(headerback(), zt::currentheader());
    ASSERT_EQ(got.extent(1), nvar);
    ASSERT_EQ(got.extent(2), zt::total(ncellsz));
    for (int v = 1; v <= nvar; ++v) expectrow(got, v, q, v, ncellsz, nzones);
    EXPECT_FALSE(io::isconnected(15));
  }

  static constexpr int nvar = 3;
  int filetype = 0, zc = 0, nzones = 0;
  logical dblprec = 0;
  farray<int, 1> ncellsz;
  farray<float, 2> q;
};

}  // namespace

TEST_P(roundtrip, WholeFileWrittenAndReadWhole) {
  writezelmrstrtfile("r.dat", filetype, dblprec, nzones, ncellsz, q);
  EXPECT_FALSE(io::isconnected(16));
  readall();
}

TEST_P(roundtrip, OneVariablePerCallWrittenAndRead) {
  writepercall("r.dat", filetype, dblprec, nzones, ncellsz, q);
  readoneatatime();
}

TEST_P(roundtrip, WrittenWholeReadOneVariableAtATime) {
  writezelmrstrtfile("r.dat", filetype, dblprec, nzones, ncellsz, q);
  readoneatatime();
}

TEST_P(roundtrip, WrittenOneVariableAtATimeReadWhole) {
  writepercall("r.dat", filetype, dblprec, nzones, ncellsz, q);
  readall();
}

TEST_P(roundtrip, BothWritersWriteTheSameBytes) {
  writezelmrstrtfile("whole.dat", filetype, dblprec, nzones, ncellsz, q);
  writepercall("percall.dat", filetype, dblprec, nzones, ncellsz, q);
  const std::string a = zt::readfile("whole.dat");
  EXPECT_FALSE(a.empty());
  EXPECT_EQ(a, zt::readfile("percall.dat"));
}

INSTANTIATE_TEST_SUITE_P(encodings, roundtrip,
                         ::testing::Combine(::testing::Values(unformatted, formatted, binary),
                                            ::testing::Values(0, 1), ::testing::Values(0, 1, 2)),
                         [](const auto& test) {
                           return std::string(encodingname(std::get<0>(test.param))) +
                                  (std::get<1>(test.param) ? "_r8_" : "_r4_") +
                                  std::to_string(zonecases[std::get<2>(test.param)].nzones) + "zones";
                         });

// ---- exact bytes of each encoding ------------------------------------------------------------

namespace {
class rawbytes : public zt::zelmtest, public ::testing::WithParamInterface<std::tuple<int, logical>> {};
}  // namespace

TEST_P(rawbytes, WriterLaysOutHeaderAndZonesRecordByRecord) {
  const auto [filetype, dblprec] = GetParam();
  const rawlayout l{filetype == unformatted, dblprec != 0};
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({2, 3, 1});
  const auto q = zt::makeq(2, 6);
  io::setstdout(nullptr);
  writezelmrstrtfile("r.dat", filetype, dblprec, 3, ncellsz, q);
  // Zone 1 from position 1 (2 values), zone 2 from position 1 (3), zone 3 after zone 1 (1).
  bytes expect = l.header(dblprec ? zt::sampleheader() : zt::narrowed(zt::sampleheader()));
  for (int v = 1; v <= 2; ++v) {
    expect.then(l.values({q(v, 1), q(v, 2)}));
    expect.then(l.values({q(v, 1), q(v, 2), q(v, 3)}));
    expect.then(l.values({q(v, 3)}));
  }
  EXPECT_EQ(zt::readfile("r.dat"), expect.b);
}

INSTANTIATE_TEST_SUITE_P(encodings, rawbytes,
                         ::testing::Combine(::testing::Values(unformatted, binary), ::testing::Values(0, 1)),
                         [](const auto& test) {
                           return std::string(encodingname(std::get<0>(test.param))) +
                                  (std::get<1>(test.param) ? "_r8" : "_r4");
                         });

TEST_F(restart, FramedBytesWithFourByteRealsSpelledOut) {
  zt::setheader({0.5, 7, -2, 1.5, -2.25, 1e10, 0, 3});
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({1, 2});
  farray<float, 2> q;
  q.allocate(1, 3);
  q(1, 1) = 0.25f, q(1, 2) = -4.0f, q(1, 3) = 8.5f;
  io::setstdout(nullptr);
  writezelmrstrtfile("r.dat", unformatted, 0, 2, ncellsz, q);
  const auto expect = bytes()
                          .record(bytes().r4(0.5f).i4(7).i4(-2))
                          .record(bytes().r4(1.5f).r4(-2.25f))
                          .record(bytes().r4(1e10f).r4(0.0f).r4(3.0f))
                          .record(bytes().r4(0.25f))
                          .record(bytes().r4(0.25f).r4(-4.0f));
  EXPECT_EQ(zt::readfile("r.dat"), expect.b);
  EXPECT_EQ(expect.b.size(), 3u * 8 + 12 + 8 + 12 + 8 + 4 + 8 + 8);
}

TEST_F(restart, FormattedTextOfTheWriter) {
  zt::setheader({0.5, 7, -2, 1.5, -2.25, 1e10, 0, 3});
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({2, 6});
  farray<float, 2> q;
  q.allocate(2, 8);
  for (int p = 1; p <= 8; ++p)
    q(1, p) = static_cast<float>(p) * 0.5f, q(2, p) = static_cast<float>(p) * -1.25f;
  io::setstdout(nullptr);
  writezelmrstrtfile("r.txt", formatted, 1, 2, ncellsz, q);
  // The text gfortran's list-directed output gives the same records: each item after a blank,
  // 8-byte reals in 25 columns, integers in 11 and 4-byte reals in 16, mid-range reals in fixed
  // form; a record stays on one line however long.
  const std::string expect =
      "  0.50000000000000000                7          -2\n"
      "   1.5000000000000000       -2.2500000000000000     \n"
      "   10000000000.000000        0.0000000000000000        3.0000000000000000     \n"
      "  0.500000000       1.00000000    \n"
      "  0.500000000       1.00000000       1.50000000       2.00000000       2.50000000       3.00000000    "
      "\n"
      "  -1.25000000      -2.50000000    \n"
      "  -1.25000000      -2.50000000      -3.75000000      -5.00000000      -6.25000000      -7.50000000    "
      "\n";
  EXPECT_EQ(zt::readfile("r.txt"), expect);
}

// ---- the reader's edge cases ------------------------------------------------------------------

TEST_F(restart, ReaderWithNoZonesReadsNoVariableRecordAndClosesAfterTheHeader) {
  const rawlayout l = framed4;
  zt::writefile("r.dat", l.header(zt::narrowed(zt::sampleheader())).b);  // the header and nothing else
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({3, 5});
  farray<float, 2> q;
  const std::string out = zt::capturestdout([&] { readwhole("r.dat", unformatted, 0, 0, ncellsz, q); });
  EXPECT_EQ(zt::services().readerrors, 0) << detail();
  EXPECT_EQ(out, "");
  ASSERT_TRUE(q.allocated());
  EXPECT_EQ(q.extent(1), 2);
  EXPECT_EQ(q.extent(2), 8);  // every element of ncellsz counts, whatever nzones says
  EXPECT_FALSE(io::isconnected(15));
  zt::expectheader(zt::narrowed(zt::sampleheader()), zt::currentheader());
}

TEST_F(restart, ReaderWithNoVariablesGivesFirstExtentZeroAndClosesAfterTheHeader) {
  const rawlayout l = framed8;
  zt::writefile("r.dat", l.header(zt::sampleheader()).b);
  const auto ncellsz = zt::counts({3, 5});
  for (int nvar : {0, -2}) {
    mod_gridvars::numrstrtvar = nvar;
    farray<float, 2> q;
    const std::string out = zt::capturestdout([&] { readwhole("r.dat", unformatted, 1, 2, ncellsz, q); });
    EXPECT_EQ(zt::services().readerrors, 0) << detail();
    EXPECT_EQ(out, "");
    ASSERT_TRUE(q.allocated());
    EXPECT_EQ(q.extent(1), 0);
    EXPECT_EQ(q.extent(2), 8);
    EXPECT_FALSE(io::isconnected(15));
  }
  zt::expectheader(zt::sampleheader(), zt::currentheader());
}

TEST_F(restart, ReaderWithTwoZonesOfThreeAndFiveCellsFillsOneToFiveAndLeavesSixToEightUnset) {
  const rawlayout l = framed4;
  zt::writefile("r.dat", l.header(zt::sampleheader())
                             .then(l.values({11, 12, 13}))
                             .then(l.values({21, 22, 23, 24, 25}))
                             .then(l.values({31, 32, 33}))
                             .then(l.values({41, 42, 43, 44, 45}))
                             .b);
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({3, 5});
  fortran::allocationfill = 0x55;
  farray<float, 2> q;
  io::setstdout(nullptr);
  readwhole("r.dat", unformatted, 0, 2, ncellsz, q);
  ASSERT_EQ(zt::services().readerrors, 0) << detail();
  const float u = zt::unsetfloat();
  const std::vector<float> row1{21, 22, 23, 24, 25, u, u, u}, row2{41, 42, 43, 44, 45, u, u, u};
  for (int p = 1; p <= 8; ++p) {
    EXPECT_EQ(zt::bits(q(1, p)), zt::bits(row1[p - 1])) << p;
    EXPECT_EQ(zt::bits(q(2, p)), zt::bits(row2[p - 1])) << p;
  }

  // The next-variable reader places them the same way.
  mod_gridvars::readallvars = 0;
  farray<float, 2> one;
  readzelmrstrtfile("r.dat", unformatted, 0, 2, ncellsz, one);
  readnextzelmrstrtvar(1, "r.dat", unformatted, 0, 2, ncellsz, one);
  ASSERT_EQ(zt::services().readerrors, 0) << detail();
  for (int p = 1; p <= 8; ++p) EXPECT_EQ(zt::bits(one(1, p)), zt::bits(row1[p - 1])) << p;
  readnextzelmrstrtvar(2, "r.dat", unformatted, 0, 2, ncellsz, one);
  for (int p = 1; p <= 8; ++p) EXPECT_EQ(zt::bits(one(1, p)), zt::bits(row2[p - 1])) << p;
}

TEST_F(restart, ReaderPlacesFourZonesLeavingAGapWhereNoZoneReaches) {
  // Zones of 5, 2, 1 and 1 cells start at 1, 1, 6 and 8: positions 7 and 9 are never filled.
  const rawlayout l = stream8;
  zt::writefile("r.dat", l.header(zt::sampleheader())
                             .then(l.values({1, 2, 3, 4, 5}))
                             .then(l.values({6, 7}))
                             .then(l.values({8}))
                             .then(l.values({9}))
                             .b);
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({5, 2, 1, 1});
  fortran::allocationfill = 0x55;
  farray<float, 2> q;
  io::setstdout(nullptr);
  readwhole("r.dat", binary, 1, 4, ncellsz, q);
  ASSERT_EQ(zt::services().readerrors, 0) << detail();
  const float u = zt::unsetfloat();
  const std::vector<float> want{6, 7, 3, 4, 5, 8, u, 9, u};
  ASSERT_EQ(q.extent(2), 9);
  for (int p = 1; p <= 9; ++p) EXPECT_EQ(zt::bits(q(1, p)), zt::bits(want[p - 1])) << p;
}

TEST_F(restart, FourByteHeaderReadWithDblprecTrueFailsInTheFirstRecord) {
  const rawlayout l = framed4;
  const zt::rheader h = zt::sampleheader();
  zt::writefile("r.dat", l.header(h).then(l.values({1, 2})).b);
  zt::setheader(priorheader());
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2});
  farray<float, 2> q;
  readwhole("r.dat", unformatted, 1, 1, ncellsz, q);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(detail().find("header record 1"), std::string::npos) << detail();
  EXPECT_FALSE(q.allocated());
  EXPECT_TRUE(io::isconnected(15));
  EXPECT_TRUE(zt::services().allocstatuses.empty());
  // Items are stored as they are read: dtime took the 4-byte dtime and lastcyc, lastcyc took
  // rstype, and rstype found the record empty.
  const std::string b = bytes().r4(static_cast<float>(h.dtime)).i4(h.lastcyc).b;
  EXPECT_EQ(std::memcmp(&mod_zelmgrid::dtime, b.data(), 8), 0);
  EXPECT_EQ(mod_zelmgrid::lastcyc, h.rstype);
  EXPECT_EQ(mod_zelmgrid::rstype, priorheader().rstype);
  EXPECT_EQ(mod_zelmgrid::dgamma, priorheader().dgamma);
}

TEST_F(restart, ReaderWithFiletypeThreeClosesUnitFifteenWithoutOpeningAndAllocatesNothing) {
  io::open(15, "other.dat", "unformatted", "unknown");  // a connection made elsewhere
  zt::setheader(priorheader());
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({3, 5});
  farray<float, 2> q;
  // "r.dat" does not exist: an open with status "old" would end the run.
  const std::string out = zt::capturestdout([&] { readwhole("r.dat", 3, 0, 2, ncellsz, q); });
  EXPECT_FALSE(io::isconnected(15));
  EXPECT_FALSE(q.allocated());
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_TRUE(zt::services().allocstatuses.empty());
  EXPECT_EQ(out, "");
  EXPECT_FALSE(std::filesystem::exists("r.dat"));
  ASSERT_EQ(zt::services().announced.size(), 1u);
  EXPECT_EQ(zt::services().announced[0].filetype, 3);
  zt::expectheader(priorheader(), zt::currentheader());
}

TEST_F(restart, ReaderWithReadallvarsFalseAllocatesOneRowAndStopsOnTheFirstVariable) {
  const rawlayout l = framed4;
  zt::writefile("r.dat", l.header(zt::sampleheader()).then(l.values({1, 2, 3})).then(l.values({4, 5})).b);
  mod_gridvars::numrstrtvar = 2;
  mod_gridvars::readallvars = 0;
  const auto ncellsz = zt::counts({3});
  farray<float, 2> q;
  const std::string out =
      zt::capturestdout([&] { readzelmrstrtfile("r.dat", unformatted, 0, 1, ncellsz, q); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(zt::services().readerrors, 0);
  ASSERT_TRUE(q.allocated());
  EXPECT_EQ(q.extent(1), 1);
  EXPECT_EQ(q.extent(2), 3);
  EXPECT_EQ(zt::services().allocstatuses, std::vector<int>{0});
  EXPECT_TRUE(io::isconnected(15));
  EXPECT_EQ(io::getunit(15).position(), 3 * 8 + 12 + 8 + 12);  // on the first variable record
  readnextzelmrstrtvar(1, "r.dat", unformatted, 0, 1, ncellsz, q);
  EXPECT_EQ(q(1, 1), 1.0f);
  EXPECT_EQ(q(1, 3), 3.0f);
}

TEST_F(restart, AListDirectedRecordOverSeveralLinesIsOneRecordAndALineTailIsDiscarded) {
  zt::writefile("r.txt",
                " 0.5\n 7\n -2 99 99\n"  // H1 over three lines, its last line longer than needed
                " 1.5, -2.25 extra\n"
                " 1e10 0 3D0\n"
                " 1 2\n 3\n"  // V(1, 1) over two lines
                " 2*4.5 9 8 7\n");
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({3});
  farray<float, 2> r;
  io::setstdout(nullptr);
  readwhole("r.txt", formatted, 0, 1, ncellsz, r);
  ASSERT_EQ(zt::services().readerrors, 0) << detail();
  zt::expectheader({0.5, 7, -2, 1.5, -2.25, 1e10, 0, 3}, zt::currentheader());
  EXPECT_EQ(r(1, 1), 1.0f);
  EXPECT_EQ(r(1, 2), 2.0f);
  EXPECT_EQ(r(1, 3), 3.0f);
  EXPECT_EQ(r(2, 1), 4.5f);
  EXPECT_EQ(r(2, 2), 4.5f);
  EXPECT_EQ(r(2, 3), 9.0f);
}

// ---- the writer's edge cases ------------------------------------------------------------------

TEST_F(restart, WriterWithNoZonesWritesOnlyTheHeader) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({3, 5});
  const auto q = zt::makeq(2, 8);
  const std::string out =
      zt::capturestdout([&] { writezelmrstrtfile("r.dat", unformatted, 1, 0, ncellsz, q); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(zt::readfile("r.dat"), framed8.header(zt::sampleheader()).b);
  EXPECT_FALSE(io::isconnected(16));
}

TEST_F(restart, WriterWithNoVariablesWritesTheHeaderAndClosesTheFile) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 0;
  const auto ncellsz = zt::counts({3, 5});
  farray<float, 2> q;
  q.allocate(0, 8);
  const std::string out = zt::capturestdout([&] { writezelmrstrtfile("r.dat", binary, 0, 2, ncellsz, q); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(zt::readfile("r.dat"), stream4.header(zt::narrowed(zt::sampleheader())).b);
  EXPECT_FALSE(io::isconnected(16));
}

TEST_F(restart, EightByteReaderWithNoVariablesLooksAtNoZoneCountsPastTheCallersArray) {
  // With no variables there is nothing to narrow: three zones against a one-element ncellsz read
  // the header and close the file without touching ncellsz(2) or ncellsz(3).
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 0;
  const auto ncellsz = zt::counts({4});
  farray<float, 2> q;
  writezelmrstrtfile("r.dat", unformatted, 1, 1, ncellsz, q);
  zt::setheader(priorheader());
  farray<float, 2> r;
  readwhole("r.dat", unformatted, 1, 3, ncellsz, r);
  EXPECT_EQ(zt::services().readerrors, 0) << detail();
  zt::expectheader(zt::sampleheader(), zt::currentheader());
  EXPECT_EQ(r.extent(1), 0);
  EXPECT_FALSE(io::isconnected(15));
}

TEST_F(restart, HeaderWrittenWithFourByteRealsHoldsDtimeNarrowedAndReadsBackWidenedExactly) {
  for (int filetype : {unformatted, binary}) {
    zt::setheader(zt::sampleheader());
    mod_gridvars::numrstrtvar = 0;
    const auto ncellsz = zt::counts({1});
    farray<float, 2> q;
    writezelmrstrtfile("r.dat", filetype, 0, 1, ncellsz, q);
    const std::string b = zt::readfile("r.dat");
    float ondisk;
    std::memcpy(&ondisk, b.data() + (filetype == unformatted ? 4 : 0), 4);
    EXPECT_EQ(zt::bits(ondisk), zt::bits(static_cast<float>(0.1)));
    zt::setheader(priorheader());
    farray<float, 2> r;
    readwhole("r.dat", filetype, 0, 1, ncellsz, r);
    EXPECT_EQ(mod_zelmgrid::dtime, static_cast<double>(static_cast<float>(0.1)));
    EXPECT_NE(mod_zelmgrid::dtime, 0.1);
    zt::expectheader(zt::narrowed(zt::sampleheader()), zt::currentheader());
  }
}

TEST_F(restart, WriterWithTwoZonesOfThreeAndFiveCellsWritesPositionsOneToFiveForZoneTwo) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({3, 5});
  const auto q = zt::makeq(2, 8);
  io::setstdout(nullptr);
  const rawlayout l = framed4;
  bytes expect = l.header(zt::narrowed(zt::sampleheader()));
  for (int v = 1; v <= 2; ++v) {
    expect.then(l.values({q(v, 1), q(v, 2), q(v, 3)}));
    expect.then(l.values({q(v, 1), q(v, 2), q(v, 3), q(v, 4), q(v, 5)}));  // positions 6 to 8 never go out
  }
  writezelmrstrtfile("whole.dat", unformatted, 0, 2, ncellsz, q);
  EXPECT_EQ(zt::readfile("whole.dat"), expect.b);
  writepercall("percall.dat", unformatted, 0, 2, ncellsz, q);
  EXPECT_EQ(zt::readfile("percall.dat"), expect.b);
}

TEST_F(restart, AnExistingFileIsOverwrittenFromItsStart) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(1, 2);
  io::setstdout(nullptr);
  const std::string old(5000, 'x');
  for (int filetype : {unformatted, formatted, binary}) {
    writezelmrstrtfile("fresh.dat", filetype, 1, 1, ncellsz, q);
    zt::writefile("r.dat", old);
    writezelmrstrtfile("r.dat", filetype, 1, 1, ncellsz, q);
    EXPECT_EQ(zt::readfile("r.dat"), zt::readfile("fresh.dat")) << encodingname(filetype);
    zt::writefile("r.dat", old);
    writepercall("r.dat", filetype, 1, 1, ncellsz, q);
    EXPECT_EQ(zt::readfile("r.dat"), zt::readfile("fresh.dat")) << encodingname(filetype);
  }
}

TEST_F(restart, AZoneWithNoCellsIsAnEmptyFramedRecordReadWithoutDisturbingTheNext) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2, 0, 3});
  const auto q = zt::makeq(1, 5);
  io::setstdout(nullptr);
  writezelmrstrtfile("r.dat", unformatted, 0, 3, ncellsz, q);
  const rawlayout l = framed4;
  // Zone 3 starts after zone 1: positions 3 and 4.
  const bytes expect = l.header(zt::narrowed(zt::sampleheader()))
                           .then(l.values({q(1, 1), q(1, 2)}))
                           .i4(0)
                           .i4(0)
                           .then(l.values({q(1, 3), q(1, 4), q(1, 5)}));
  EXPECT_EQ(zt::readfile("r.dat"), expect.b);
  fortran::allocationfill = 0x55;
  farray<float, 2> r;
  readwhole("r.dat", unformatted, 0, 3, ncellsz, r);
  ASSERT_EQ(zt::services().readerrors, 0) << detail();
  for (int p = 1; p <= 5; ++p) EXPECT_EQ(r(1, p), q(1, p)) << p;
}

TEST_F(restart, AFileNameOfFortyCharactersIsUsedInFull) {
  const std::string name(40, 'n');
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 0;
  const auto ncellsz = zt::counts({1});
  farray<float, 2> q;
  writezelmrstrtfile(fortran::char40(name), formatted, 0, 1, ncellsz, q);
  EXPECT_TRUE(std::filesystem::exists(name));
  writezelmrstrtfile(fortran::char40(name.substr(0, 12) + "   "), formatted, 0, 1, ncellsz, q);
  EXPECT_TRUE(std::filesystem::exists(name.substr(0, 12)));
  EXPECT_EQ(zt::services().announced.back().file, name.substr(0, 12));
}

// ---- the one-variable writer ------------------------------------------------------------------

TEST_F(restart, WritenextForVariableTwoBeforeOneInTheFramedEncodingsEndsTheRunAtTheOpen) {
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(1, 2);
  for (int filetype : {unformatted, binary}) {
    try {
      writenextzelmrstrtvar(2, "r.dat", filetype, 0, 1, ncellsz, q);
      ADD_FAILURE() << "the run should have ended";
    } catch (const zt::iofailure& e) {
      // The saved encoding word is still blank, so the open names no valid form.
      EXPECT_NE(std::string(e.what()).find("invalid form \"\""), std::string::npos) << e.what();
    }
    EXPECT_FALSE(std::filesystem::exists("r.dat"));
    EXPECT_FALSE(io::isconnected(16));
  }
}

TEST_F(restart, WritenextForVariableTwoBeforeOneInTheFramedEncodingsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(1, 2);
  EXPECT_EXIT(
      {
        io::setfailurehandler(nullptr);
        io::setstophandler(nullptr);
        writenextzelmrstrtvar(2, "r.dat", unformatted, 0, 1, ncellsz, q);
      },
      ::testing::ExitedWithCode(2), "cannot open \"r.dat\" on unit 16: invalid form");
}

TEST_F(restart, WritenextForVariableTwoBeforeOneInFormattedWithNothingOnUnitSixteenEndsTheRun) {
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(1, 2);
  try {
    writenextzelmrstrtvar(2, "r.txt", formatted, 0, 1, ncellsz, q);
    ADD_FAILURE() << "the run should have ended";
  } catch (const zt::iofailure& e) {
    EXPECT_EQ(std::string(e.what()), "cannot write to unit 16: it is not connected to a file");
  }
  EXPECT_FALSE(std::filesystem::exists("r.txt"));
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        io::setfailurehandler(nullptr);
        io::setstophandler(nullptr);
        writenextzelmrstrtvar(2, "r.txt", formatted, 0, 1, ncellsz, q);
      },
      ::testing::ExitedWithCode(2), "cannot write to unit 16: it is not connected to a file");
}

TEST_F(restart, WritenextForVariableTwoBeforeOneInFormattedWritesIntoWhatUnitSixteenHolds) {
  io::open(16, "other.txt", "formatted", "unknown");
  io::linewrite(io::getunit(16), "written by someone else");
  const auto ncellsz = zt::counts({2});
  farray<float, 2> q;
  q.allocate(1, 2);
  q(1, 1) = 0.5f, q(1, 2) = 1.0f;
  writenextzelmrstrtvar(2, "r.txt", formatted, 0, 1, ncellsz, q);
  EXPECT_FALSE(std::filesystem::exists("r.txt"));  // no header, no open: the values join other.txt
  io::close(16);
  EXPECT_EQ(zt::readfile("other.txt"), "written by someone else\n  0.500000000       1.00000000    \n");
}

TEST_F(restart, FormattedWritenextOpensOnlyForVariableOne) {
  zt::setheader(zt::sampleheader());
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(2, 2);
  const auto r1 = zt::row(q, 1), r2 = zt::row(q, 2);
  writenextzelmrstrtvar(1, "a.txt", formatted, 0, 1, ncellsz, r1);
  writenextzelmrstrtvar(2, "b.txt", formatted, 0, 1, ncellsz, r2);  // goes on in a.txt
  EXPECT_TRUE(io::isconnected(16));
  io::close(16);
  EXPECT_FALSE(std::filesystem::exists("b.txt"));
  mod_gridvars::numrstrtvar = 2;
  writezelmrstrtfile("whole.txt", formatted, 0, 1, ncellsz, q);
  EXPECT_EQ(zt::readfile("a.txt"), zt::readfile("whole.txt"));
}

TEST_F(restart, FramedWritenextOpensOnEveryCall) {
  // With the unit closed between the calls, the call for variable 2 opens the file again at its
  // start, so its records replace the header and variable 1.
  zt::setheader(zt::sampleheader());
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(2, 2);
  const auto r1 = zt::row(q, 1), r2 = zt::row(q, 2);
  writenextzelmrstrtvar(1, "r.dat", unformatted, 0, 1, ncellsz, r1);
  io::close(16);
  writenextzelmrstrtvar(2, "r.dat", unformatted, 0, 1, ncellsz, r2);
  EXPECT_TRUE(io::isconnected(16));
  io::close(16);
  EXPECT_EQ(zt::readfile("r.dat"), framed4.values({q(2, 1), q(2, 2)}).b);
}

TEST_F(restart, WritenextKeepsTheFormOfItsCallForVariableOneEvenForAnotherFile) {
  zt::setheader(zt::sampleheader());
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(2, 2);
  const auto r1 = zt::row(q, 1), r2 = zt::row(q, 2);
  writenextzelmrstrtvar(1, "a.dat", unformatted, 1, 1, ncellsz, r1);
  writenextzelmrstrtvar(2, "b.dat", binary, 1, 1, ncellsz, r2);  // opened as "unformatted"
  io::close(16);
  EXPECT_EQ(zt::readfile("b.dat"), framed8.values({q(2, 1), q(2, 2)}).b);
  EXPECT_EQ(zt::readfile("a.dat"),
            framed8.header(zt::sampleheader()).then(framed8.values({q(1, 1), q(1, 2)})).b);
}

TEST_F(restart, WritenextWithAnUnknownCodeWritesNothingAndLeavesUnitSixteenWhileTheWriterClosesIt) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(1, 2);
  writenextzelmrstrtvar(1, "r.dat", unformatted, 0, 1, ncellsz, q);
  io::flush(16);
  const std::string before = zt::readfile("r.dat");
  writenextzelmrstrtvar(2, "r.dat", 5, 0, 1, ncellsz, q);
  writenextzelmrstrtvar(1, "s.dat", -1, 0, 1, ncellsz, q);
  EXPECT_TRUE(io::isconnected(16));
  io::flush(16);
  EXPECT_EQ(zt::readfile("r.dat"), before);
  EXPECT_FALSE(std::filesystem::exists("s.dat"));
  const std::string out = zt::capturestdout([&] { writezelmrstrtfile("s.dat", 5, 0, 1, ncellsz, q); });
  EXPECT_EQ(out, "");
  EXPECT_FALSE(io::isconnected(16));
  EXPECT_FALSE(std::filesystem::exists("s.dat"));
  EXPECT_EQ(zt::readfile("r.dat"), before);
  EXPECT_EQ(zt::services().announced.size(), 4u);
}

TEST_F(restart, WriterWritesEveryVariableWhateverReadallvarsSays) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 3;
  mod_gridvars::readallvars = 0;
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(3, 2);
  io::setstdout(nullptr);
  writezelmrstrtfile("r.dat", binary, 0, 1, ncellsz, q);
  const rawlayout l = stream4;
  EXPECT_EQ(zt::readfile("r.dat"), l.header(zt::narrowed(zt::sampleheader()))
                                       .then(l.values({q(1, 1), q(1, 2)}))
                                       .then(l.values({q(2, 1), q(2, 2)}))
                                       .then(l.values({q(3, 1), q(3, 2)}))
                                       .b);
}

// ---- the one-variable reader -------------------------------------------------------------------

TEST_F(restart, ReadnextReadsListDirectedForTheBinaryCodeSoABinaryFileFails) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(2, 2);
  io::setstdout(nullptr);
  writezelmrstrtfile("r.dat", binary, 0, 1, ncellsz, q);
  mod_gridvars::readallvars = 0;
  fortran::allocationfill = 0x55;
  farray<float, 2> r;
  readzelmrstrtfile("r.dat", binary, 0, 1, ncellsz, r);
  ASSERT_EQ(zt::services().readerrors, 0);
  readnextzelmrstrtvar(1, "r.dat", binary, 0, 1, ncellsz, r);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(detail().find("a list-directed read from a file connected as binary"), std::string::npos)
      << detail();
  EXPECT_EQ(zt::bits(r(1, 1)), zt::bits(zt::unsetfloat()));
  EXPECT_TRUE(io::isconnected(15));
}

TEST_F(restart, ReadnextReadsAFormattedFileWhateverNonZeroCodeItIsGiven) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 3;
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(3, 2);
  io::setstdout(nullptr);
  writezelmrstrtfile("r.txt", formatted, 0, 1, ncellsz, q);
  mod_gridvars::readallvars = 0;
  farray<float, 2> r;
  readzelmrstrtfile("r.txt", formatted, 0, 1, ncellsz, r);
  const int codes[] = {binary, 7, formatted};
  for (int v = 1; v <= 3; ++v) {
    readnextzelmrstrtvar(v, "r.txt", codes[v - 1], 1, 1, ncellsz, r);
    ASSERT_EQ(zt::services().readerrors, 0) << detail();
    EXPECT_EQ(r(1, 1), q(v, 1));
    EXPECT_EQ(r(1, 2), q(v, 2));
  }
}

TEST_F(restart, ReadnextWithEightByteRealsNarrowsIntoRowOne) {
  const rawlayout l = framed8;
  const double a = 1.0 / 3.0, b = -2.0 / 7.0, c = 1e300;
  zt::writefile("r.dat", l.header(zt::sampleheader()).then(bytes().record(bytes().r8(a).r8(b).r8(c))).b);
  mod_gridvars::readallvars = 0;
  const auto ncellsz = zt::counts({3});
  farray<float, 2> r;
  readzelmrstrtfile("r.dat", unformatted, 1, 1, ncellsz, r);
  readnextzelmrstrtvar(1, "r.dat", unformatted, 1, 1, ncellsz, r);
  ASSERT_EQ(zt::services().readerrors, 0) << detail();
  EXPECT_EQ(r(1, 1), static_cast<float>(a));
  EXPECT_EQ(r(1, 2), static_cast<float>(b));
  EXPECT_EQ(r(1, 3), INFINITY);  // beyond the 4-byte range
  EXPECT_EQ(zt::services().allocstatuses, (std::vector<int>{0, 0}));
}

// ---- services: announcements, allocations, progress ------------------------------------------

TEST_F(restart, EachRoutineAnnouncesItsFileFirst) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(1, 2);
  io::setstdout(nullptr);
  writezelmrstrtfile("a.dat", unformatted, 1, 1, ncellsz, q);
  writenextzelmrstrtvar(1, "b.dat", binary, 0, 1, ncellsz, q);
  io::close(16);
  mod_gridvars::readallvars = 0;
  farray<float, 2> r;
  readzelmrstrtfile("a.dat", unformatted, 3, 1, ncellsz, r);  // only the lowest bit counts
  readnextzelmrstrtvar(1, "a.dat", unformatted, 3, 1, ncellsz, r);
  ASSERT_EQ(zt::services().readerrors, 0) << detail();
  const auto& a = zt::services().announced;
  ASSERT_EQ(a.size(), 4u);
  const int want[4][7] = {{2, 20, 100, unformatted, 1, 0, 0},
                          {2, 20, 100, binary, 0, 1, 1},
                          {1, 20, 100, unformatted, 3, 0, 0},
                          {1, 20, 100, unformatted, 3, 1, 1}};
  const char* files[4] = {"a.dat", "b.dat", "a.dat", "a.dat"};
  for (int k = 0; k < 4; ++k) {
    EXPECT_EQ(a[k].iop, want[k][0]) << k;
    EXPECT_EQ(a[k].ikind, want[k][1]) << k;
    EXPECT_EQ(a[k].ilevel, want[k][2]) << k;
    EXPECT_EQ(a[k].filetype, want[k][3]) << k;
    EXPECT_EQ(a[k].dblprec, want[k][4]) << k;
    EXPECT_EQ(a[k].hasivar, want[k][5] != 0) << k;
    EXPECT_EQ(a[k].ivar, want[k][6]) << k;
    EXPECT_EQ(a[k].file, files[k]) << k;
  }
  EXPECT_EQ(r(1, 2), q(1, 2));
}

TEST_F(restart, AllocationsAreReportedOncePerGroup) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2});
  const auto q = zt::makeq(1, 2);
  io::setstdout(nullptr);
  auto statuses = [] {
    auto s = zt::services().allocstatuses;
    zt::services().allocstatuses.clear();
    return s;
  };
  writezelmrstrtfile("r4.dat", unformatted, 0, 1, ncellsz, q);
  EXPECT_EQ(statuses(), std::vector<int>{});
  writezelmrstrtfile("r8.dat", unformatted, 1, 1, ncellsz, q);
  EXPECT_EQ(statuses(), std::vector<int>{0});  // the 8-byte copy of q
  writezelmrstrtfile("r8.txt", formatted, 1, 1, ncellsz, q);
  EXPECT_EQ(statuses(), std::vector<int>{});
  writenextzelmrstrtvar(1, "n4.dat", binary, 0, 1, ncellsz, q);
  EXPECT_EQ(statuses(), std::vector<int>{});
  io::close(16);
  writenextzelmrstrtvar(1, "n8.dat", binary, 1, 1, ncellsz, q);
  EXPECT_EQ(statuses(), std::vector<int>{0});
  io::close(16);
  farray<float, 2> a, b, c;
  readwhole("r4.dat", unformatted, 0, 1, ncellsz, a);
  EXPECT_EQ(statuses(), std::vector<int>{0});
  readwhole("r8.dat", unformatted, 1, 1, ncellsz, b);
  EXPECT_EQ(statuses(), (std::vector<int>{0, 0}));  // q, then its 8-byte counterpart
  mod_gridvars::readallvars = 0;
  readzelmrstrtfile("r4.dat", unformatted, 0, 1, ncellsz, c);
  EXPECT_EQ(statuses(), std::vector<int>{0});
  readnextzelmrstrtvar(1, "r4.dat", unformatted, 0, 1, ncellsz, c);
  EXPECT_EQ(statuses(), std::vector<int>{0});  // its work array, whatever the precision
  EXPECT_EQ(zt::services().readerrors, 0) << detail();
}

TEST_F(restart, ProgressLinesOfTheWholeFileRoutinesOnly) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({1, 2, 1});
  const auto q = zt::makeq(2, 4);
  const std::string w =
      zt::capturestdout([&] { writezelmrstrtfile("r.dat", unformatted, 1, 3, ncellsz, q); });
  EXPECT_EQ(zt::lines(w), (std::vector<std::string>{
                              " Writing Variable            1  in Zone            1 ...",
                              " Writing Variable            1  in Zone            2 ...",
                              " Writing Variable            1  in Zone            3 ...",
                              " Writing Variable            2  in Zone            1 ...",
                              " Writing Variable            2  in Zone            2 ...",
                              " Writing Variable            2  in Zone            3 ...",
                          }));
  farray<float, 2> r;
  const std::string rd = zt::capturestdout([&] { readwhole("r.dat", unformatted, 1, 3, ncellsz, r); });
  EXPECT_EQ(zt::lines(rd), (std::vector<std::string>{
                               " Reading Variable            1  in Zone            1 ...",
                               " Reading Variable            1  in Zone            2 ...",
                               " Reading Variable            1  in Zone            3 ...",
                               " Reading Variable            2  in Zone            1 ...",
                               " Reading Variable            2  in Zone            2 ...",
                               " Reading Variable            2  in Zone            3 ...",
                           }));
  const std::string quiet = zt::capturestdout([&] {
    writepercall("n.dat", unformatted, 1, 3, ncellsz, q);
    mod_gridvars::readallvars = 0;
    farray<float, 2> one;
    readzelmrstrtfile("n.dat", unformatted, 1, 3, ncellsz, one);
    readnextzelmrstrtvar(1, "n.dat", unformatted, 1, 3, ncellsz, one);
    readnextzelmrstrtvar(2, "n.dat", unformatted, 1, 3, ncellsz, one);
  });
  EXPECT_EQ(quiet, "");
  EXPECT_EQ(zt::services().readerrors, 0) << detail();
}

TEST_F(restart, ProgressStopsAtTheRecordThatFails) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({2, 2});
  const auto q = zt::makeq(2, 4);
  io::setstdout(nullptr);
  writezelmrstrtfile("r.dat", binary, 0, 2, ncellsz, q);
  const std::string b = zt::readfile("r.dat");
  zt::writefile("r.dat", b.substr(0, b.size() - 12));  // V(2, 1) cut after one value
  io::setstdout(stdout);
  farray<float, 2> r;
  const std::string out = zt::capturestdout([&] { readwhole("r.dat", binary, 0, 2, ncellsz, r); });
  EXPECT_EQ(zt::lines(out), (std::vector<std::string>{
                                " Reading Variable            1  in Zone            1 ...",
                                " Reading Variable            1  in Zone            2 ...",
                                " Reading Variable            2  in Zone            1 ...",
                            }));
  EXPECT_EQ(zt::services().readerrors, 1);
}

// ---- bad input: truncation in every encoding and precision ---------------------------------

namespace {

// A file of 2 variables over zones of 3 and 2 cells, cut inside one of its records.
class truncated : public zt::zelmtest, public ::testing::WithParamInterface<std::tuple<int, logical>> {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    std::tie(filetype, dblprec) = GetParam();
    zt::setheader(zt::sampleheader());
    mod_gridvars::numrstrtvar = 2;
    ncellsz = zt::counts({3, 2});
    q = zt::makeq(2, 5);
    io::setstdout(nullptr);
    writezelmrstrtfile("r.dat", filetype, dblprec, 2, ncellsz, q);
    full = zt::readfile("r.dat");
    io::setstdout(stdout);
    zt::services().clear();
  }

  // Records in file order: H1, H2, H3, V(1,1), V(1,2), V(2,1), V(2,2). Cuts record k just after
  // its first item: in the middle of the second item in the raw encodings, right after the first
  // value's text in "formatted".
  void cutinside(int k) {
    std::size_t at = 0;
    if (filetype == formatted) {
      for (int line = 0; line < k; ++line) at = full.find('\n', at) + 1;
      at += 1 + (k < 3 ? 23 : 15);
    } else {
      const std::size_t r = dblprec ? 8 : 4;
      const std::size_t sizes[7] = {r + 8, 2 * r, 3 * r, 3 * r, 2 * r, 3 * r, 2 * r};
      const std::size_t frame = filetype == unformatted ? 8 : 0;
      for (int j = 0; j < k; ++j) at += sizes[j] + frame;
      at += frame / 2 + r + 2;
    }
    ASSERT_LT(at, full.size());
    zt::writefile("r.dat", full.substr(0, at));
  }

  // Reads the cut file with the module variables set to priorheader(); returns the progress lines.
  std::vector<std::string> readcut() {
    zt::setheader(priorheader());
    fortran::allocationfill = 0x55;
    const std::string out =
        zt::capturestdout([&] { readwhole("r.dat", filetype, dblprec, 2, ncellsz, got); });
    EXPECT_EQ(zt::services().readerrors, 1);
    EXPECT_TRUE(io::isconnected(15));
    return zt::lines(out);
  }

  bool storedasread() const { return filetype == formatted || dblprec; }
  zt::rheader written() const {
    return storedasread() ? zt::sampleheader() : zt::narrowed(zt::sampleheader());
  }

  int filetype = 0;
  logical dblprec = 0;
  farray<int, 1> ncellsz;
  farray<float, 2> q, got;
  std::string full;
};

}  // namespace

TEST_P(truncated, InsideHeaderRecordOne) {
  cutinside(0);
  EXPECT_TRUE(readcut().empty());
  zt::rheader want = priorheader();
  if (storedasread()) want.dtime = written().dtime;  // the one item read before the cut
  zt::expectheader(want, zt::currentheader());
  EXPECT_FALSE(got.allocated());
  EXPECT_TRUE(zt::services().allocstatuses.empty());
  EXPECT_NE(detail().find("header record 1"), std::string::npos) << detail();
}

TEST_P(truncated, InsideHeaderRecordTwo) {
  cutinside(1);
  EXPECT_TRUE(readcut().empty());
  zt::rheader want = priorheader();
  want.lastcyc = written().lastcyc;  // read in place in every encoding
  want.rstype = written().rstype;
  if (storedasread()) want.dtime = written().dtime, want.dgamma = written().dgamma;
  zt::expectheader(want, zt::currentheader());
  EXPECT_FALSE(got.allocated());
  EXPECT_NE(detail().find("header record 2"), std::string::npos) << detail();
}

TEST_P(truncated, InsideHeaderRecordThree) {
  cutinside(2);
  EXPECT_TRUE(readcut().empty());
  zt::rheader want = priorheader();
  want.lastcyc = written().lastcyc;
  want.rstype = written().rstype;
  if (storedasread()) {
    want.dtime = written().dtime, want.dgamma = written().dgamma, want.drgas = written().drgas;
    want.dr0 = written().dr0;
  }
  zt::expectheader(want, zt::currentheader());
  EXPECT_FALSE(got.allocated());
  EXPECT_NE(detail().find("header record 3"), std::string::npos) << detail();
}

TEST_P(truncated, InsideAVariableRecord) {
  cutinside(5);  // V(2, 1), after its first value
  const auto progress = readcut();
  EXPECT_EQ(progress.size(), 3u);
  zt::expectheader(written(), zt::currentheader());
  ASSERT_TRUE(got.allocated());
  ASSERT_EQ(got.extent(1), 2);
  ASSERT_EQ(got.extent(2), 5);
  EXPECT_NE(detail().find("variable 2 zone 1"), std::string::npos) << detail();
  const float u = zt::unsetfloat();
  const bool wide = filetype != formatted && dblprec;
  for (int p = 1; p <= 5; ++p) {
    // 8-byte values are narrowed into q only after the last record: q keeps nothing of them.
    const float row1 = wide || p > 3 ? u : q(1, p);
    const float row2 = wide || p > 1 ? u : q(2, p);
    EXPECT_EQ(zt::bits(got(1, p)), zt::bits(row1)) << p;
    EXPECT_EQ(zt::bits(got(2, p)), zt::bits(row2)) << p;
  }
}

INSTANTIATE_TEST_SUITE_P(encodings, truncated,
                         ::testing::Combine(::testing::Values(unformatted, formatted, binary),
                                            ::testing::Values(0, 1)),
                         [](const auto& test) {
                           return std::string(encodingname(std::get<0>(test.param))) +
                                  (std::get<1>(test.param) ? "_r8" : "_r4");
                         });

// ---- bad input: wrong precision and garbage ---------------------------------------------------

TEST_F(restart, FramedEightByteFileReadWithFourByteRealsTakesTheLowHalvesWithoutAnError) {
  const rawlayout l = framed8;
  const zt::rheader h = zt::sampleheader();
  zt::writefile("r.dat", l.header(h).then(l.values({0.1f, 0.2f})).b);
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2});
  farray<float, 2> q;
  io::setstdout(nullptr);
  readwhole("r.dat", unformatted, 0, 1, ncellsz, q);
  // Each record holds more than the read asks for: the rest is skipped and nothing fails.
  EXPECT_EQ(zt::services().readerrors, 0);
  std::uint64_t b;
  std::memcpy(&b, &h.dtime, 8);
  EXPECT_EQ(mod_zelmgrid::lastcyc, static_cast<std::int32_t>(b >> 32));
  EXPECT_EQ(mod_zelmgrid::rstype, h.lastcyc);
  const double v1 = 0.1f;
  std::memcpy(&b, &v1, 8);
  EXPECT_EQ(zt::bits(q(1, 1)), static_cast<std::uint32_t>(b));
  EXPECT_FALSE(io::isconnected(15));
}

TEST_F(restart, BinaryEightByteFileReadWithFourByteRealsMisplacesEveryValue) {
  const rawlayout l = stream8;
  const zt::rheader h = zt::sampleheader();
  zt::writefile("r.dat", l.header(h).then(l.values({1, 2, 3, 4})).b);
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({4});
  farray<float, 2> q;
  io::setstdout(nullptr);
  readwhole("r.dat", binary, 0, 1, ncellsz, q);
  EXPECT_EQ(zt::services().readerrors, 0);  // fewer bytes read than written: no end of file
  std::uint64_t b;
  std::memcpy(&b, &h.dtime, 8);
  EXPECT_EQ(mod_zelmgrid::lastcyc, static_cast<std::int32_t>(b >> 32));  // dtime's high half
  EXPECT_EQ(mod_zelmgrid::rstype, h.lastcyc);
  // H2 takes rstype and the low half of dgamma, and so on: the values come from the header.
  bool anyright = false;
  for (int p = 1; p <= 4; ++p) anyright = anyright || q(1, p) == static_cast<float>(p);
  EXPECT_FALSE(anyright);
}

TEST_F(restart, BinaryFourByteFileReadWithEightByteRealsRunsOutOfData) {
  const rawlayout l = stream4;
  zt::writefile("r.dat", l.header(zt::sampleheader()).then(l.values({1, 2, 3, 4})).b);
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({4});
  farray<float, 2> q;
  io::setstdout(nullptr);
  readwhole("r.dat", binary, 1, 1, ncellsz, q);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(detail().find("end of file"), std::string::npos) << detail();
  EXPECT_TRUE(io::isconnected(15));
}

TEST_F(restart, GarbageTextInAFormattedHeaderFailsOnce) {
  zt::writefile("r.txt", " 0.5 7 3\n 1.4 2\n 1.25 abc 3\n 1 2\n");
  zt::setheader(priorheader());
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2});
  farray<float, 2> q;
  readwhole("r.txt", formatted, 0, 1, ncellsz, q);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(detail().find("\"abc\""), std::string::npos) << detail();
  EXPECT_EQ(mod_zelmgrid::dr0, 1.25);               // read before the garbage
  EXPECT_EQ(mod_zelmgrid::dp0, priorheader().dp0);  // never reached
  EXPECT_FALSE(q.allocated());
}

TEST_F(restart, GarbageFramedFileFailsOnce) {
  std::string junk;
  for (int i = 0; i < 200; ++i) junk += static_cast<char>((i * 37 + 11) & 0xff);
  zt::writefile("r.dat", junk);
  mod_gridvars::numrstrtvar = 1;
  const auto ncellsz = zt::counts({2});
  farray<float, 2> q;
  readwhole("r.dat", unformatted, 1, 1, ncellsz, q);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_FALSE(q.allocated());
}

TEST_F(restart, GarbageFormattedValuesFailOnceAndKeepEarlierRecords) {
  zt::writefile("r.txt", " 0.5 7 3\n 1.4 2\n 1 2 3\n 1 2\n 3 4\n 5 six\n");
  mod_gridvars::numrstrtvar = 2;
  const auto ncellsz = zt::counts({2, 2});
  farray<float, 2> q;
  io::setstdout(nullptr);
  readwhole("r.txt", formatted, 0, 2, ncellsz, q);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_EQ(q(1, 1), 3.0f);
  EXPECT_EQ(q(1, 2), 4.0f);
  EXPECT_EQ(q(2, 1), 5.0f);
}

TEST_F(restart, BinaryGarbageShorterThanTheHeaderFailsOnce) {
  zt::writefile("r.dat", "12345");
  zt::setheader(priorheader());
  farray<float, 2> q;
  readwhole("r.dat", binary, 0, 1, zt::counts({2}), q);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_EQ(mod_zelmgrid::lastcyc, priorheader().lastcyc);
  EXPECT_FALSE(q.allocated());
}

// ---- counts that do not fit the arrays --------------------------------------------------------

namespace {
// A framed file with 4-byte reals: the sample header, then zones of 3 and 5 values for 2 variables.
void writesample35() {
  const rawlayout l = framed4;
  zt::writefile("r.dat", l.header(zt::sampleheader())
                             .then(l.values({1, 2, 3}))
                             .then(l.values({1, 2, 3, 4, 5}))
                             .then(l.values({1, 2, 3}))
                             .then(l.values({1, 2, 3, 4, 5}))
                             .b);
}
}  // namespace

TEST_F(restart, ReaderGivenAnAllocatedQTooSmallReportsAFailedReadInsteadOfStoring) {
  writesample35();
  mod_gridvars::numrstrtvar = 2;
  farray<float, 2> q;
  q.allocate(1, 2);
  io::setstdout(nullptr);
  readwhole("r.dat", unformatted, 0, 2, zt::counts({3, 5}), q);
  EXPECT_EQ(zt::services().allocstatuses, std::vector<int>{fortran::stat_already_allocated});
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(detail().find("do not fit q (1 x 2)"), std::string::npos) << detail();
  EXPECT_EQ(q.extent(1), 1);
  EXPECT_EQ(q.extent(2), 2);
  EXPECT_TRUE(io::isconnected(15));
}

TEST_F(restart, ReaderGivenAnAllocatedQLargeEnoughReadsIntoIt) {
  writesample35();
  mod_gridvars::numrstrtvar = 2;
  farray<float, 2> q;
  q.allocate(2, 9);
  io::setstdout(nullptr);
  readwhole("r.dat", unformatted, 0, 2, zt::counts({3, 5}), q);
  EXPECT_EQ(zt::services().allocstatuses, std::vector<int>{fortran::stat_already_allocated});
  EXPECT_EQ(zt::services().readerrors, 0) << detail();
  EXPECT_EQ(q.extent(2), 9);
  EXPECT_EQ(q(2, 5), 5.0f);
}

TEST_F(restart, EightByteReaderGivenAnAllocatedQTooSmallFailsBeforeStoring) {
  const rawlayout l = stream8;
  zt::writefile("r.dat", l.header(zt::sampleheader()).then(l.values({1, 2, 3})).b);
  mod_gridvars::numrstrtvar = 1;
  farray<float, 2> q;
  q.allocate(1, 1);
  io::setstdout(nullptr);
  readwhole("r.dat", binary, 1, 1, zt::counts({3}), q);
  EXPECT_EQ(zt::services().allocstatuses, (std::vector<int>{fortran::stat_already_allocated, 0}));
  EXPECT_EQ(zt::services().readerrors, 1);
}

TEST_F(restart, ReaderWithMoreZonesThanCountsReportsAFailedRead) {
  writesample35();
  mod_gridvars::numrstrtvar = 2;
  farray<float, 2> q;
  io::setstdout(nullptr);
  readwhole("r.dat", unformatted, 0, 3, zt::counts({3, 5}), q);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(detail().find("fewer than nzones = 3"), std::string::npos) << detail();
  EXPECT_EQ(q(1, 5), 5.0f);  // zones 1 and 2 were read
}

TEST_F(restart, ReaderWithANegativeCountThatOverrunsQReportsAFailedRead) {
  // Counts -2 and 3: ntotal is 1, zone 1 has no values and zone 2 wants positions 1 to 3.
  const rawlayout l = framed4;
  zt::writefile("r.dat", l.header(zt::sampleheader()).then(l.values({})).then(l.values({1, 2, 3})).b);
  mod_gridvars::numrstrtvar = 1;
  farray<float, 2> q;
  io::setstdout(nullptr);
  readwhole("r.dat", unformatted, 0, 2, zt::counts({-2, 3}), q);
  EXPECT_EQ(q.extent(2), 1);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(detail().find("variable 1 of zone 2"), std::string::npos) << detail();
}

TEST_F(restart, ReadnextIntoAnUnallocatedOrSmallQReportsAFailedRead) {
  writesample35();
  mod_gridvars::readallvars = 0;
  const auto ncellsz = zt::counts({3, 5});
  farray<float, 2> q;
  readzelmrstrtfile("r.dat", unformatted, 0, 2, ncellsz, q);
  farray<float, 2> none;
  readnextzelmrstrtvar(1, "r.dat", unformatted, 0, 2, ncellsz, none);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(detail().find("do not fit row 1 of q (0 x 0)"), std::string::npos) << detail();
  farray<float, 2> small;
  small.allocate(1, 4);
  readnextzelmrstrtvar(1, "r.dat", unformatted, 1, 2, ncellsz, small);
  EXPECT_EQ(zt::services().readerrors, 2);
}

TEST_F(restart, ReadnextWithNothingOnUnitFifteenReportsAFailedRead) {
  const auto ncellsz = zt::counts({3});
  farray<float, 2> q;
  q.allocate(1, 3);
  readnextzelmrstrtvar(1, "r.dat", unformatted, 0, 1, ncellsz, q);
  readnextzelmrstrtvar(1, "r.dat", formatted, 0, 1, ncellsz, q);
  EXPECT_EQ(zt::services().readerrors, 2);
  EXPECT_NE(detail().find("not connected"), std::string::npos) << detail();
}

TEST_F(restart, WritersGivenCountsThatDoNotFitTheirArraysEndTheRun) {
  zt::setheader(zt::sampleheader());
  mod_gridvars::numrstrtvar = 2;
  io::setstdout(nullptr);
  const auto ncellsz = zt::counts({3, 5});
  const auto onerow = zt::makeq(1, 8);
  const auto short2 = zt::makeq(2, 4);
  EXPECT_THROW(writezelmrstrtfile("a.dat", unformatted, 0, 2, ncellsz, onerow), zt::iofailure);
  EXPECT_THROW(writezelmrstrtfile("b.dat", binary, 1, 2, ncellsz, short2), zt::iofailure);
  EXPECT_THROW(writezelmrstrtfile("c.dat", formatted, 0, 3, ncellsz, zt::makeq(2, 8)), zt::iofailure);
  EXPECT_THROW(writenextzelmrstrtvar(1, "d.dat", unformatted, 1, 2, ncellsz, short2), zt::iofailure);
  EXPECT_THROW(writenextzelmrstrtvar(1, "e.dat", formatted, 0, 3, ncellsz, onerow), zt::iofailure);
  try {
    farray<float, 2> none;
    writenextzelmrstrtvar(1, "f.dat", binary, 0, 2, ncellsz, none);
    ADD_FAILURE() << "the run should have ended";
  } catch (const zt::iofailure& e) {
    EXPECT_NE(std::string(e.what()).find("writenextzelmrstrtvar: q (0 x 0) does not hold"), std::string::npos)
        << e.what();
  }
  for (const char* f : {"a.dat", "b.dat", "c.dat", "d.dat", "e.dat", "f.dat"})
    EXPECT_FALSE(std::filesystem::exists(f)) << f;
}
