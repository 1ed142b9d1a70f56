// Pix files: the whole-file and one-variable readers and writers.
#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "pixfixtures.hpp"
#include "records.hpp"

namespace io = mod_zelmgrid::io;
using namespace mod_zelmgrid;
using fortran::farray;
using fortran::index_t;
using zt::bytes;

namespace {

constexpr int fillbyte = 0x7d;  // allocationfill: tells columns that no read reached

const char* encname(int filetype) {
  return filetype == unformatted ? "unformatted" : filetype == formatted ? "formatted" : "binary";
}

bool raw(int filetype) {
  return filetype != formatted;
}

// ---- files built by the tests ------------------------------------------------------------------

std::string text25(const std::string& s) {
  return std::string(fortran::char25(s).view());
}

// The bytes of a raw pix file in the documented layout: records framed or back to back, reals of
// 4 or 8 bytes, zone iz of each variable taken from the columns that the placement rule gives it.
struct rawbuilder {
  bool framed;
  bool wide;
  bytes f;

  void rec(const bytes& p) {
    if (framed)
      f.record(p);
    else
      f.then(p);
  }
  void real(bytes& b, double v) const {
    if (wide)
      b.r8(v);
    else
      b.r4(static_cast<float>(v));
  }
  void header(const zt::pixheader& h) {
    bytes h1, h2;
    for (int i = 0; i < 3; ++i) real(h1, h.values(i));
    for (int i = 3; i < 6; ++i) real(h2, h.values(i));
    rec(h1);
    rec(h2);
    rec(bytes().text(text25(h.string)));
  }
  void variable(const farray<float, 2>& src, int ivar, int nzones, const farray<int, 1>& nptsz) {
    for (int iz = 1; iz <= nzones; ++iz) {
      bytes p;
      const index_t start = zt::zonestart(nptsz, iz);
      for (index_t k = 0; k < nptsz(iz); ++k) real(p, src(ivar, start + k));
      rec(p);
    }
  }
  void freecount(int n) { rec(bytes().i4(n)); }
  void label(const std::string& s) { rec(bytes().text(text25(s))); }
};

std::string rawfile(bool framed, bool wide, const zt::pixheader& h, int nzones, const farray<int, 1>& nptsz,
                    const farray<float, 2>& src, int nfree, bool withcount) {
  rawbuilder b{framed, wide, {}};
  b.header(h);
  for (int v = 1; v <= 6; ++v) b.variable(src, v, nzones, nptsz);
  if (withcount) b.freecount(nfree);
  for (int k = 1; k <= nfree; ++k) b.label(h.label(k));
  for (int v = 7; v <= 6 + nfree; ++v) b.variable(src, v, nzones, nptsz);
  return b.f.b;
}

// A formatted pix file written in another hand than the writer's: %g numbers, commas here and there.
std::string textfile(const zt::pixheader& h, int nzones, const farray<int, 1>& nptsz,
                     const farray<float, 2>& src, int nfree, bool withcount) {
  std::string t;
  char buf[64];
  auto d = [&](double v) {
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return std::string(buf);
  };
  t += d(h.dvar) + ", " + d(h.dgamma) + " " + d(h.drgas) + "\n";
  t += "   " + d(h.dr0) + " " + d(h.drm0) + ",  " + d(h.dp0) + "\n";
  t += text25(h.string) + "\n";
  // The records of the fixed variables run over several lines, three values a line; those of the
  // free variables keep to one line, since the whole-file reader may read fewer values of them
  // than the record holds and would then take a continuation line for the next record.
  auto variable = [&](int v) {
    for (int iz = 1; iz <= nzones; ++iz) {
      const index_t start = zt::zonestart(nptsz, iz);
      for (index_t k = 0; k < nptsz(iz); ++k) {
        std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(src(v, start + k)));
        t += std::string(v <= 6 && k % 3 == 2 ? "\n" : " ") + buf;
      }
      t += "\n";
    }
  };
  for (int v = 1; v <= 6; ++v) variable(v);
  if (withcount) t += " " + std::to_string(nfree) + "\n";
  for (int k = 1; k <= nfree; ++k) t += text25(h.label(k)) + "\n";
  for (int v = 7; v <= 6 + nfree; ++v) variable(v);
  return t;
}

std::string pixfile(int filetype, bool wide, const zt::pixheader& h, int nzones, const farray<int, 1>& nptsz,
                    const farray<float, 2>& src, int nfree, bool withcount) {
  if (filetype == formatted) return textfile(h, nzones, nptsz, src, nfree, withcount);
  return rawfile(filetype == unformatted, wide, h, nzones, nptsz, src, nfree, withcount);
}

// ---- running the routines ----------------------------------------------------------------------

farray<float, 2> readwhole(const char40& name, int filetype, logical dblprec, int nzones,
                           const farray<int, 1>& nptsz, std::string* out = nullptr) {
  mod_gridvars::readallvars = 1;
  farray<float, 2> p;
  if (out != nullptr)
    *out = zt::capturestdout([&] { readzelmpixfile(name, filetype, dblprec, nzones, nptsz, p); });
  else
    readzelmpixfile(name, filetype, dblprec, nzones, nptsz, p);
  return p;
}

void writewhole(const char40& name, int filetype, logical dblprec, int nzones, const farray<int, 1>& nptsz,
                const farray<float, 2>& src) {
  writezelmpixfile(name, filetype, dblprec, nzones, nptsz, src);
}

// Writes variables 1 .. 6+nfree one per call from one-row arrays, then closes unit 14.
void writebyvariable(const char40& name, int filetype, logical dblprec, int nzones,
                     const farray<int, 1>& nptsz, const farray<float, 2>& src) {
  for (int v = 1; v <= 6 + nfree; ++v) {
    const auto row = zt::onerow(src, v);
    writenextzelmpixvar(v, name, filetype, dblprec, nzones, nptsz, row);
  }
  EXPECT_TRUE(io::isconnected(14));
  io::close(14);
}

// What the caller of the one-variable reader does with a raw file: read past H1 to H3 itself.
void skiprawheader(bool wide) {
  io::unit& u = io::getunit(13);
  fortran::char25 s;
  if (wide) {
    double a, b, c;
    ASSERT_EQ(io::rawread(u, a, b, c), io::rstat::ok);
    ASSERT_EQ(io::rawread(u, a, b, c), io::rstat::ok);
  } else {
    float a, b, c;
    ASSERT_EQ(io::rawread(u, a, b, c), io::rstat::ok);
    ASSERT_EQ(io::rawread(u, a, b, c), io::rstat::ok);
  }
  ASSERT_EQ(io::rawread(u, io::text(s)), io::rstat::ok);
}

// Brings a file left open by the whole-file reader (one-variable mode) to its free count: the
// one-variable reader for variables 1 .. 6, or, where it would read 4-byte reals from 8-byte
// records, the caller's own 8-byte reads.
void passfixedvariables(const char40& name, int filetype, bool wide, int nzones, const farray<int, 1>& nptsz,
                        farray<float, 2>& p) {
  for (int v = 1; v <= 6; ++v) {
    if (!wide) {
      readnextzelmpixvar(v, name, filetype, 0, nzones, nptsz, p);
      continue;
    }
    for (int iz = 1; iz <= nzones; ++iz) {
      std::vector<double> buf(static_cast<std::size_t>(std::max(nptsz(iz), 0)) + 1);
      ASSERT_EQ(io::rawread(io::getunit(13), io::items(buf.data(), nptsz(iz))), io::rstat::ok);
    }
  }
}

void expectheader(const zt::pixheader& h, bool rounded) {
  const double got[6] = {dvar, dgamma, drgas, dr0, drm0, dp0};
  for (int i = 0; i < 6; ++i) {
    const double want = rounded ? static_cast<double>(static_cast<float>(h.values(i))) : h.values(i);
    EXPECT_EQ(zt::bits(got[i]), zt::bits(want))
        << "header value " << i + 1 << ": " << got[i] << " vs " << want;
  }
  EXPECT_EQ(mod_zelmgrid::string.view(), text25(h.string));
}

void expectlabels(const zt::pixheader& h, int n) {
  for (int k = 1; k <= std::min(n, 20); ++k)
    EXPECT_EQ(strfree(k).view(), text25(h.label(k))) << "label " << k;
}

// What an unreached column holds: the fill pattern, or with 8-byte reals on disk the fill pattern of
// the 8-byte work array rounded to a 4-byte real (the whole work array is copied into pix).
float unsetvalue(bool wide) {
  if (!wide) return zt::filled(fillbyte);
  double d;
  std::memset(&d, fillbyte, 8);
  if (std::fabs(d) > FLT_MAX) return d > 0 ? INFINITY : -INFINITY;
  return static_cast<float>(d);
}

// Row `row` of p against the source values in the columns that the readers reach, and what an
// unreached column holds elsewhere.
void expectrow(const farray<float, 2>& p, index_t row, const farray<float, 2>& src, index_t srcrow,
               const std::vector<std::optional<index_t>>& cols, bool wide) {
  ASSERT_EQ(p.extent(2), static_cast<index_t>(cols.size()));
  for (index_t c = 1; c <= p.extent(2); ++c) {
    const auto& from = cols[static_cast<std::size_t>(c - 1)];
    if (from)
      EXPECT_EQ(zt::bits(p(row, c)), zt::bits(src(srcrow, *from))) << "row " << row << " column " << c;
    else
      EXPECT_EQ(zt::bits(p(row, c)), zt::bits(unsetvalue(wide)))
          << "row " << row << " column " << c << " is set";
  }
}

// What the whole-file reader with readallvars leaves behind for a file of `src`.
void expectwholeread(const farray<float, 2>& p, int filetype, logical dblprec, int nzones,
                     const farray<int, 1>& nptsz, const farray<float, 2>& src, int nf,
                     const zt::pixheader& h) {
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  EXPECT_EQ(nfree, nf);
  EXPECT_EQ(mod_gridvars::npixvar, 6 + nf);
  expectheader(h, raw(filetype) && !fortran::istrue(dblprec));
  expectlabels(h, nf);
  EXPECT_FALSE(io::isconnected(13));
  ASSERT_TRUE(p.allocated());
  ASSERT_EQ(p.extent(1), 6 + nf);
  ASSERT_EQ(p.extent(2), zt::total(nptsz));
  for (int v = 1; v <= 6 + nf; ++v)
    expectrow(p, v, src, v, zt::expectedcolumns(nptsz, nzones, filetype == formatted && v >= 7),
              raw(filetype) && fortran::istrue(dblprec));
}

// ---- fixtures ------------------------------------------------------------------------------------

class pixfiles : public zt::zelmtest {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    fortran::allocationfill = fillbyte;
  }
};

farray<int, 1> zonecounts(int nzones) {
  if (nzones == 1) return zt::counts({5});
  if (nzones == 2) return zt::counts({5, 3});
  // Zone 3 starts at column 5: the formatted reader takes nptsz(3) - 5 + 1 = 1 value of each free
  // variable there. Five 4-byte values still fit one list-directed line, so no record is continued
  // on a second line (a continued record is a test of its own).
  return zt::counts({4, 3, 5});
}

using tripparam = std::tuple<int, logical, int, int>;  // filetype, dblprec, nfree, nzones

class pixroundtrip : public pixfiles, public ::testing::WithParamInterface<tripparam> {
 protected:
  int filetype() const { return std::get<0>(GetParam()); }
  logical dblprec() const { return std::get<1>(GetParam()); }
  int nf() const { return std::get<2>(GetParam()); }
  int nzones() const { return std::get<3>(GetParam()); }
  bool wide() const { return raw(filetype()) && fortran::istrue(dblprec()); }
};

std::string tripname(const ::testing::TestParamInfo<tripparam>& i) {
  const auto [ft, dp, nf, nz] = i.param;
  return std::string(encname(ft)) + (dp ? "_r8" : "_r4") + "_nfree" + std::to_string(nf) + "_zones" +
         std::to_string(nz);
}

// Row 1 as the one-variable reader leaves it for variable v: the source values, or with 8-byte
// reals on disk the 4-byte reals that the reader takes from the front of each record (framed) or
// from where the stream happens to be (unframed; `stream` and `offset` follow it).
std::vector<std::uint32_t> nextreaderrow(const farray<float, 2>& src, int v, int nzones,
                                         const farray<int, 1>& nptsz, bool wide, bool framed,
                                         const std::string& stream, std::size_t& offset) {
  std::vector<std::uint32_t> row(static_cast<std::size_t>(zt::total(nptsz)), zt::bits(zt::filled(fillbyte)));
  for (int iz = 1; iz <= nzones; ++iz) {
    const index_t start = zt::zonestart(nptsz, iz);
    if (!wide) {
      for (index_t k = 0; k < nptsz(iz); ++k)
        row[static_cast<std::size_t>(start + k - 1)] = zt::bits(src(v, start + k));
      continue;
    }
    std::string payload;
    if (framed) {
      bytes p;
      for (index_t k = 0; k < nptsz(iz); ++k) p.r8(src(v, start + k));
      payload = p.b;
    } else {
      payload = stream.substr(offset);
      offset += static_cast<std::size_t>(4 * nptsz(iz));
    }
    for (index_t k = 0; k < nptsz(iz); ++k) {
      std::uint32_t b;
      std::memcpy(&b, payload.data() + 4 * k, 4);
      row[static_cast<std::size_t>(start + k - 1)] = b;
    }
  }
  return row;
}

// Reads a file of `src` one variable at a time and checks each variable's row.
void readbyvariable(const char40& name, int filetype, logical dblprec, int nzones,
                    const farray<int, 1>& nptsz, const farray<float, 2>& src, int nf,
                    const zt::pixheader& h) {
  const bool wide = raw(filetype) && fortran::istrue(dblprec);
  zt::scramblemodule();
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  std::string out = zt::capturestdout([&] { readzelmpixfile(name, filetype, dblprec, nzones, nptsz, p); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  ASSERT_TRUE(p.allocated());
  ASSERT_EQ(p.extent(1), 1);
  ASSERT_EQ(p.extent(2), zt::total(nptsz));
  EXPECT_EQ(mod_gridvars::npixvar, 6 + nf);
  EXPECT_EQ(mod_zelmgrid::string.view(), text25(h.string));
  EXPECT_TRUE(io::isconnected(13));
  if (filetype == formatted) {
    expectheader(h, false);
  } else if (wide) {
    expectheader(h, false);  // the sizing pass reads 8-byte header reals straight into the module
    skiprawheader(wide);
  } else {
    EXPECT_EQ(dvar, -7.5);  // 4-byte header reals are stored only when every variable is read
    EXPECT_EQ(dp0, -8.5);
    skiprawheader(wide);
  }
  const std::string stream = zt::readfile(std::string(name.trimmed()));
  std::size_t offset = 48 + 25;  // unframed 8-byte reals: where the reader is after the header
  // Unframed 8-byte files go out of step at the first record; past variable 6 the free count would
  // be read from the middle of a value, so only the fixed variables are followed there.
  const int last = wide && filetype == binary ? 6 : 6 + nf;
  for (int v = 1; v <= last; ++v) {
    std::memset(p.data(), fillbyte, static_cast<std::size_t>(p.size()) * 4);
    if (v == 7) nfree = -1;
    out = zt::capturestdout([&] { readnextzelmpixvar(v, name, filetype, dblprec, nzones, nptsz, p); });
    EXPECT_EQ(out, "") << "variable " << v;
    ASSERT_EQ(zt::services().readerrors, 0) << "variable " << v << ": " << zt::services().lastdetail;
    const auto want = nextreaderrow(src, v, nzones, nptsz, wide, filetype == unformatted, stream, offset);
    for (index_t c = 1; c <= p.extent(2); ++c)
      EXPECT_EQ(zt::bits(p(1, c)), want[static_cast<std::size_t>(c - 1)])
          << "variable " << v << " column " << c;
    if (v == 7) {
      EXPECT_EQ(nfree, nf);
      expectlabels(h, nf);
    }
  }
  EXPECT_TRUE(io::isconnected(13));
  io::close(13);
}

}  // namespace

// ---- round trips in every encoding and precision ---------------------------------------------

TEST_P(pixroundtrip, WholeFileWriterToWholeFileReader) {
  const zt::pixheader h;
  const auto nptsz = zonecounts(nzones());
  const auto src = zt::makepix(6 + nf(), zt::total(nptsz));
  h.set(nf());
  writewhole("p.dat", filetype(), dblprec(), nzones(), nptsz, src);
  EXPECT_FALSE(io::isconnected(14));
  zt::scramblemodule();
  std::string out;
  const auto p = readwhole("p.dat", filetype(), dblprec(), nzones(), nptsz, &out);
  expectwholeread(p, filetype(), dblprec(), nzones(), nptsz, src, nf(), h);
  EXPECT_EQ(zt::lines(out).size(), static_cast<std::size_t>((6 + nf()) * nzones()));
}

TEST_P(pixroundtrip, OneVariableWriterToWholeFileReader) {
  const zt::pixheader h;
  const auto nptsz = zonecounts(nzones());
  const auto src = zt::makepix(6 + nf(), zt::total(nptsz));
  h.set(nf());
  writewhole("whole.dat", filetype(), dblprec(), nzones(), nptsz, src);
  h.set(nf());
  writebyvariable("p.dat", filetype(), dblprec(), nzones(), nptsz, src);
  // Without free variables neither writer writes a free count, so the files are the same.
  EXPECT_EQ(zt::readfile("p.dat"), zt::readfile("whole.dat"));
  zt::scramblemodule();
  const auto p = readwhole("p.dat", filetype(), dblprec(), nzones(), nptsz);
  expectwholeread(p, filetype(), dblprec(), nzones(), nptsz, src, nf(), h);
}

TEST_P(pixroundtrip, WholeFileWriterToOneVariableReader) {
  const zt::pixheader h;
  const auto nptsz = zonecounts(nzones());
  const auto src = zt::makepix(6 + nf(), zt::total(nptsz));
  h.set(nf());
  writewhole("p.dat", filetype(), dblprec(), nzones(), nptsz, src);
  readbyvariable("p.dat", filetype(), dblprec(), nzones(), nptsz, src, nf(), h);
}

TEST_P(pixroundtrip, OneVariableWriterToOneVariableReader) {
  const zt::pixheader h;
  const auto nptsz = zonecounts(nzones());
  const auto src = zt::makepix(6 + nf(), zt::total(nptsz));
  h.set(nf());
  writebyvariable("p.dat", filetype(), dblprec(), nzones(), nptsz, src);
  readbyvariable("p.dat", filetype(), dblprec(), nzones(), nptsz, src, nf(), h);
}

TEST_P(pixroundtrip, ReaderReadsTheDocumentedLayoutBuiltByTheTest) {
  const zt::pixheader h;
  const auto nptsz = zonecounts(nzones());
  const auto src = zt::makepix(6 + nf(), zt::total(nptsz));
  zt::writefile("p.dat", pixfile(filetype(), wide(), h, nzones(), nptsz, src, nf(), nf() > 0));
  const auto p = readwhole("p.dat", filetype(), dblprec(), nzones(), nptsz);
  expectwholeread(p, filetype(), dblprec(), nzones(), nptsz, src, nf(), h);
}

INSTANTIATE_TEST_SUITE_P(encodings, pixroundtrip,
                         ::testing::Combine(::testing::Values(unformatted, formatted, binary),
                                            ::testing::Values(logical{0}, logical{1}),
                                            ::testing::Values(0, 2), ::testing::Values(1, 2, 3)),
                         tripname);

// ---- exact bytes ---------------------------------------------------------------------------------

using encparam = std::tuple<int, logical>;
class pixencoding : public pixfiles, public ::testing::WithParamInterface<encparam> {
 protected:
  int filetype() const { return std::get<0>(GetParam()); }
  logical dblprec() const { return std::get<1>(GetParam()); }
  bool wide() const { return raw(filetype()) && fortran::istrue(dblprec()); }
};
static std::string encparamname(const ::testing::TestParamInfo<encparam>& i) {
  return std::string(encname(std::get<0>(i.param))) + (std::get<1>(i.param) ? "_r8" : "_r4");
}

class pixrawencoding : public pixencoding {};

TEST_P(pixrawencoding, WholeFileWriterBytesWithTwoZonesAndOneFreeVariable) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2, 1});
  const auto src = zt::makepix(7, 3);
  h.set(1);
  writezelmpixfile("p.dat", filetype(), dblprec(), 2, nptsz, src);
  const bool framed = filetype() == unformatted;
  // Built item by item: zone 2 of each variable holds node column 1, where zone 1 starts too.
  bytes e;
  auto rec = [&](const bytes& p) { framed ? e.record(p) : e.then(p); };
  auto real = [&](bytes& b, double v) { wide() ? b.r8(v) : b.r4(static_cast<float>(v)); };
  bytes h1, h2;
  real(h1, h.dvar), real(h1, h.dgamma), real(h1, h.drgas);
  real(h2, h.dr0), real(h2, h.drm0), real(h2, h.dp0);
  rec(h1), rec(h2), rec(bytes().text("Mach 0.5 run, cycle 1200 "));
  for (int v = 1; v <= 6; ++v) {
    bytes z1, z2;
    real(z1, src(v, 1)), real(z1, src(v, 2));
    real(z2, src(v, 1));
    rec(z1), rec(z2);
  }
  rec(bytes().i4(1));
  rec(bytes().text("pressure coefficient     "));
  bytes z1, z2;
  real(z1, src(7, 1)), real(z1, src(7, 2));
  real(z2, src(7, 1));
  rec(z1), rec(z2);
  EXPECT_EQ(zt::readfile("p.dat"), e.b);
}

TEST_P(pixrawencoding, SecondZoneRecordHoldsColumnsOneToNptsTwo) {
  const auto nptsz = zt::counts({3, 2});
  farray<float, 2> src;
  src.allocate(6, 5);
  for (int v = 1; v <= 6; ++v)
    for (int c = 1; c <= 5; ++c) src(v, c) = static_cast<float>(10 * v + c);
  zt::pixheader().set(0);
  writezelmpixfile("p.dat", filetype(), dblprec(), 2, nptsz, src);
  const std::string f = zt::readfile("p.dat");
  const std::size_t w = wide() ? 8 : 4;
  const std::size_t framing = filetype() == unformatted ? 8 : 0;
  const std::size_t headersize = 2 * (3 * w + framing) + 25 + framing;
  // Variable 1: zone 1 (3 values), then zone 2 = node columns 1 and 2.
  const std::size_t zone2 = headersize + 3 * w + framing + framing / 2;
  ASSERT_GE(f.size(), zone2 + 2 * w);
  for (int k = 0; k < 2; ++k) {
    double got;
    if (wide()) {
      std::memcpy(&got, f.data() + zone2 + k * w, 8);
    } else {
      float g4;
      std::memcpy(&g4, f.data() + zone2 + k * w, 4);
      got = g4;
    }
    EXPECT_EQ(got, 11.0 + k) << "value " << k + 1 << " of variable 1, zone 2";
  }
  if (framing != 0) {
    std::int32_t len;
    std::memcpy(&len, f.data() + zone2 - 4, 4);
    EXPECT_EQ(len, static_cast<std::int32_t>(2 * w));
  }
}

TEST_P(pixencoding, NfreeZeroWholeWriterEndsTheFileAfterTheLastDRecordAndReaderReportsNpixvarSix) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2, 2});
  const auto src = zt::makepix(6, 4);
  h.set(0);
  writezelmpixfile("p.dat", filetype(), dblprec(), 2, nptsz, src);
  const std::string want = raw(filetype())
                               ? rawfile(filetype() == unformatted, wide(), h, 2, nptsz, src, 0, false)
                               : std::string();
  if (raw(filetype()))
    EXPECT_EQ(zt::readfile("p.dat"), want);
  else
    EXPECT_EQ(zt::lines(zt::readfile("p.dat")).size(), 3u + 12u);  // H1 H2 H3 and 12 D records
  zt::scramblemodule();
  const auto p = readwhole("p.dat", filetype(), dblprec(), 2, nptsz);
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_EQ(nfree, 0);
  EXPECT_EQ(mod_gridvars::npixvar, 6);
  EXPECT_EQ(p.extent(1), 6);
}

TEST_P(pixencoding, FileWithoutRecordNHasNfreeZeroAndNpixvarSixWithoutAMessage) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  zt::writefile("p.dat", pixfile(filetype(), wide(), h, 1, nptsz, src, 0, false));
  zt::scramblemodule();
  std::string out;
  const auto p = readwhole("p.dat", filetype(), dblprec(), 1, nptsz, &out);
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_EQ(nfree, 0);
  EXPECT_EQ(mod_gridvars::npixvar, 6);
  EXPECT_EQ(zt::lines(out).size(), 6u);  // progress lines only
  EXPECT_EQ(out.find("rror"), std::string::npos);
  EXPECT_FALSE(io::isconnected(13));
  ASSERT_EQ(p.extent(1), 6);
  for (int v = 1; v <= 6; ++v) EXPECT_EQ(p(v, 3), src(v, 3));
}

TEST_P(pixencoding, OneVariableWriterWritesFreeCountZeroAtVariableSeven) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(7, 2);
  h.set(0);
  for (int v = 1; v <= 7; ++v) {
    const auto row = zt::onerow(src, v);
    writenextzelmpixvar(v, "p.dat", filetype(), dblprec(), 1, nptsz, row);
  }
  io::close(14);
  if (raw(filetype())) {
    rawbuilder b{filetype() == unformatted, wide(), {}};
    b.header(h);
    for (int v = 1; v <= 6; ++v) b.variable(src, v, 1, nptsz);
    b.freecount(0);
    b.variable(src, 7, 1, nptsz);
    EXPECT_EQ(zt::readfile("p.dat"), b.f.b);
  } else {
    const auto l = zt::lines(zt::readfile("p.dat"));
    ASSERT_EQ(l.size(), 3u + 6u + 1u + 1u);
    EXPECT_EQ(l[9], "           0");
  }
}

TEST_P(pixencoding, EmptyZoneStillTakesOneRecord) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3, 0, 2});  // zone 3 starts at column 1 + 3
  const auto src = zt::makepix(7, 5);
  h.set(1);
  writezelmpixfile("p.dat", filetype(), dblprec(), 3, nptsz, src);
  if (filetype() == unformatted) {
    EXPECT_EQ(zt::readfile("p.dat"), rawfile(true, wide(), h, 3, nptsz, src, 1, true));
  }
  if (filetype() == binary) {
    EXPECT_EQ(zt::readfile("p.dat"), rawfile(false, wide(), h, 3, nptsz, src, 1, true));
  }
  zt::scramblemodule();
  const auto p = readwhole("p.dat", filetype(), dblprec(), 3, nptsz);
  expectwholeread(p, filetype(), dblprec(), 3, nptsz, src, 1, h);
}

TEST_P(pixencoding, OneVariableModeLeavesFormattedFileAtFirstDRecordAndRawFileAtH1) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  h.set(0);
  writezelmpixfile("p.dat", filetype(), dblprec(), 1, nptsz, src);
  zt::scramblemodule();
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("p.dat", filetype(), dblprec(), 1, nptsz, p);
  EXPECT_EQ(zt::services().readerrors, 0);
  ASSERT_TRUE(io::isconnected(13));
  io::unit& u = io::getunit(13);
  if (filetype() == formatted) {
    float a[3];
    ASSERT_EQ(io::listread(u, io::items(a, 3)), io::rstat::ok);
    for (int c = 1; c <= 3; ++c) EXPECT_EQ(a[c - 1], src(1, c));
    expectheader(h, false);
  } else if (wide()) {
    double a[3];
    ASSERT_EQ(io::rawread(u, io::items(a, 3)), io::rstat::ok);
    EXPECT_EQ(a[0], h.dvar);
    EXPECT_EQ(a[2], h.drgas);
    expectheader(h, false);  // read straight into the module by the sizing pass
  } else {
    float a[3];
    ASSERT_EQ(io::rawread(u, io::items(a, 3)), io::rstat::ok);
    EXPECT_EQ(a[0], static_cast<float>(h.dvar));
    EXPECT_EQ(a[1], static_cast<float>(h.dgamma));
    EXPECT_EQ(dvar, -7.5);  // the 4-byte header is widened only when every variable is read
  }
}

TEST_P(pixencoding, MoreThanTwentyFreeVariablesStayInStepAndTouchNothingBeyondStrfree) {
  // Labels beyond strfree's 20 are written as blanks and read into nowhere: every record is
  // still read and written, so the free variables after them come back whole.
  zt::pixheader h;
  h.labels.clear();
  for (int k = 1; k <= 22; ++k) h.labels.push_back("label " + std::to_string(k));
  const auto nptsz = zt::counts({2, 2});
  const auto src = zt::makepix(28, 4);
  h.set(22);
  writezelmpixfile("p.dat", filetype(), dblprec(), 2, nptsz, src);
  const std::string f = zt::readfile("p.dat");
  if (raw(filetype())) {
    zt::pixheader blanks = h;
    blanks.labels[20] = blanks.labels[21] = "";
    EXPECT_EQ(f, rawfile(filetype() == unformatted, wide(), blanks, 2, nptsz, src, 22, true));
  } else {
    const auto l = zt::lines(f);
    const auto at = std::find(l.begin(), l.end(), text25("label 20"));
    ASSERT_LT(at + 2, l.end());
    EXPECT_EQ(at[1], std::string(25, ' '));
    EXPECT_EQ(at[2], std::string(25, ' '));
  }

  // A file that does name labels 21 and 22.
  zt::writefile("p.dat", pixfile(filetype(), wide(), h, 2, nptsz, src, 22, true));
  zt::scramblemodule();
  const fortran::char25 before = mod_zelmgrid::string;
  const auto p = readwhole("p.dat", filetype(), dblprec(), 2, nptsz);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  EXPECT_EQ(nfree, 22);
  EXPECT_EQ(mod_gridvars::npixvar, 28);
  for (int k = 1; k <= 20; ++k) EXPECT_EQ(strfree(k).view(), text25("label " + std::to_string(k)));
  EXPECT_NE(mod_zelmgrid::string, before);
  EXPECT_EQ(mod_zelmgrid::string.view(), text25(h.string));
  ASSERT_EQ(p.extent(1), 28);
  EXPECT_EQ(p(28, 1), src(28, 1));  // zone 2 rewrote columns 1 .. 2
  EXPECT_EQ(p(28, 2), src(28, 2));

  // The one-variable reader at variable 7 reads all 22 labels too.
  zt::scramblemodule();
  mod_gridvars::readallvars = 0;
  farray<float, 2> q;
  readzelmpixfile("p.dat", filetype(), dblprec(), 2, nptsz, q);
  if (raw(filetype())) skiprawheader(wide());
  passfixedvariables("p.dat", filetype(), wide(), 2, nptsz, q);
  readnextzelmpixvar(7, "p.dat", filetype(), 0, 2, nptsz, q);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  EXPECT_EQ(nfree, 22);
  EXPECT_EQ(strfree(20).view(), text25("label 20"));
  if (!wide()) {
    EXPECT_EQ(q(1, 1), src(7, 1));
  }
}

TEST_P(pixencoding, TruncatedInsideFixedVariablesFailsInTheSizingPassBeforeAllocating) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({4});
  const auto src = zt::makepix(6, 4);
  std::string f = pixfile(filetype(), wide(), h, 1, nptsz, src, 0, false);
  zt::writefile("p.dat", f.substr(0, f.size() * 2 / 3));
  zt::scramblemodule();
  std::string out;
  const auto p = readwhole("p.dat", filetype(), dblprec(), 1, nptsz, &out);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("variable"), std::string::npos) << zt::services().lastdetail;
  EXPECT_EQ(out, "");
  EXPECT_FALSE(p.allocated());
  EXPECT_EQ(mod_gridvars::npixvar, 4242);  // not set: the free count was never reached
  EXPECT_EQ(nfree, 99);
  EXPECT_TRUE(io::isconnected(13));
  EXPECT_EQ(mod_zelmgrid::string.view(), text25(h.string));  // H3 was read
  if (raw(filetype()) && !wide())
    EXPECT_EQ(dvar, -7.5);  // 4-byte header reals are not stored in the sizing pass
  else
    EXPECT_EQ(dvar, h.dvar);
}

TEST_P(pixencoding, TruncatedInsideFreeVariablesKeepsWhatWasRead) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({4});
  const auto src = zt::makepix(8, 4);
  std::string f = pixfile(filetype(), wide(), h, 1, nptsz, src, 2, true);
  // Cut inside the last record (variable 8).
  zt::writefile("p.dat", f.substr(0, f.size() - (filetype() == formatted ? 12 : 6)));
  zt::scramblemodule();
  std::string out;
  const auto p = readwhole("p.dat", filetype(), dblprec(), 1, nptsz, &out);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("variable 8"), std::string::npos) << zt::services().lastdetail;
  EXPECT_TRUE(io::isconnected(13));
  EXPECT_EQ(nfree, 2);
  EXPECT_EQ(mod_gridvars::npixvar, 8);
  expectlabels(h, 2);
  EXPECT_EQ(zt::lines(out).size(), 8u);  // the failing record's line is printed before its read
  ASSERT_TRUE(p.allocated());
  ASSERT_EQ(p.extent(1), 8);
  if (wide()) {
    // The values were read into the 8-byte work array, which is released without reaching pix.
    for (int v = 1; v <= 8; ++v) EXPECT_EQ(zt::bits(p(v, 1)), zt::bits(zt::filled(fillbyte)));
  } else {
    for (int v = 1; v <= 7; ++v)
      for (int c = 1; c <= 4; ++c) EXPECT_EQ(p(v, c), src(v, c));
  }
}

TEST_P(pixencoding, TruncatedInsideLabelsFailsInTheSecondPass) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(8, 2);
  std::string f = pixfile(filetype(), wide(), h, 1, nptsz, src, 2, true);
  const std::string second = text25(h.label(2));
  const auto at = f.find(second);
  ASSERT_NE(at, std::string::npos);
  zt::writefile("p.dat", f.substr(0, at + 10 - (filetype() == formatted ? 10 : 0)));
  zt::scramblemodule();
  const auto p = readwhole("p.dat", filetype(), dblprec(), 1, nptsz);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("label of free variable 2"), std::string::npos)
      << zt::services().lastdetail;
  EXPECT_EQ(nfree, 2);
  EXPECT_EQ(strfree(1).view(), text25(h.label(1)));
  EXPECT_TRUE(p.allocated());
  EXPECT_TRUE(io::isconnected(13));
}

TEST_P(pixencoding, MissingRecordNIsAFailureOfTheOneVariableReader) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  zt::writefile("p.dat", pixfile(filetype(), wide(), h, 1, nptsz, src, 0, false));
  zt::scramblemodule();
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("p.dat", filetype(), dblprec(), 1, nptsz, p);
  ASSERT_EQ(zt::services().readerrors, 0);  // the whole-file reader tolerates it
  EXPECT_EQ(nfree, 0);
  if (raw(filetype())) skiprawheader(wide());
  passfixedvariables("p.dat", filetype(), wide(), 1, nptsz, p);
  ASSERT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  nfree = 5;
  readnextzelmpixvar(7, "p.dat", filetype(), 0, 1, nptsz, p);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("free count"), std::string::npos) << zt::services().lastdetail;
  EXPECT_EQ(nfree, 5);
  EXPECT_TRUE(io::isconnected(13));
}

INSTANTIATE_TEST_SUITE_P(encodings, pixrawencoding,
                         ::testing::Combine(::testing::Values(unformatted, binary),
                                            ::testing::Values(logical{0}, logical{1})),
                         encparamname);

INSTANTIATE_TEST_SUITE_P(encodings, pixencoding,
                         ::testing::Combine(::testing::Values(unformatted, formatted, binary),
                                            ::testing::Values(logical{0}, logical{1})),
                         encparamname);

// ---- formatted text ------------------------------------------------------------------------------

TEST_F(pixfiles, FormattedHeaderLinesCarryFullEightByteValuesAndDataLinesFourByteValues) {
  dvar = 0.5, dgamma = 1.4, drgas = -2.0;
  dr0 = 1e-3, drm0 = 0.25, dp0 = 1.0 / 3.0;
  mod_zelmgrid::string = "Mach 0.5 run, cycle 1200";
  nfree = 1;
  strfree(1) = "pressure coefficient";
  const auto nptsz = zt::counts({2});
  farray<float, 2> src;
  src.allocate(7, 2);
  for (int v = 1; v <= 7; ++v)
    for (int c = 1; c <= 2; ++c) src(v, c) = static_cast<float>(v) + static_cast<float>(c) / 4;
  src(2, 1) = 0.1f;  // 9 significant digits: 0.100000001
  writezelmpixfile("p.txt", formatted, 1, 1, nptsz, src);
  // The real records as gfortran's list-directed output writes them.
  const std::string want =
      "  0.50000000000000000        1.3999999999999999       -2.0000000000000000     \n"
      "   1.0000000000000000E-003  0.25000000000000000       0.33333333333333331     \n"
      "Mach 0.5 run, cycle 1200 \n"
      "   1.25000000       1.50000000    \n"
      "  0.100000001       2.50000000    \n"
      "   3.25000000       3.50000000    \n"
      "   4.25000000       4.50000000    \n"
      "   5.25000000       5.50000000    \n"
      "   6.25000000       6.50000000    \n"
      "           1\n"
      "pressure coefficient     \n"
      "   7.25000000       7.50000000    \n";
  EXPECT_EQ(zt::readfile("p.txt"), want);
}

TEST_F(pixfiles, FormattedWritersWriteEveryValueOfEveryZoneOfFreeVariables) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({4, 4, 4});
  const auto src = zt::makepix(7, 12);
  h.set(1);
  writezelmpixfile("p.txt", formatted, 0, 3, nptsz, src);
  const auto whole = zt::lines(zt::readfile("p.txt"));
  h.set(1);
  writebyvariable("q.txt", formatted, 0, 3, nptsz, src);
  EXPECT_EQ(zt::lines(zt::readfile("q.txt")), whole);
  // Last record: variable 7, zone 3, node columns 5 .. 8, all four values.
  const char* q = whole.back().c_str();
  std::vector<float> got;
  for (char* end = nullptr;; q = end) {
    const float v = std::strtof(q, &end);
    if (end == q) break;
    got.push_back(v);
  }
  EXPECT_EQ(got, (std::vector<float>{src(7, 5), src(7, 6), src(7, 7), src(7, 8)})) << whole.back();
}

TEST_F(pixfiles, FormattedThreeEqualZonesReadNoFreeValuesInZoneThreeConsumingOneLine) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({4, 4, 4});
  const auto src = zt::makepix(8, 12);
  h.set(2);
  writezelmpixfile("p.txt", formatted, 0, 3, nptsz, src);
  const auto p = readwhole("p.txt", formatted, 0, 3, nptsz);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  ASSERT_EQ(p.extent(1), 8);
  const float unset = zt::filled(fillbyte);
  for (int v = 1; v <= 8; ++v) {
    for (int c = 1; c <= 4; ++c) EXPECT_EQ(p(v, c), src(v, c)) << v << " " << c;
    // Zone 3 starts at column 5: fixed variables are read there, free variables take
    // nptsz(3) - nptsz(1) = 0 values from zone 3's line and leave the columns as allocated.
    for (int c = 5; c <= 8; ++c) {
      if (v <= 6)
        EXPECT_EQ(p(v, c), src(v, c)) << v << " " << c;
      else
        EXPECT_EQ(zt::bits(p(v, c)), zt::bits(unset)) << v << " " << c;
    }
    for (int c = 9; c <= 12; ++c) EXPECT_EQ(zt::bits(p(v, c)), zt::bits(unset)) << v << " " << c;
  }
  // Variable 8 came from the right lines: zone 3's line of variable 7 was consumed with no values.
  EXPECT_EQ(p(8, 1), src(8, 1));
}

TEST_F(pixfiles, FormattedFreeVariablesFromZoneThreeReadColumnsFromIoffToNptsOnly) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2, 2, 5});  // zone 3: columns 3 .. 7; free variables 3 .. 5
  const auto src = zt::makepix(7, 9);
  h.set(1);
  writezelmpixfile("p.txt", formatted, 0, 3, nptsz, src);
  const auto p = readwhole("p.txt", formatted, 0, 3, nptsz);
  EXPECT_EQ(zt::services().readerrors, 0);
  const float unset = zt::filled(fillbyte);
  for (int c = 3; c <= 5; ++c) EXPECT_EQ(p(7, c), src(7, c)) << c;
  for (int c = 6; c <= 9; ++c) EXPECT_EQ(zt::bits(p(7, c)), zt::bits(unset)) << c;
  for (int c = 3; c <= 7; ++c) EXPECT_EQ(p(6, c), src(6, c)) << c;
  // The raw encodings read all of zone 3.
  writezelmpixfile("p.dat", unformatted, 0, 3, nptsz, src);
  const auto q = readwhole("p.dat", unformatted, 0, 3, nptsz);
  for (int c = 3; c <= 7; ++c) EXPECT_EQ(q(7, c), src(7, c)) << c;
}

TEST_F(pixfiles, FormattedFreeVariableReadOfZoneThreeTakesFewerValuesAndStaysInStep) {
  // Zone 3 has 8 values, every record stays on one line. The free variables read
  // nptsz(3) - 6 + 1 = 3 of them and discard the rest of the line, so the next record is read
  // from its own line.
  const zt::pixheader h;
  const auto nptsz = zt::counts({5, 2, 8});
  const auto src = zt::makepix(8, 15);
  h.set(2);
  writezelmpixfile("p.txt", formatted, 0, 3, nptsz, src);
  const auto lines = zt::lines(zt::readfile("p.txt"));
  ASSERT_EQ(lines.size(), 3u + 6u * 3u + 1u + 2u + 2u * 3u);  // one line per record
  fortran::allocationfill = 0x7f;
  const auto p = readwhole("p.txt", formatted, 0, 3, nptsz);
  fortran::allocationfill = -1;
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  float unset;
  std::memset(&unset, 0x7f, 4);
  for (int v = 7; v <= 8; ++v) {
    for (int c = 1; c <= 8; ++c) EXPECT_EQ(p(v, c), src(v, c)) << v << " " << c;
    for (int c = 9; c <= 13; ++c) EXPECT_EQ(p(v, c), unset) << v << " " << c;  // the values passed over
  }
}

// ---- zone placement ------------------------------------------------------------------------------

TEST_F(pixfiles, OneZoneFillsColumnsOneToNptsOfEveryRow) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({6});
  farray<float, 2> src;
  src.allocate(7, 6);
  for (int v = 1; v <= 7; ++v)
    for (int c = 1; c <= 6; ++c) src(v, c) = static_cast<float>(100 * v + c);
  zt::writefile("p.dat", rawfile(true, false, h, 1, nptsz, src, 1, true));
  const auto p = readwhole("p.dat", unformatted, 0, 1, nptsz);
  ASSERT_EQ(p.extent(1), 7);
  ASSERT_EQ(p.extent(2), 6);
  for (int v = 1; v <= 7; ++v)
    for (int c = 1; c <= 6; ++c) EXPECT_EQ(p(v, c), static_cast<float>(100 * v + c));
}

namespace {
// A framed file of 4-byte reals whose zone records hold 1000 * zone + 10 * variable + k, so the
// reader's placement shows independently of the writers.
std::string zonetaggedfile(const farray<int, 1>& nptsz, int nzones) {
  rawbuilder b{true, false, {}};
  b.header(zt::pixheader());
  for (int v = 1; v <= 6; ++v) {
    for (int iz = 1; iz <= nzones; ++iz) {
      bytes p;
      for (int k = 1; k <= nptsz(iz); ++k) p.r4(static_cast<float>(1000 * iz + 10 * v + k));
      b.rec(p);
    }
  }
  return b.f.b;
}
}  // namespace

TEST_F(pixfiles, TwoZonesZoneTwoLandsInColumnsOneToNptsTwoOverwritingZoneOne) {
  const auto nptsz = zt::counts({4, 3});
  zt::writefile("p.dat", zonetaggedfile(nptsz, 2));
  const auto p = readwhole("p.dat", unformatted, 0, 2, nptsz);
  ASSERT_EQ(p.extent(2), 7);
  for (int v = 1; v <= 6; ++v) {
    for (int c = 1; c <= 3; ++c) EXPECT_EQ(p(v, c), 2000 + 10 * v + c);
    EXPECT_EQ(p(v, 4), 1000 + 10 * v + 4);  // zone 1's last value survives
    for (int c = 5; c <= 7; ++c) EXPECT_EQ(zt::bits(p(v, c)), zt::bits(zt::filled(fillbyte)));
  }
}

TEST_F(pixfiles, ThreeZonesZoneThreeStartsAtColumnNptsOnePlusOne) {
  const auto nptsz = zt::counts({4, 3, 2, 5});
  zt::writefile("p.dat", zonetaggedfile(nptsz, 4));
  const auto p = readwhole("p.dat", unformatted, 0, 4, nptsz);
  ASSERT_EQ(p.extent(2), 14);
  for (int v = 1; v <= 6; ++v) {
    for (int c = 1; c <= 3; ++c) EXPECT_EQ(p(v, c), 2000 + 10 * v + c);
    EXPECT_EQ(p(v, 4), 1000 + 10 * v + 4);
    // Zone 3 at column 4 + 1, zone 4 at column 4 + 3 + 1.
    EXPECT_EQ(p(v, 5), 3000 + 10 * v + 1);
    EXPECT_EQ(p(v, 6), 3000 + 10 * v + 2);
    for (int k = 1; k <= 5; ++k) EXPECT_EQ(p(v, 7 + k), 4000 + 10 * v + k);
    EXPECT_EQ(zt::bits(p(v, 13)), zt::bits(zt::filled(fillbyte)));
    EXPECT_EQ(zt::bits(p(v, 14)), zt::bits(zt::filled(fillbyte)));
  }
}

TEST_F(pixfiles, NptszLongerThanNzonesGivesColumnsThatNoZoneReaches) {
  const auto nptsz = zt::counts({3, 2, 7});  // two zones read; nptot = 12
  zt::writefile("p.dat", zonetaggedfile(nptsz, 2));
  const auto p = readwhole("p.dat", unformatted, 0, 2, nptsz);
  EXPECT_EQ(zt::services().readerrors, 0);
  ASSERT_EQ(p.extent(2), 12);
  for (int v = 1; v <= 6; ++v) {
    EXPECT_EQ(p(v, 3), 1000 + 10 * v + 3);
    for (int c = 4; c <= 12; ++c) EXPECT_EQ(zt::bits(p(v, c)), zt::bits(zt::filled(fillbyte))) << c;
  }
}

TEST_F(pixfiles, EqualZonesLeaveTheLastNptsOneColumnsOfEveryRowUnset) {
  const auto nptsz = zt::counts({3, 3, 3, 3});
  zt::writefile("p.dat", zonetaggedfile(nptsz, 4));
  const auto p = readwhole("p.dat", unformatted, 0, 4, nptsz);
  ASSERT_EQ(p.extent(2), 12);
  for (int v = 1; v <= 6; ++v) {
    for (int c = 1; c <= 9; ++c) EXPECT_NE(zt::bits(p(v, c)), zt::bits(zt::filled(fillbyte))) << c;
    for (int c = 10; c <= 12; ++c) EXPECT_EQ(zt::bits(p(v, c)), zt::bits(zt::filled(fillbyte))) << c;
  }
}

// ---- precision -----------------------------------------------------------------------------------

TEST_F(pixfiles, EightByteValuesAreRoundedToFourByteValuesInPix) {
  // The last value lies halfway between -2 and the next 4-byte real: it rounds to the even one.
  const double v8[5] = {0.1, 1.0 / 3.0, 1e-50, 1e39, -(2.0 + 0x1p-23)};
  for (int ft : {unformatted, binary}) {
    rawbuilder b{ft == unformatted, true, {}};
    b.header(zt::pixheader());
    for (int v = 1; v <= 6; ++v) {
      bytes p;
      for (double d : v8) p.r8(d * v);
      b.rec(p);
    }
    zt::writefile("p.dat", b.f.b);
    const auto nptsz = zt::counts({5});
    const auto p = readwhole("p.dat", ft, 1, 1, nptsz);
    ASSERT_EQ(zt::services().readerrors, 0);
    for (int v = 1; v <= 6; ++v) {
      for (int c = 1; c <= 3; ++c) EXPECT_EQ(p(v, c), static_cast<float>(v8[c - 1] * v)) << v << " " << c;
      EXPECT_TRUE(std::isinf(p(v, 4)) && p(v, 4) > 0) << v;  // beyond the largest 4-byte real
      EXPECT_EQ(p(v, 3), 0.0f);
    }
    EXPECT_EQ(p(1, 5), -2.0f);
    EXPECT_EQ(p(2, 5), -4.0f);
  }
}

TEST_F(pixfiles, FourByteHeaderComesBackRoundedFromAWholeFileRoundTrip) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  for (int ft : {unformatted, binary}) {
    h.set(0);
    writezelmpixfile("p.dat", ft, 0, 1, nptsz, src);
    zt::scramblemodule();
    const auto p = readwhole("p.dat", ft, 0, 1, nptsz);
    EXPECT_EQ(dvar, static_cast<double>(static_cast<float>(h.dvar)));
    EXPECT_NE(dvar, h.dvar);
    EXPECT_EQ(dp0, static_cast<double>(static_cast<float>(h.dp0)));
    for (int v = 1; v <= 6; ++v)
      for (int c = 1; c <= 3; ++c) EXPECT_EQ(zt::bits(p(v, c)), zt::bits(src(v, c)));
  }
}

TEST_F(pixfiles, OneVariableReaderReadsFourByteRealsFromAnEightByteFile) {
  const auto nptsz = zt::counts({4});
  rawbuilder b{true, true, {}};
  b.header(zt::pixheader());
  for (int v = 1; v <= 6; ++v) b.rec(bytes().r8(1.5).r8(-2.25).r8(3.0).r8(4.0));
  zt::writefile("p.dat", b.f.b);
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("p.dat", unformatted, 1, 1, nptsz, p);
  skiprawheader(true);
  readnextzelmpixvar(1, "p.dat", unformatted, 1, 1, nptsz, p);
  EXPECT_EQ(zt::services().readerrors, 0);
  // The first 16 bytes of the record, as four 4-byte reals: the halves of 1.5 and -2.25.
  const std::string rec = bytes().r8(1.5).r8(-2.25).b;
  for (int c = 1; c <= 4; ++c) {
    float f;
    std::memcpy(&f, rec.data() + 4 * (c - 1), 4);
    EXPECT_EQ(zt::bits(p(1, c)), zt::bits(f)) << c;
  }
  EXPECT_EQ(p(1, 1), 0.0f);  // low half of 1.5
  // The whole-file reader takes the same file as 8-byte reals.
  io::close(13);
  const auto q = readwhole("p.dat", unformatted, 1, 1, nptsz);
  EXPECT_EQ(q(1, 1), 1.5f);
  EXPECT_EQ(q(1, 2), -2.25f);
}

// ---- progress lines ------------------------------------------------------------------------------

TEST_F(pixfiles, WholeFileReaderPrintsOneLinePerVariableAndZone) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2, 1});
  const auto src = zt::makepix(7, 3);
  h.set(1);
  writezelmpixfile("p.dat", binary, 0, 2, nptsz, src);
  std::string out;
  readwhole("p.dat", binary, 0, 2, nptsz, &out);
  std::vector<std::string> want;
  for (int v = 1; v <= 7; ++v)
    for (int z = 1; z <= 2; ++z)
      want.push_back(" Reading Pix Variable            " + std::to_string(v) + "  in Zone            " +
                     std::to_string(z) + " ...");
  EXPECT_EQ(zt::lines(out), want);
  EXPECT_EQ(zt::lines(out)[0], " Reading Pix Variable            1  in Zone            1 ...");
}

TEST_F(pixfiles, OneVariableReaderAndWritersPrintNothing) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2, 2});
  const auto src = zt::makepix(7, 4);
  h.set(1);
  EXPECT_EQ(zt::capturestdout([&] { writezelmpixfile("p.txt", formatted, 0, 2, nptsz, src); }), "");
  EXPECT_EQ(zt::capturestdout([&] { writebyvariable("q.txt", formatted, 0, 2, nptsz, src); }), "");
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  EXPECT_EQ(zt::capturestdout([&] { readzelmpixfile("p.txt", formatted, 0, 2, nptsz, p); }), "");
  EXPECT_EQ(zt::capturestdout([&] {
              for (int v = 1; v <= 7; ++v) readnextzelmpixvar(v, "p.txt", formatted, 0, 2, nptsz, p);
            }),
            "");
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_EQ(p(1, 1), src(7, 1));
}

// ---- announcements, units, opens and closes ------------------------------------------------------

TEST_F(pixfiles, EveryRoutineAnnouncesItselfFirst) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  h.set(0);
  writezelmpixfile("p.dat", unformatted, 1, 1, nptsz, src);
  const auto row = zt::onerow(src, 1);
  writenextzelmpixvar(1, "q.dat", binary, 0, 1, nptsz, row);
  io::close(14);
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("p.dat", unformatted, 1, 1, nptsz, p);
  skiprawheader(true);
  readnextzelmpixvar(1, "p.dat", unformatted, 1, 1, nptsz, p);
  const auto& a = zt::services().announced;
  ASSERT_EQ(a.size(), 4u);
  const zt::announcement want[4] = {{2, 30, 100, "p.dat", 0, 1, false, 0},
                                    {2, 30, 100, "q.dat", 2, 0, true, 1},
                                    {1, 30, 100, "p.dat", 0, 1, false, 0},
                                    {1, 30, 100, "p.dat", 0, 1, true, 1}};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(a[i].iop, want[i].iop) << i;
    EXPECT_EQ(a[i].ikind, 30) << i;
    EXPECT_EQ(a[i].ilevel, 100) << i;
    EXPECT_EQ(a[i].file, want[i].file) << i;
    EXPECT_EQ(a[i].filetype, want[i].filetype) << i;
    EXPECT_EQ(a[i].dblprec, want[i].dblprec) << i;
    EXPECT_EQ(a[i].hasivar, want[i].hasivar) << i;
    EXPECT_EQ(a[i].ivar, want[i].ivar) << i;
  }
}

TEST_F(pixfiles, ReadersUseUnitThirteenAndWritersUnitFourteen) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  h.set(0);
  const auto row = zt::onerow(src, 1);
  writenextzelmpixvar(1, "p.dat", unformatted, 0, 1, nptsz, row);
  EXPECT_TRUE(io::isconnected(14));
  EXPECT_EQ(io::getunit(14).file(), "p.dat");
  EXPECT_FALSE(io::isconnected(13));
  io::close(14);
  writezelmpixfile("p.dat", unformatted, 0, 1, nptsz, src);
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("p.dat", unformatted, 0, 1, nptsz, p);
  EXPECT_TRUE(io::isconnected(13));
  EXPECT_EQ(io::getunit(13).file(), "p.dat");
  EXPECT_FALSE(io::isconnected(14));
}

TEST_F(pixfiles, WholeFileWriterClosesUnitFourteenAndOneVariableWriterLeavesItOpen) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(7, 2);
  h.set(1);
  for (int ft : {unformatted, formatted, binary}) {
    writezelmpixfile("p.dat", ft, 0, 1, nptsz, src);
    EXPECT_FALSE(io::isconnected(14));
    for (int v = 1; v <= 7; ++v) {
      const auto row = zt::onerow(src, v);
      writenextzelmpixvar(v, "q.dat", ft, 0, 1, nptsz, row);
      EXPECT_TRUE(io::isconnected(14));
    }
    io::close(14);
  }
}

TEST_F(pixfiles, OneVariableWriterOpensRawFilesOnEveryCall) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  h.set(0);
  for (int ft : {unformatted, binary}) {
    auto row = zt::onerow(src, 1);
    writenextzelmpixvar(1, "p.dat", ft, 0, 1, nptsz, row);
    io::close(14);
    // Variable 2 opens the file again ("unknown": at its start) and its record replaces the rest.
    row = zt::onerow(src, 2);
    writenextzelmpixvar(2, "p.dat", ft, 0, 1, nptsz, row);
    EXPECT_TRUE(io::isconnected(14));
    io::close(14);
    bytes e;
    const bytes rec = bytes().r4(src(2, 1)).r4(src(2, 2));
    if (ft == unformatted)
      e.record(rec);
    else
      e.then(rec);
    EXPECT_EQ(zt::readfile("p.dat"), e.b) << encname(ft);
  }
}

TEST_F(pixfiles, OneVariableWriterOpensFormattedFilesAtVariableOneOnly) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  h.set(0);
  auto row = zt::onerow(src, 1);
  writenextzelmpixvar(1, "p.txt", formatted, 0, 1, nptsz, row);
  io::close(14);
  row = zt::onerow(src, 2);
  EXPECT_THROW(writenextzelmpixvar(2, "p.txt", formatted, 0, 1, nptsz, row), zt::iofailure);
  EXPECT_EQ(zt::lines(zt::readfile("p.txt")).size(), 4u);  // header and variable 1 only
}

TEST_F(pixfiles, OneVariableWriterForARawFileWithoutAVariableOneCallFailsAtTheOpen) {
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(1, 2);
  EXPECT_THROW(writenextzelmpixvar(2, "p.dat", unformatted, 0, 1, nptsz, src), zt::iofailure);
  EXPECT_FALSE(std::filesystem::exists("p.dat"));
}

TEST_F(pixfiles, UnknownFileTypeInTheWholeFileWriterClosesUnitFourteenAndWritesNothing) {
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  io::open(14, "other.dat", "unformatted", "unknown");
  writezelmpixfile("p.dat", 3, 0, 1, nptsz, src);
  EXPECT_FALSE(io::isconnected(14));
  EXPECT_FALSE(std::filesystem::exists("p.dat"));
  EXPECT_EQ(zt::services().announced.size(), 1u);
}

TEST_F(pixfiles, UnknownFileTypeInTheOneVariableWriterDoesNothing) {
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(1, 2);
  io::open(14, "other.dat", "unformatted", "unknown");
  for (int v : {1, 2, 7}) writenextzelmpixvar(v, "p.dat", -1, 0, 1, nptsz, src);
  EXPECT_TRUE(io::isconnected(14));
  EXPECT_EQ(io::getunit(14).file(), "other.dat");
  EXPECT_FALSE(std::filesystem::exists("p.dat"));
  EXPECT_EQ(zt::readfile("other.dat"), "");
}

TEST_F(pixfiles, UnknownFileTypeInTheWholeFileReaderClosesUnitThirteenAndAllocatesNothing) {
  zt::writefile("p.dat", "1 2 3\n");
  io::open(13, "other.dat", "unformatted", "unknown");
  zt::scramblemodule();
  const auto nptsz = zt::counts({2});
  mod_gridvars::readallvars = 1;
  farray<float, 2> p;
  readzelmpixfile("p.dat", 7, 0, 1, nptsz, p);
  EXPECT_FALSE(io::isconnected(13));
  EXPECT_FALSE(p.allocated());
  EXPECT_EQ(mod_gridvars::npixvar, 4242);
  EXPECT_EQ(dvar, -7.5);
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_TRUE(zt::services().allocstatuses.empty());
}

TEST_F(pixfiles, UnknownFileTypeInTheOneVariableReaderReadsText) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  h.set(0);
  writezelmpixfile("p.txt", formatted, 0, 1, nptsz, src);
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("p.txt", formatted, 0, 1, nptsz, p);
  readnextzelmpixvar(1, "p.txt", 5, 1, 1, nptsz, p);
  EXPECT_EQ(zt::services().readerrors, 0) << zt::services().lastdetail;
  for (int c = 1; c <= 3; ++c) EXPECT_EQ(p(1, c), src(1, c));
  // A raw file read with such a code is read as text, and fails.
  writezelmpixfile("p.dat", unformatted, 0, 1, nptsz, src);
  io::close(13);
  readzelmpixfile("p.dat", unformatted, 0, 1, nptsz, p = farray<float, 2>());
  readnextzelmpixvar(1, "p.dat", 5, 0, 1, nptsz, p);
  EXPECT_EQ(zt::services().readerrors, 1);
}

TEST_F(pixfiles, OneVariableRoutinesUseRowOneOnly) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(7, 3);
  h.set(1);
  // The one-variable writer takes row 1 of a many-row array, whatever the variable.
  for (int v = 1; v <= 7; ++v) writenextzelmpixvar(v, "p.dat", unformatted, 0, 1, nptsz, src);
  io::close(14);
  farray<float, 2> ones;
  ones.allocate(7, 3);
  for (int v = 1; v <= 7; ++v)
    for (int c = 1; c <= 3; ++c) ones(v, c) = src(1, c);
  EXPECT_EQ(zt::readfile("p.dat"), rawfile(true, false, h, 1, nptsz, ones, 1, true));
  // The one-variable reader stores into row 1 of a many-row array and leaves the other rows.
  writezelmpixfile("q.dat", unformatted, 0, 1, nptsz, src);
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("q.dat", unformatted, 0, 1, nptsz, p);
  skiprawheader(false);
  farray<float, 2> many;
  many.allocate(3, 3);
  readnextzelmpixvar(1, "q.dat", unformatted, 0, 1, nptsz, many);
  readnextzelmpixvar(2, "q.dat", unformatted, 0, 1, nptsz, many);
  EXPECT_EQ(zt::services().readerrors, 0);
  for (int c = 1; c <= 3; ++c) {
    EXPECT_EQ(many(1, c), src(2, c));
    EXPECT_EQ(zt::bits(many(2, c)), zt::bits(zt::filled(fillbyte)));
    EXPECT_EQ(zt::bits(many(3, c)), zt::bits(zt::filled(fillbyte)));
  }
}

TEST_F(pixfiles, OneVariableReaderOfEightByteFileLeavesRowsBeyondItsOneRowWorkArray) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  h.set(0);
  writezelmpixfile("p.dat", unformatted, 1, 1, nptsz, src);
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("p.dat", unformatted, 1, 1, nptsz, p);
  skiprawheader(true);
  farray<float, 2> many;
  many.allocate(3, 2);
  readnextzelmpixvar(1, "p.dat", unformatted, 1, 1, nptsz, many);
  EXPECT_EQ(zt::services().readerrors, 0);
  const std::string rec = bytes().r8(src(1, 1)).b;
  float lo;
  std::memcpy(&lo, rec.data(), 4);
  EXPECT_EQ(zt::bits(many(1, 1)), zt::bits(lo));
  for (int r = 2; r <= 3; ++r)
    for (int c = 1; c <= 2; ++c) EXPECT_EQ(zt::bits(many(r, c)), zt::bits(zt::filled(fillbyte)));
}

// ---- bad input -----------------------------------------------------------------------------------

TEST_F(pixfiles, WrongPrecisionFourByteFileReadAsEightByteFailsBeforeAllocating) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  h.set(0);
  for (int ft : {unformatted, binary}) {
    zt::services().clear();
    h.set(0);
    writezelmpixfile("p.dat", ft, 0, 1, nptsz, src);
    zt::scramblemodule();
    const auto p = readwhole("p.dat", ft, 1, 1, nptsz);
    EXPECT_EQ(zt::services().readerrors, 1) << encname(ft);
    EXPECT_FALSE(p.allocated());
    EXPECT_EQ(mod_gridvars::npixvar, 4242);
    EXPECT_TRUE(io::isconnected(13));
    io::close(13);
    const std::string& d = zt::services().lastdetail;
    if (ft == unformatted)  // H1 holds 12 bytes where 24 are read
      EXPECT_NE(d.find("header record 1) at byte 0: the record holds fewer data"), std::string::npos) << d;
    else  // the stream runs out in the sizing pass: 49 + 6 * 12 bytes where 73 + 6 * 24 are read
      EXPECT_NE(d.find("end of file"), std::string::npos) << d;
  }
}

TEST_F(pixfiles, WrongPrecisionEightByteFramedFileReadAsFourByteGivesHalvesOfTheValues) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({4});
  farray<float, 2> src;
  src.allocate(6, 4);
  for (int v = 1; v <= 6; ++v)
    for (int c = 1; c <= 4; ++c) src(v, c) = 1.5f * static_cast<float>(v * c);
  h.set(0);
  writezelmpixfile("p.dat", unformatted, 1, 1, nptsz, src);
  const auto p = readwhole("p.dat", unformatted, 0, 1, nptsz);
  EXPECT_EQ(zt::services().readerrors, 0);  // each record holds more than is read: the rest is skipped
  for (int v = 1; v <= 6; ++v) {
    const std::string rec = bytes().r8(src(v, 1)).r8(src(v, 2)).b;
    for (int c = 1; c <= 4; ++c) {
      float f;
      std::memcpy(&f, rec.data() + 4 * (c - 1), 4);
      EXPECT_EQ(zt::bits(p(v, c)), zt::bits(f));
    }
  }
  float lo, hi;
  const std::string hrec = bytes().r8(h.dvar).b;
  std::memcpy(&lo, hrec.data(), 4);
  std::memcpy(&hi, hrec.data() + 4, 4);
  EXPECT_EQ(dvar, static_cast<double>(lo));
  EXPECT_EQ(dgamma, static_cast<double>(hi));
}

TEST_F(pixfiles, WrongPrecisionEightByteUnframedFileReadAsFourByteIsOutOfStep) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({4});
  // Whole numbers: the low halves of their 8-byte forms are zero, so the free count that the
  // reader finds in the middle of the values is 0.
  farray<float, 2> src;
  src.allocate(6, 4);
  for (int v = 1; v <= 6; ++v)
    for (int c = 1; c <= 4; ++c) src(v, c) = static_cast<float>(10 * v + c);
  h.set(0);
  writezelmpixfile("p.dat", binary, 1, 1, nptsz, src);
  const std::string f = zt::readfile("p.dat");
  ASSERT_EQ(f.size(), 48u + 25u + 6u * 32u);
  // The reader takes 12 + 12 + 25 header bytes, 16 bytes per variable, and a free count after them.
  const std::size_t countat = 12 + 12 + 25 + 6 * 16;
  std::int32_t count;
  std::memcpy(&count, f.data() + countat, 4);
  ASSERT_EQ(count, 0);
  const auto p = readwhole("p.dat", binary, 0, 1, nptsz);
  EXPECT_EQ(zt::services().readerrors, 0);
  EXPECT_EQ(nfree, 0);
  ASSERT_EQ(p.extent(1), 6);
  for (int v = 1; v <= 6; ++v) {
    for (int c = 1; c <= 4; ++c) {
      float want;
      std::memcpy(&want, f.data() + 49 + 16 * (v - 1) + 4 * (c - 1), 4);
      EXPECT_EQ(zt::bits(p(v, c)), zt::bits(want)) << v << " " << c;
    }
  }
  EXPECT_NE(p(1, 1), src(1, 1));
}

TEST_F(pixfiles, GarbageIsAReadFailureInEveryEncoding) {
  std::mt19937 rng(12345);
  std::string junk(200, '\0');  // shorter than the fixed variables in every precision
  for (char& ch : junk) ch = static_cast<char>(rng() & 0xff);
  junk[0] = '\x7f', junk[1] = '\x7f', junk[2] = '\x7f', junk[3] = '\x7f';  // an impossible record length
  const auto nptsz = zt::counts({5, 5});
  for (int ft : {unformatted, binary}) {
    for (logical dp : {0, 1}) {
      zt::services().clear();
      zt::writefile("g.dat", junk);
      const auto p = readwhole("g.dat", ft, dp, 2, nptsz);
      EXPECT_EQ(zt::services().readerrors, 1) << encname(ft) << " " << dp;
      io::close(13);
    }
  }
  zt::services().clear();
  zt::writefile("g.txt", "1.0 2.0 3.0\n4.0 five 6.0\nheader\n");
  zt::scramblemodule();
  const auto p = readwhole("g.txt", formatted, 0, 2, nptsz);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("five"), std::string::npos) << zt::services().lastdetail;
  EXPECT_EQ(dvar, 1.0);
  EXPECT_EQ(drgas, 3.0);
  EXPECT_EQ(dr0, 4.0);  // stored before the bad value
  EXPECT_FALSE(p.allocated());
}

TEST_F(pixfiles, NegativeFreeCountGivesTooFewRowsAndAFailedReadInsteadOfAStore) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  for (int ft : {unformatted, formatted, binary}) {
    zt::services().clear();
    std::string f = pixfile(ft, false, h, 1, nptsz, src, 0, false);
    f += ft == formatted     ? std::string(" -3\n")
         : ft == unformatted ? bytes().record(bytes().i4(-3)).b
                             : bytes().i4(-3).b;
    zt::writefile("p.dat", f);
    const auto p = readwhole("p.dat", ft, 0, 1, nptsz);
    EXPECT_EQ(nfree, -3);
    EXPECT_EQ(mod_gridvars::npixvar, 3);
    ASSERT_EQ(p.extent(1), 3);
    EXPECT_EQ(zt::services().readerrors, 1);
    EXPECT_NE(zt::services().lastdetail.find("variable 4 zone 1"), std::string::npos)
        << zt::services().lastdetail;
    EXPECT_NE(zt::services().lastdetail.find("do not fit an array of 3 x 2"), std::string::npos)
        << zt::services().lastdetail;
    EXPECT_EQ(p(3, 2), src(3, 2));
    io::close(13);
  }
}

TEST_F(pixfiles, HugeFreeCountWrapsNpixvarAndIsReportedInsteadOfStoring) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  std::string f = rawfile(true, false, h, 1, nptsz, src, 0, false) + bytes().record(bytes().i4(INT_MAX)).b;
  zt::writefile("p.dat", f);
  const auto p = readwhole("p.dat", unformatted, 0, 1, nptsz);
  EXPECT_EQ(nfree, INT_MAX);
  EXPECT_EQ(mod_gridvars::npixvar, INT_MIN + 5);
  EXPECT_TRUE(p.allocated());
  EXPECT_EQ(p.extent(1), 0);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("variable 1 zone 1"), std::string::npos)
      << zt::services().lastdetail;
}

TEST_F(pixfiles, FreeCountWithoutLabelsIsAFailedRead) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({2});
  const auto src = zt::makepix(6, 2);
  zt::writefile("p.dat", rawfile(false, false, h, 1, nptsz, src, 0, false) + bytes().i4(1000).b);
  const auto p = readwhole("p.dat", binary, 0, 1, nptsz);
  EXPECT_EQ(nfree, 1000);
  EXPECT_EQ(mod_gridvars::npixvar, 1006);
  EXPECT_EQ(p.extent(1), 1006);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("label of free variable 1"), std::string::npos)
      << zt::services().lastdetail;
  for (int v = 1; v <= 6; ++v) EXPECT_EQ(p(v, 2), src(v, 2));
}

TEST_F(pixfiles, ValueArrayAlreadyAllocatedIsReportedAndTooSmallIsAFailedRead) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3, 2});
  const auto src = zt::makepix(7, 5);
  h.set(1);
  writezelmpixfile("p.dat", unformatted, 0, 2, nptsz, src);
  mod_gridvars::readallvars = 1;
  farray<float, 2> p;
  p.allocate(2, 2);
  for (int i = 0; i < 4; ++i) p.data()[i] = -1.0f;
  readzelmpixfile("p.dat", unformatted, 0, 2, nptsz, p);
  ASSERT_EQ(zt::services().allocstatuses.size(), 1u);
  EXPECT_EQ(zt::services().allocstatuses[0], fortran::stat_already_allocated);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("variable 1 zone 1"), std::string::npos)
      << zt::services().lastdetail;
  EXPECT_EQ(p.extent(1), 2);
  EXPECT_EQ(p.extent(2), 2);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(p.data()[i], -1.0f);
  EXPECT_TRUE(io::isconnected(13));
}

TEST_F(pixfiles, ValueArrayAlreadyAllocatedWithRoomIsFilledAfterTheReport) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  h.set(0);
  writezelmpixfile("p.dat", binary, 0, 1, nptsz, src);
  mod_gridvars::readallvars = 1;
  farray<float, 2> p;
  p.allocate(6, 3);
  readzelmpixfile("p.dat", binary, 0, 1, nptsz, p);
  EXPECT_EQ(zt::services().allocstatuses, std::vector<int>{fortran::stat_already_allocated});
  EXPECT_EQ(zt::services().readerrors, 0);
  for (int v = 1; v <= 6; ++v)
    for (int c = 1; c <= 3; ++c) EXPECT_EQ(p(v, c), src(v, c));
}

TEST_F(pixfiles, EightByteCopyThatDoesNotCoverTheValueArrayIsAFailedRead) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  h.set(0);
  writezelmpixfile("p.dat", unformatted, 1, 1, nptsz, src);
  mod_gridvars::readallvars = 1;
  farray<float, 2> p;
  p.allocate(9, 3);  // already allocated, with more rows than the file's six variables
  readzelmpixfile("p.dat", unformatted, 1, 1, nptsz, p);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("do not cover the value array"), std::string::npos)
      << zt::services().lastdetail;
  for (int i = 0; i < 27; ++i) EXPECT_EQ(zt::bits(p.data()[i]), zt::bits(zt::filled(fillbyte)));
  EXPECT_TRUE(io::isconnected(13));
}

TEST_F(pixfiles, FailedAllocationIsReportedAndTheReaderGoesOnWithoutStoring) {
  const zt::pixheader h;
  // npixvar x nptot 4-byte reals do not fit the address space.
  const auto nptsz = zt::counts({2, INT_MAX, INT_MAX});
  const auto src = zt::makepix(6, 2);
  zt::writefile(
      "p.dat", rawfile(true, false, h, 1, nptsz, src, 0, false) + bytes().record(bytes().i4(INT_MAX - 10)).b);
  const auto p = readwhole("p.dat", unformatted, 0, 1, nptsz);
  EXPECT_EQ(zt::services().allocstatuses, std::vector<int>{fortran::stat_no_memory});
  EXPECT_FALSE(p.allocated());
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("unallocated"), std::string::npos) << zt::services().lastdetail;
  // Pass 2 ran up to the first store: the 4-byte header was widened into the module variables.
  EXPECT_EQ(dvar, static_cast<double>(static_cast<float>(h.dvar)));
}

TEST_F(pixfiles, OneVariableReaderWithoutValueArrayIsAFailedRead) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(6, 3);
  h.set(0);
  writezelmpixfile("p.txt", formatted, 0, 1, nptsz, src);
  mod_gridvars::readallvars = 0;
  farray<float, 2> p;
  readzelmpixfile("p.txt", formatted, 0, 1, nptsz, p);
  farray<float, 2> none;
  readnextzelmpixvar(1, "p.txt", formatted, 0, 1, nptsz, none);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("unallocated"), std::string::npos) << zt::services().lastdetail;
}

TEST_F(pixfiles, NptszShorterThanNzonesIsAFailedReadAndEndsAWriterBeforeItOpens) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({3});
  const auto src = zt::makepix(7, 3);
  h.set(1);
  writezelmpixfile("p.dat", unformatted, 0, 1, nptsz, src);
  const auto p = readwhole("p.dat", unformatted, 0, 2, nptsz);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("nptsz holds 1 node counts for 2 zones"), std::string::npos)
      << zt::services().lastdetail;
  EXPECT_FALSE(p.allocated());
  io::close(13);
  mod_gridvars::readallvars = 0;
  farray<float, 2> q;
  q.allocate(1, 3);
  readnextzelmpixvar(1, "p.dat", unformatted, 0, 2, nptsz, q);
  EXPECT_EQ(zt::services().readerrors, 2);
  EXPECT_THROW(writezelmpixfile("w.dat", unformatted, 0, 2, nptsz, src), zt::iofailure);
  EXPECT_THROW(writenextzelmpixvar(1, "w.dat", binary, 0, 2, nptsz, src), zt::iofailure);
  EXPECT_FALSE(std::filesystem::exists("w.dat"));
}

TEST_F(pixfiles, NegativeNodeCountThatMovesAZoneBeforeColumnOne) {
  const auto nptsz = zt::counts({-2, 1, 3});  // zone 3 would start at column 1 + (-2)
  const auto src = zt::makepix(6, 3);
  rawbuilder b{true, false, {}};
  b.header(zt::pixheader());
  for (int v = 1; v <= 6; ++v) {
    b.rec(bytes());
    b.rec(bytes().r4(1.0f));
    b.rec(bytes().r4(1.0f).r4(2.0f).r4(3.0f));
  }
  zt::writefile("p.dat", b.f.b);
  const auto p = readwhole("p.dat", unformatted, 0, 3, nptsz);
  EXPECT_EQ(p.extent(2), 2);
  EXPECT_EQ(zt::services().readerrors, 1);
  EXPECT_NE(zt::services().lastdetail.find("node columns -1 .. 1"), std::string::npos)
      << zt::services().lastdetail;
  EXPECT_THROW(writezelmpixfile("w.dat", unformatted, 0, 3, nptsz, src), zt::iofailure);
  EXPECT_FALSE(std::filesystem::exists("w.dat"));
}

TEST_F(pixfiles, WritersGivenTooSmallArraysEndTheRunBeforeOpening) {
  const zt::pixheader h;
  const auto nptsz = zt::counts({4, 2});
  h.set(2);
  const auto fewrows = zt::makepix(7, 4);
  try {
    writezelmpixfile("w.dat", binary, 0, 2, nptsz, fewrows);
    FAIL() << "no failure";
  } catch (const zt::iofailure& e) {
    EXPECT_NE(std::string(e.what()).find("writezelmpixfile: pix has 7 rows for 8 variables"),
              std::string::npos)
        << e.what();
  }
  const auto fewcols = zt::makepix(8, 3);
  EXPECT_THROW(writezelmpixfile("w.dat", formatted, 0, 2, nptsz, fewcols), zt::iofailure);
  EXPECT_THROW(writenextzelmpixvar(1, "w.dat", unformatted, 0, 2, nptsz, fewcols), zt::iofailure);
  // With 8-byte reals the whole npixvar x nptot array is widened.
  const auto enough = zt::makepix(8, 4);
  mod_gridvars::npixvar = 9;
  EXPECT_THROW(writezelmpixfile("w.dat", unformatted, 1, 2, nptsz, enough), zt::iofailure);
  mod_gridvars::npixvar = 7;  // fewer than the 6 + nfree variables written
  EXPECT_THROW(writezelmpixfile("w.dat", unformatted, 1, 2, nptsz, enough), zt::iofailure);
  farray<float, 2> none;
  EXPECT_THROW(writenextzelmpixvar(1, "w.dat", unformatted, 0, 2, nptsz, none), zt::iofailure);
  EXPECT_FALSE(std::filesystem::exists("w.dat"));
  // Rows are not needed where there are no values.
  const auto empty = zt::counts({0, 0});
  writezelmpixfile("w.dat", unformatted, 0, 2, empty, none);
  EXPECT_TRUE(std::filesystem::exists("w.dat"));
}

TEST_F(pixfiles, WriterGivenTooSmallArrayEndsTheRunWithTheDefaultHandler) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto nptsz = zt::counts({4});
  const auto src = zt::makepix(3, 4);
  EXPECT_EXIT(
      {
        io::setfailurehandler(nullptr);
        io::setstophandler(nullptr);
        writezelmpixfile("w.dat", unformatted, 0, 1, nptsz, src);
      },
      ::testing::ExitedWithCode(2), "writezelmpixfile: pix has 3 rows");
}
