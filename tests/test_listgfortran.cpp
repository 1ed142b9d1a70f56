// List-directed output against gfortran's: a gfortran program (tests/fortran/listref.f90) and the
// library write the same values in the same records, edge cases and a million random values of
// each kind, texts mixed with numbers, records of up to a million values, to a file and to
// standard output. The two must be the same bytes, and the library's file must read back.
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>

#include "records.hpp"
#include "testsupport.hpp"

namespace io = mod_zelmgrid::io;

namespace {

constexpr std::size_t randomcount = 1000000;

template <class T>
T frombits(std::uint64_t b) {
  using bitsof = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;
  const auto w = static_cast<bitsof>(b);
  T x;
  std::memcpy(&x, &w, sizeof x);
  return x;
}

// Values next to every bound of the two forms and of the kind's range, and specials.
template <class T>
std::vector<T> edgereals() {
  using lim = std::numeric_limits<T>;
  constexpr bool four = sizeof(T) == 4;
  std::vector<T> base = {
      T(0.5), T(287.05), T(1) / T(3), T(2) / T(3), T(123456789), T(12345.6789), lim::min(), lim::denorm_min(),
      std::nextafter(lim::min(), T(0)), lim::max(), lim::infinity(), lim::quiet_NaN(),
      frombits<T>(four ? 0x7f800001ULL : 0x7ff0000000000001ULL),  // signalling NaN
      // ties at the last digit, which round to even
      four ? T(1048576.125) : T(562949953421312.125), four ? T(1048576.375) : T(562949953421312.375),
      four ? T(1048577.125) : T(562949953421313.125)};
  for (int e = lim::min_exponent10 - 8; e <= lim::max_exponent10; ++e) {
    const T p = static_cast<T>(std::pow(10.0L, e));
    if (p == 0 || !std::isfinite(p)) continue;
    for (T q : {p, std::nextafter(p, T(0)), std::nextafter(p, lim::infinity())}) base.push_back(q);
  }
  for (int e = -30; e <= 30; ++e) base.push_back(static_cast<T>(9.99999999999999999e0L * std::pow(10.0L, e)));
  std::vector<T> v = {T(0), -T(0)};
  for (T x : base) {
    v.push_back(x);
    v.push_back(-x);
  }
  return v;
}

// Random bit patterns; every other one with its exponent drawn from 2^-10 .. 2^63, where the
// fixed form and the bounds between the forms lie.
template <class T>
std::vector<T> randomreals(std::mt19937_64& g) {
  constexpr bool four = sizeof(T) == 4;
  constexpr int mantbits = four ? 23 : 52, bias = four ? 127 : 1023;
  std::uniform_int_distribution<int> exponent(bias - 10, bias + 63);
  std::vector<T> v(randomcount);
  for (std::size_t i = 0; i < v.size(); ++i) {
    std::uint64_t b = g();
    if (four) b &= 0xffffffffULL;
    if (i % 2 == 1) {
      const std::uint64_t expmask = (four ? 0xffULL : 0x7ffULL) << mantbits;
      b = (b & ~expmask) | (static_cast<std::uint64_t>(exponent(g)) << mantbits);
    }
    v[i] = frombits<T>(b);
  }
  return v;
}

struct values {
  std::vector<float> x4;
  std::vector<double> x8;
  std::vector<int> k;
  std::size_t ne4, ne8, nei;
};

values makevalues() {
  values v;
  v.x4 = edgereals<float>();
  v.x8 = edgereals<double>();
  v.k = {0,
         1,
         -1,
         7,
         -7,
         10,
         -10,
         99999,
         -99999,
         123456789,
         -123456789,
         1000000000,
         -1000000000,
         std::numeric_limits<int>::max(),
         std::numeric_limits<int>::min()};
  v.ne4 = v.x4.size();
  v.ne8 = v.x8.size();
  v.nei = v.k.size();
  std::mt19937_64 g(20250611);
  const auto r4 = randomreals<float>(g);
  const auto r8 = randomreals<double>(g);
  v.x4.insert(v.x4.end(), r4.begin(), r4.end());
  v.x8.insert(v.x8.end(), r8.begin(), r8.end());
  for (std::size_t i = 0; i < randomcount; ++i)
    v.k.push_back(static_cast<int>(static_cast<std::uint32_t>(g())));
  return v;
}

// The stream file that the reference program reads.
void writevalues(const values& v, const std::string& file) {
  zt::bytes b;
  for (std::size_t n : {v.ne4, v.x4.size(), v.ne8, v.x8.size(), v.nei, v.k.size()})
    b.i4(static_cast<std::int32_t>(n));
  b.raw(v.x4.data(), 4 * v.x4.size()).raw(v.x8.data(), 8 * v.x8.size()).raw(v.k.data(), 4 * v.k.size());
  zt::writefile(file, b.b);
}

// The reference program writes the values to gfortran.txt, or with "stdout" to gfortran.out.
void referencewrites(const values& v, const std::string& where) {
  writevalues(v, "values.bin");
  const std::string cmd = std::string(ZELM_FORTRAN_DIR) + "/fortran_listref values.bin gfortran.txt " +
                          where + " > gfortran.out 2> gfortran.err";
  ASSERT_EQ(std::system(cmd.c_str()), 0) << zt::readfile("gfortran.err");
}

// The records of a kind as the reference writes them: the edge cases one to a record, then all
// values in records of 1, 10, 100, 100000 and the rest.
template <class T, class F>
void eachrecord(const std::vector<T>& x, std::size_t edges, F&& record) {
  for (std::size_t i = 0; i < edges; ++i) record(x.data() + i, std::size_t{1});
  std::size_t pos = 0;
  for (std::size_t size :
       {std::size_t{1}, std::size_t{10}, std::size_t{100}, std::size_t{100000}, x.size()}) {
    const std::size_t m = std::min(size, x.size() - pos);
    record(x.data() + pos, m);
    pos += m;
  }
}

template <class T>
void writerecords(io::unit& u, const std::vector<T>& x, std::size_t edges) {
  eachrecord(x, edges, [&](const T* p, std::size_t n) {
    io::listwrite(u, io::items(p, static_cast<fortran::index_t>(n)));
  });
}

// The texts-and-numbers records of the reference, to the unit.
void writemixed(io::unit& u, const values& v) {
  const std::vector<int>& k = v.k;
  const std::string padded = "Mach 0.5 run" + std::string(13, ' ');
  for (std::size_t i = 0; i < v.nei; ++i) io::listwrite(u, "Reading Grid Points in Zone ", k[i], "...");
  io::listwrite(u, "abc", "def");
  io::listwrite(u, "abc", "def", "ghi", k[0], k[1], "jkl", k[2], "mno", "pqr");
  io::listwrite(u, k[0], "text");
  io::listwrite(u, "text", 1.5f, "x", 2.5, "y", -0.0f, "z", 1e20f, 1e-5, "w");
  io::listwrite(u, 1.5f, "a", k[0], 2.5, "b", "c");
  io::listwrite(u, "");
  io::listwrite(u, "", "");
  io::listwrite(u, "", k[0]);
  io::listwrite(u);
  io::listwrite(u, padded);
  io::listwrite(u, padded, padded, k[1], padded);
  io::listwrite(u, "NDOTS", k[2]);
  io::listwrite(u, " # of boundary faces: ", k[3]);
}

// The first line where two texts differ, shown around the first differing column.
std::string firstdifference(const std::string& ours, const std::string& theirs) {
  const auto at = std::mismatch(ours.begin(), ours.end(), theirs.begin(), theirs.end());
  const auto offset = static_cast<std::size_t>(at.first - ours.begin());
  const std::size_t line = static_cast<std::size_t>(std::count(ours.begin(), at.first, '\n')) + 1;
  const std::size_t from = offset < 60 ? 0 : offset - 60;
  return "first difference at byte " + std::to_string(offset) + ", line " + std::to_string(line) +
         "\n  ours:     \"" + ours.substr(from, 120) + "\"\n  gfortran: \"" + theirs.substr(from, 120) + "\"";
}

class listgfortran : public zt::zelmtest {
 protected:
  void SetUp() override {
    zt::zelmtest::SetUp();
    if (std::string(ZELM_FORTRAN_DIR).empty()) GTEST_SKIP() << "no Fortran compiler: no reference program";
  }
};

}  // namespace

TEST_F(listgfortran, FilesAreTheBytesGfortranWrites) {
  const values v = makevalues();
  ASSERT_NO_FATAL_FAILURE(referencewrites(v, ""));

  io::open(21, "ours.txt", "formatted", "unknown");
  io::unit& u = io::getunit(21);
  writerecords(u, v.x4, v.ne4);
  writerecords(u, v.x8, v.ne8);
  writerecords(u, v.k, v.nei);
  writemixed(u, v);
  io::close(21);

  const std::string ours = zt::readfile("ours.txt");
  const std::string theirs = zt::readfile("gfortran.txt");
  ASSERT_FALSE(theirs.empty());
  EXPECT_TRUE(ours == theirs) << firstdifference(ours, theirs);
  // One line a record, however long: the reference's record count.
  const std::size_t records = v.ne4 + v.ne8 + v.nei + 3 * 5 + v.nei + 13;
  EXPECT_EQ(static_cast<std::size_t>(std::count(ours.begin(), ours.end(), '\n')), records);

  // The numbers read back as they were, record by record; NaNs as NaNs.
  io::open(21, "ours.txt", "formatted", "old");
  std::size_t differ = 0;
  const auto readback = [&](const auto& x, std::size_t edges) {
    using T = std::decay_t<decltype(x[0])>;
    std::vector<T> back;
    eachrecord(x, edges, [&](const T* p, std::size_t n) {
      back.assign(n, T{});
      ASSERT_EQ(io::listread(u, io::items(back.data(), static_cast<fortran::index_t>(n))), io::rstat::ok)
          << io::lastreaderror();
      for (std::size_t i = 0; i < n; ++i) {
        const bool same = std::isnan(static_cast<double>(p[i]))
                              ? std::isnan(static_cast<double>(back[i]))
                              : std::memcmp(&p[i], &back[i], sizeof(T)) == 0;
        differ += same ? 0 : 1;
      }
    });
  };
  readback(v.x4, v.ne4);
  readback(v.x8, v.ne8);
  readback(v.k, v.nei);
  io::close(21);
  EXPECT_EQ(differ, 0u);
}

TEST_F(listgfortran, StandardOutputIsTheBytesGfortranWrites) {
  const values v = makevalues();
  ASSERT_NO_FATAL_FAILURE(referencewrites(v, "stdout"));
  const std::string ours = zt::capturestdout([&] {
    writemixed(io::getunit(6), v);
    io::print(io::items(v.x4.data(), 100000));
    io::print(io::items(v.x8.data(), 100000));
  });
  const std::string theirs = zt::readfile("gfortran.out");
  ASSERT_FALSE(theirs.empty());
  EXPECT_TRUE(ours == theirs) << firstdifference(ours, theirs);
}
