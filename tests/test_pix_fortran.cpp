// Pix files against an independent reference: a gfortran program that writes and reads them with
// the Fortran runtime's own statements (tests/fortran/pixref.f90).
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "pixfixtures.hpp"
#include "records.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::farray;
using fortran::index_t;

namespace {

struct layout {
  int nfree;
  std::vector<int> nptsz;
};

// Zone layouts: one, two and three zones, with and without free variables, and zones large
// enough that a list-directed record of ours runs over several lines.
const std::vector<layout> layouts = {{0, {5}},       {2, {5}},       {0, {5, 3}},      {2, {5, 3}},
                                     {0, {4, 3, 5}}, {2, {4, 3, 5}}, {3, {40, 17, 23}}};

farray<int, 1> countsof(const layout& l) {
  farray<int, 1> a;
  a.allocate(static_cast<index_t>(l.nptsz.size()));
  for (std::size_t i = 0; i < l.nptsz.size(); ++i) a(static_cast<index_t>(i + 1)) = l.nptsz[i];
  return a;
}

std::string zonesargs(const layout& l) {
  std::string s = std::to_string(l.nptsz.size());
  for (int n : l.nptsz) s += " " + std::to_string(n);
  return s;
}

std::string text25(const std::string& s) {
  return std::string(fortran::char25(s).view());
}

// Runs the reference program; returns its standard output and sets `status` to its exit status.
std::string runreference(const std::string& args, int& status) {
  const std::string cmd = std::string(ZELM_FORTRAN_DIR) + "/fortran_pixref " + args + " 2>&1";
  std::FILE* p = ::popen(cmd.c_str(), "r");
  if (p == nullptr) {
    status = -1;
    return {};
  }
  std::string out;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  const int st = ::pclose(p);
  status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return out;
}

// What the reference prints when it reads a file of the test data (zt::pixvalue, zt::pixheader).
std::vector<std::string> expectedreport(bool text, bool wide, const layout& l) {
  const zt::pixheader h;
  const auto nptsz = countsof(l);
  const int nzones = static_cast<int>(l.nptsz.size());
  std::vector<std::string> r;
  for (int i = 0; i < 6; ++i)
    r.push_back("H " + (text || wide ? zt::hex(h.values(i)) : zt::hex(static_cast<float>(h.values(i)))));
  r.push_back("S [" + text25(h.string) + "]");
  auto variable = [&](int v) {
    for (int iz = 1; iz <= nzones; ++iz) {
      const index_t start = zt::zonestart(nptsz, iz);
      for (int k = 1; k <= nptsz(iz); ++k) {
        const float x = zt::pixvalue(v, start + k - 1);
        r.push_back("V " + std::to_string(v) + " " + std::to_string(iz) + " " + std::to_string(k) + " " +
                    (wide ? zt::hex(static_cast<double>(x)) : zt::hex(x)));
      }
    }
  };
  for (int v = 1; v <= 6; ++v) variable(v);
  r.push_back("N " + std::to_string(l.nfree));
  for (int k = 1; k <= l.nfree; ++k) r.push_back("L [" + text25(h.label(k)) + "]");
  for (int v = 7; v <= 6 + l.nfree; ++v) variable(v);
  return r;
}

using encparam = std::tuple<int, fortran::logical>;

class pixreference : public zt::zelmtest, public ::testing::WithParamInterface<encparam> {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    if (std::string(ZELM_FORTRAN_DIR).empty()) GTEST_SKIP() << "built without a Fortran compiler";
    io::setstdout(nullptr);  // the readers' progress lines have tests of their own
  }
  int filetype() const { return std::get<0>(GetParam()); }
  fortran::logical dblprec() const { return std::get<1>(GetParam()); }
  bool text() const { return filetype() == formatted; }
  bool wide() const { return !text() && fortran::istrue(dblprec()); }
  std::string common(const std::string& file) const {
    return file + " " + std::to_string(filetype()) + " " + std::to_string(dblprec());
  }
  // Writes `file` with the reference program.
  void referencewrite(const std::string& file, const layout& l) const {
    int status = 0;
    const std::string out =
        runreference("write " + common(file) + " " + std::to_string(l.nfree) + " " + zonesargs(l), status);
    ASSERT_EQ(status, 0) << out;
  }
};

std::string encname(const ::testing::TestParamInfo<encparam>& i) {
  const int ft = std::get<0>(i.param);
  return std::string(ft == unformatted ? "unformatted"
                     : ft == formatted ? "formatted"
                                       : "binary") +
         (std::get<1>(i.param) ? "_r8" : "_r4");
}

}  // namespace

TEST_P(pixreference, FilesWrittenByGfortranAreReadByTheWholeFileReader) {
  const zt::pixheader h;
  fortran::allocationfill = 0x7d;
  for (const layout& l : layouts) {
    SCOPED_TRACE("nfree " + std::to_string(l.nfree) + ", zones " + zonesargs(l));
    zt::services().clear();
    referencewrite("ref.dat", l);
    const auto nptsz = countsof(l);
    const int nzones = static_cast<int>(l.nptsz.size());
    mod_gridvars::readallvars = 1;
    farray<float, 2> p;
    readzelmpixfile("ref.dat", filetype(), dblprec(), nzones, nptsz, p);
    ASSERT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
    EXPECT_EQ(nfree, l.nfree);
    EXPECT_EQ(mod_gridvars::npixvar, 6 + l.nfree);
    const double got[6] = {dvar, dgamma, drgas, dr0, drm0, dp0};
    for (int i = 0; i < 6; ++i) {
      const double want =
          !text() && !wide() ? static_cast<double>(static_cast<float>(h.values(i))) : h.values(i);
      EXPECT_EQ(zt::bits(got[i]), zt::bits(want)) << "header value " << i + 1;
    }
    EXPECT_EQ(mod_zelmgrid::string.view(), text25(h.string));
    for (int k = 1; k <= l.nfree; ++k) EXPECT_EQ(strfree(k).view(), text25(h.label(k)));
    ASSERT_EQ(p.extent(1), 6 + l.nfree);
    ASSERT_EQ(p.extent(2), zt::total(nptsz));
    for (int v = 1; v <= 6 + l.nfree; ++v) {
      const auto cols = zt::expectedcolumns(nptsz, nzones, text() && v >= 7);
      for (index_t c = 1; c <= p.extent(2); ++c) {
        if (!cols[static_cast<std::size_t>(c - 1)]) continue;  // the placement tests check these
        EXPECT_EQ(zt::bits(p(v, c)), zt::bits(zt::pixvalue(v, c))) << "variable " << v << " column " << c;
      }
    }
  }
}

// The one-variable reader, in the encodings where it keeps in step with the file: every
// formatted and 4-byte one, and framed 8-byte files, of whose records it takes 4-byte reals.
class pixreferencenext : public pixreference {};

TEST_P(pixreferencenext, FilesWrittenByGfortranAreReadByTheOneVariableReader) {
  for (const layout& l : layouts) {
    SCOPED_TRACE("nfree " + std::to_string(l.nfree) + ", zones " + zonesargs(l));
    zt::services().clear();
    referencewrite("ref.dat", l);
    const auto nptsz = countsof(l);
    const int nzones = static_cast<int>(l.nptsz.size());
    mod_gridvars::readallvars = 0;
    farray<float, 2> p;
    readzelmpixfile("ref.dat", filetype(), dblprec(), nzones, nptsz, p);
    if (!text()) {  // the caller passes H1 to H3 of a raw file
      fortran::char25 s;
      io::unit& u = io::getunit(13);
      double d[3];
      float f[3];
      for (int r = 0; r < 2; ++r)
        ASSERT_EQ(wide() ? io::rawread(u, io::items(d, 3)) : io::rawread(u, io::items(f, 3)), io::rstat::ok);
      ASSERT_EQ(io::rawread(u, io::text(s)), io::rstat::ok);
    }
    for (int v = 1; v <= 6 + l.nfree; ++v) {
      readnextzelmpixvar(v, "ref.dat", filetype(), dblprec(), nzones, nptsz, p);
      ASSERT_EQ(zt::services().readerrors, 0) << "variable " << v << ": " << zt::services().lastdetail;
      std::vector<std::optional<std::uint32_t>> want(static_cast<std::size_t>(p.extent(2)));
      for (int iz = 1; iz <= nzones; ++iz) {
        const index_t start = zt::zonestart(nptsz, iz);
        std::vector<double> rec;  // the 8-byte record, of which the reader takes 4-byte halves
        for (index_t k = 0; k < nptsz(iz); ++k) rec.push_back(zt::pixvalue(v, start + k));
        for (index_t k = 0; k < nptsz(iz); ++k) {
          float x = zt::pixvalue(v, start + k);
          if (wide()) std::memcpy(&x, reinterpret_cast<const char*>(rec.data()) + 4 * k, 4);
          want[static_cast<std::size_t>(start + k - 1)] = zt::bits(x);
        }
      }
      for (index_t c = 1; c <= p.extent(2); ++c)
        if (want[static_cast<std::size_t>(c - 1)]) {
          EXPECT_EQ(zt::bits(p(1, c)), *want[static_cast<std::size_t>(c - 1)])
              << "variable " << v << " column " << c;
        }
    }
    EXPECT_EQ(nfree, l.nfree);
    io::close(13);
  }
}

TEST_P(pixreference, FilesOfBothWritersAreReadByGfortran) {
  for (const layout& l : layouts) {
    SCOPED_TRACE("nfree " + std::to_string(l.nfree) + ", zones " + zonesargs(l));
    const auto nptsz = countsof(l);
    const int nzones = static_cast<int>(l.nptsz.size());
    const auto src = zt::makepix(6 + l.nfree, zt::total(nptsz));
    zt::pixheader().set(l.nfree);
    writezelmpixfile("whole.dat", filetype(), dblprec(), nzones, nptsz, src);
    for (int v = 1; v <= 6 + l.nfree; ++v) {
      const auto row = zt::onerow(src, v);
      writenextzelmpixvar(v, "next.dat", filetype(), dblprec(), nzones, nptsz, row);
    }
    io::close(14);
    const auto want = expectedreport(text(), wide(), l);
    for (const char* file : {"whole.dat", "next.dat"}) {
      int status = 0;
      const std::string out = runreference("read " + common(file) + " " + zonesargs(l), status);
      EXPECT_EQ(status, 0) << file << ": " << out;
      EXPECT_EQ(zt::lines(out), want) << file;
    }
  }
}

class pixreferenceraw : public pixreference {};

TEST_P(pixreferenceraw, FilesOfEveryEncodingMatchGfortranByteForByte) {
  for (const layout& l : layouts) {
    SCOPED_TRACE("nfree " + std::to_string(l.nfree) + ", zones " + zonesargs(l));
    referencewrite("ref.dat", l);
    const auto nptsz = countsof(l);
    const int nzones = static_cast<int>(l.nptsz.size());
    const auto src = zt::makepix(6 + l.nfree, zt::total(nptsz));
    zt::pixheader().set(l.nfree);
    writezelmpixfile("whole.dat", filetype(), dblprec(), nzones, nptsz, src);
    for (int v = 1; v <= 6 + l.nfree; ++v) {
      const auto row = zt::onerow(src, v);
      writenextzelmpixvar(v, "next.dat", filetype(), dblprec(), nzones, nptsz, row);
    }
    io::close(14);
    const std::string ref = zt::readfile("ref.dat");
    ASSERT_FALSE(ref.empty());
    EXPECT_EQ(zt::readfile("whole.dat"), ref);
    EXPECT_EQ(zt::readfile("next.dat"), ref);
  }
}

INSTANTIATE_TEST_SUITE_P(encodings, pixreference,
                         ::testing::Combine(::testing::Values(unformatted, formatted, binary),
                                            ::testing::Values(fortran::logical{0}, fortran::logical{1})),
                         encname);

INSTANTIATE_TEST_SUITE_P(encodings, pixreferencenext,
                         ::testing::Values(encparam{unformatted, 0}, encparam{unformatted, 1},
                                           encparam{formatted, 0}, encparam{formatted, 1},
                                           encparam{binary, 0}),
                         encname);

INSTANTIATE_TEST_SUITE_P(encodings, pixreferenceraw,
                         ::testing::Combine(::testing::Values(unformatted, formatted, binary),
                                            ::testing::Values(fortran::logical{0}, fortran::logical{1})),
                         encname);
