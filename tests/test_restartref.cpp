// Restart files against an independent reference: a gfortran program that writes and reads them
// with the compiler's own unformatted sequential, stream and list-directed statements.
#include <sys/wait.h>

#include <cinttypes>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "restartfixtures.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::farray;
using fortran::index_t;

namespace {

const char* encodingname(int filetype) {
  return filetype == unformatted ? "unformatted" : filetype == formatted ? "formatted" : "binary";
}

struct runresult {
  int status = -1;
  std::string out;
};

// Runs the reference program with the given arguments in the current (scratch) directory.
runresult reference(const std::vector<std::string>& args) {
  std::string cmd = std::string(ZELM_FORTRAN_DIR) + "/fortran_restartref";
  for (const auto& a : args) cmd += " '" + a + "'";
  cmd += " 2>&1";
  runresult r;
  std::FILE* p = ::popen(cmd.c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  const int st = ::pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

std::string num(double d) {
  char b[40];
  std::snprintf(b, sizeof b, "%.17g", d);
  return b;
}

std::vector<std::string> countargs(int nzones, const farray<int, 1>& n) {
  std::vector<std::string> a{std::to_string(nzones)};
  for (int z = 1; z <= nzones; ++z) a.push_back(std::to_string(n(z)));
  return a;
}

// fortran_restartref write FILE ENC DBL NUMVAR FORMULA <header> NZONES N1 .. Nk
void fortranwrite(const std::string& file, int filetype, logical dblprec, int nvar, const char* formula,
                  const zt::rheader& h, int nzones, const farray<int, 1>& n) {
  std::vector<std::string> a{"write",
                             file,
                             encodingname(filetype),
                             std::to_string(dblprec ? 1 : 0),
                             std::to_string(nvar),
                             formula,
                             num(h.dtime),
                             std::to_string(h.lastcyc),
                             std::to_string(h.rstype),
                             num(h.dgamma),
                             num(h.drgas),
                             num(h.dr0),
                             num(h.drm0),
                             num(h.dp0)};
  for (auto& s : countargs(nzones, n)) a.push_back(s);
  const runresult r = reference(a);
  ASSERT_EQ(r.status, 0) << r.out;
}

// What the reference read from a file: the header and every value (as 8-byte patterns).
struct fortranread {
  bool ok = false;
  std::string raw;
  std::uint64_t dtime = 0, dgamma = 0, drgas = 0, dr0 = 0, drm0 = 0, dp0 = 0;
  int lastcyc = 0, rstype = 0;
  std::map<std::tuple<int, int, int>, std::uint64_t> values;  // (v, z, i)
};

fortranread fortranreadfile(const std::string& file, int filetype, logical dblprec, int nvar, int nzones,
                            const farray<int, 1>& n) {
  std::vector<std::string> a{"read", file, encodingname(filetype), std::to_string(dblprec ? 1 : 0),
                             std::to_string(nvar)};
  for (auto& s : countargs(nzones, n)) a.push_back(s);
  const runresult r = reference(a);
  fortranread f;
  f.raw = r.out;
  std::istringstream in(r.out);
  std::string tag;
  while (in >> tag) {
    if (tag == "H1") {
      in >> f.dtime >> f.lastcyc >> f.rstype;
    } else if (tag == "H2") {
      in >> f.dgamma >> f.drgas;
    } else if (tag == "H3") {
      in >> f.dr0 >> f.drm0 >> f.dp0;
    } else if (tag == "V") {
      int v, z, i;
      std::int64_t b;
      in >> v >> z >> i >> b;
      f.values[{v, z, i}] = static_cast<std::uint64_t>(b);
    } else if (tag == "END") {
      f.ok = r.status == 0;
    } else {
      break;
    }
  }
  return f;
}

std::uint64_t bits8(double d) {
  std::uint64_t b;
  std::memcpy(&b, &d, 8);
  return b;
}

// The reference's "cell" formula: value i of zone z of variable v.
double cellvalue(int v, int z, int i) {
  const double sign = (v + z + i) % 2 ? -1.0 : 1.0;
  return sign * static_cast<double>(1000 * v + 100 * z + i) / 7.0;
}

// The reference's "pos" formula: the value at position p of row v (exact as a 4-byte real).
float posvalue(int v, index_t p) {
  const double sign = (v + p) % 2 ? -1.0 : 1.0;
  return static_cast<float>(sign * static_cast<double>(10000 * v + p) / 8.0);
}

struct zoneconfig {
  int nzones;
  std::initializer_list<int> cells;
  const char* name;
};
// Three zones of unequal size; four with an empty zone and a position that no zone reaches.
const zoneconfig configs[] = {{3, {4, 2, 3}, "zones423"}, {4, {4, 2, 0, 3}, "zones4203"}};

class reference_test : public zt::zelmtest,
                       public ::testing::WithParamInterface<std::tuple<int, logical, int>> {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    if (std::string(ZELM_FORTRAN_DIR).empty()) GTEST_SKIP() << "no Fortran compiler: no reference program";
    std::tie(filetype, dblprec, cfg) = GetParam();
    nzones = configs[cfg].nzones;
    ncellsz = zt::counts(configs[cfg].cells);
    mod_gridvars::numrstrtvar = nvar;
    io::setstdout(nullptr);
  }
  bool exactheader() const { return filetype == formatted || dblprec; }
  zt::rheader headerback() const {
    return exactheader() ? zt::sampleheader() : zt::narrowed(zt::sampleheader());
  }

  // q(v, p) as the readers must leave it after reading the reference's "cell" file.
  farray<float, 2> expectedfromcells() const {
    farray<float, 2> e;
    e.allocate(nvar, zt::total(ncellsz));
    for (index_t k = 0; k < e.size(); ++k) e.data()[k] = zt::unsetfloat();
    const auto s = zt::zonestarts(ncellsz, nzones);
    for (int v = 1; v <= nvar; ++v)
      for (int z = 1; z <= nzones; ++z)
        for (int i = 1; i <= ncellsz(z); ++i) e(v, s[z - 1] + i - 1) = static_cast<float>(cellvalue(v, z, i));
    return e;
  }

  void expectfortranread(const fortranread& f, const farray<float, 2>& q) const {
    ASSERT_TRUE(f.ok) << f.raw;
    const zt::rheader h = headerback();
    EXPECT_EQ(f.dtime, bits8(h.dtime));
    EXPECT_EQ(f.lastcyc, h.lastcyc);
    EXPECT_EQ(f.rstype, h.rstype);
    EXPECT_EQ(f.dgamma, bits8(h.dgamma));
    EXPECT_EQ(f.drgas, bits8(h.drgas));
    EXPECT_EQ(f.dr0, bits8(h.dr0));
    EXPECT_EQ(f.drm0, bits8(h.drm0));
    EXPECT_EQ(f.dp0, bits8(h.dp0));
    const auto s = zt::zonestarts(ncellsz, nzones);
    std::size_t count = 0;
    for (int v = 1; v <= nvar; ++v)
      for (int z = 1; z <= nzones; ++z)
        for (int i = 1; i <= ncellsz(z); ++i) {
          ++count;
          const auto it = f.values.find({v, z, i});
          ASSERT_NE(it, f.values.end()) << v << " " << z << " " << i;
          EXPECT_EQ(it->second, bits8(q(v, s[z - 1] + i - 1)))
              << "variable " << v << " zone " << z << " cell " << i;
        }
    EXPECT_EQ(f.values.size(), count);
  }

  static constexpr int nvar = 3;
  int filetype = 0, cfg = 0, nzones = 0;
  logical dblprec = 0;
  farray<int, 1> ncellsz;
};

std::string paramname(const ::testing::TestParamInfo<std::tuple<int, logical, int>>& info) {
  return std::string(encodingname(std::get<0>(info.param))) + (std::get<1>(info.param) ? "_r8_" : "_r4_") +
         configs[std::get<2>(info.param)].name;
}

}  // namespace

TEST_P(reference_test, FileWrittenByFortranReadsBackWhole) {
  fortranwrite("f.dat", filetype, dblprec, nvar, "cell", zt::sampleheader(), nzones, ncellsz);
  zt::setheader({});
  fortran::allocationfill = 0x55;
  mod_gridvars::readallvars = 1;
  farray<float, 2> q;
  readzelmrstrtfile("f.dat", filetype, dblprec, nzones, ncellsz, q);
  ASSERT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  zt::expectheader(headerback(), zt::currentheader());
  const auto e = expectedfromcells();
  ASSERT_EQ(q.extent(1), e.extent(1));
  ASSERT_EQ(q.extent(2), e.extent(2));
  for (int v = 1; v <= nvar; ++v)
    for (index_t p = 1; p <= q.extent(2); ++p)
      EXPECT_EQ(zt::bits(q(v, p)), zt::bits(e(v, p))) << "variable " << v << " position " << p;
  EXPECT_FALSE(io::isconnected(15));
}

TEST_P(reference_test, FileWrittenByFortranReadsOneVariableAtATime) {
  fortranwrite("f.dat", filetype, dblprec, nvar, "cell", zt::sampleheader(), nzones, ncellsz);
  fortran::allocationfill = 0x55;
  mod_gridvars::readallvars = 0;
  farray<float, 2> q;
  readzelmrstrtfile("f.dat", filetype, dblprec, nzones, ncellsz, q);
  ASSERT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  zt::expectheader(headerback(), zt::currentheader());
  const auto e = expectedfromcells();
  for (int v = 1; v <= nvar; ++v) {
    readnextzelmrstrtvar(v, "f.dat", filetype, dblprec, nzones, ncellsz, q);
    if (filetype == binary) {  // read list-directed: the one-at-a-time reading does not serve binary files
      EXPECT_EQ(zt::services().readerrors, 1);
      return;
    }
    ASSERT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
    for (index_t p = 1; p <= q.extent(2); ++p)
      EXPECT_EQ(zt::bits(q(1, p)), zt::bits(e(v, p))) << "variable " << v << " position " << p;
  }
}

TEST_P(reference_test, WholeFileWrittenHereIsReadByFortran) {
  zt::setheader(zt::sampleheader());
  const auto q = zt::makeq(nvar, zt::total(ncellsz));
  writezelmrstrtfile("c.dat", filetype, dblprec, nzones, ncellsz, q);
  expectfortranread(fortranreadfile("c.dat", filetype, dblprec, nvar, nzones, ncellsz), q);
}

TEST_P(reference_test, PerVariableFileWrittenHereIsReadByFortran) {
  zt::setheader(zt::sampleheader());
  const auto q = zt::makeq(nvar, zt::total(ncellsz));
  for (int v = 1; v <= nvar; ++v) {
    const auto r = zt::row(q, v);
    writenextzelmrstrtvar(v, "c.dat", filetype, dblprec, nzones, ncellsz, r);
  }
  io::close(16);
  expectfortranread(fortranreadfile("c.dat", filetype, dblprec, nvar, nzones, ncellsz), q);
}

INSTANTIATE_TEST_SUITE_P(encodings, reference_test,
                         ::testing::Combine(::testing::Values(unformatted, formatted, binary),
                                            ::testing::Values(0, 1), ::testing::Values(0, 1)),
                         paramname);

namespace {
class reference_bytes : public reference_test {};
}  // namespace

TEST_P(reference_bytes, BothWritersWriteTheBytesFortranWrites) {
  fortranwrite("f.dat", filetype, dblprec, nvar, "pos", zt::sampleheader(), nzones, ncellsz);
  const std::string want = zt::readfile("f.dat");
  ASSERT_FALSE(want.empty());
  farray<float, 2> q;
  q.allocate(nvar, zt::total(ncellsz));
  for (int v = 1; v <= nvar; ++v)
    for (index_t p = 1; p <= q.extent(2); ++p) q(v, p) = posvalue(v, p);
  zt::setheader(zt::sampleheader());
  writezelmrstrtfile("whole.dat", filetype, dblprec, nzones, ncellsz, q);
  EXPECT_EQ(zt::readfile("whole.dat"), want);
  for (int v = 1; v <= nvar; ++v) {
    const auto r = zt::row(q, v);
    writenextzelmrstrtvar(v, "percall.dat", filetype, dblprec, nzones, ncellsz, r);
  }
  io::close(16);
  EXPECT_EQ(zt::readfile("percall.dat"), want);
}

INSTANTIATE_TEST_SUITE_P(encodings, reference_bytes,
                         ::testing::Combine(::testing::Values(unformatted, formatted, binary),
                                            ::testing::Values(0, 1), ::testing::Values(0, 1)),
                         paramname);

namespace {
class reference_progress : public zt::zelmtest {};
}  // namespace

TEST_F(reference_progress, ProgressLinesMatchFortranListDirectedOutput) {
  if (std::string(ZELM_FORTRAN_DIR).empty()) GTEST_SKIP() << "no Fortran compiler: no reference program";
  const runresult r = reference({"progress", "2", "3"});
  ASSERT_EQ(r.status, 0) << r.out;

  mod_gridvars::numrstrtvar = 2;
  mod_gridvars::readallvars = 1;
  const auto ncellsz = zt::counts({1, 2, 1});
  const auto q = zt::makeq(2, 4);
  farray<float, 2> back;
  const std::string ours = zt::capturestdout([&] {
    writezelmrstrtfile("r.dat", binary, 0, 3, ncellsz, q);
    readzelmrstrtfile("r.dat", binary, 0, 3, ncellsz, back);
  });
  EXPECT_EQ(zt::services().readerrors, 0);
  // The reference prints its reading lines first; ours come in the order write, read.
  const auto theirs = zt::lines(r.out);
  const auto mine = zt::lines(ours);
  ASSERT_EQ(theirs.size(), 12u) << r.out;
  ASSERT_EQ(mine.size(), 12u) << ours;
  for (int k = 0; k < 6; ++k) {
    EXPECT_EQ(mine[k], theirs[6 + k]);
    EXPECT_EQ(mine[6 + k], theirs[k]);
  }
}
