// List-directed output: the text of each value as gfortran 12 writes it with WRITE (u, *), and
// the values read back unchanged. The tables hold the lines gfortran wrote for their values; the
// random values are checked against a model of the same rules built on std::to_chars' digits
// (zt::listreal, which the other suites use for the text they expect).
// tests/test_listgfortran.cpp compares whole files with a gfortran program's.
#include <cfloat>
#include <cmath>
#include <limits>
#include <random>

#include "records.hpp"
#include "testsupport.hpp"

namespace io = mod_zelmgrid::io;

namespace {

class listformat : public zt::zelmtest {};

constexpr float finf = std::numeric_limits<float>::infinity();
constexpr double dinf = std::numeric_limits<double>::infinity();
constexpr float nan4 = std::numeric_limits<float>::quiet_NaN();
constexpr double nan8 = std::numeric_limits<double>::quiet_NaN();

template <class T>
struct written {
  T value;
  const char* line;  // what gfortran wrote for `write (u, *) value`
};

const written<float> fourbyte[] = {
    {0.0f, "   0.00000000    "},
    {-0.0f, "  -0.00000000    "},
    {0.5f, "  0.500000000    "},
    {-0.5f, " -0.500000000    "},
    {287.05f, "   287.049988    "},
    {1.0f, "   1.00000000    "},
    {2.0f / 3.0f, "  0.666666687    "},
    {12345.6789f, "   12345.6787    "},
    {0.1f, "  0.100000001    "},
    {-0.1f, " -0.100000001    "},
    {std::nextafter(0.1f, 0.0f), "   9.99999940E-02"},
    {1e8f, "   100000000.    "},
    {std::nextafter(1e8f, 0.0f), "   99999992.0    "},
    {123456789.0f, "   123456792.    "},
    {std::nextafter(1e9f, 0.0f), "   999999936.    "},
    {1e9f, "   1.00000000E+09"},
    {-1e9f, "  -1.00000000E+09"},
    {1e10f, "   1.00000000E+10"},
    {1e-5f, "   9.99999975E-06"},
    {1e-10f, "   1.00000001E-10"},
    {1048576.125f, "   1048576.12    "},
    {1048576.375f, "   1048576.38    "},
    {FLT_MIN, "   1.17549435E-38"},
    {FLT_TRUE_MIN, "   1.40129846E-45"},
    {-FLT_TRUE_MIN, "  -1.40129846E-45"},
    {FLT_MAX, "   3.40282347E+38"},
    {-FLT_MAX, "  -3.40282347E+38"},
    {finf, "         Infinity"},
    {-finf, "        -Infinity"},
    {nan4, "              NaN"},
    {-nan4, "              NaN"},
};

const written<double> eightbyte[] = {
    {0.0, "   0.0000000000000000     "},
    {-0.0, "  -0.0000000000000000     "},
    {0.5, "  0.50000000000000000     "},
    {-0.5, " -0.50000000000000000     "},
    {287.05, "   287.05000000000001     "},
    {1.0, "   1.0000000000000000     "},
    {1.0 / 3.0, "  0.33333333333333331     "},
    {123.0, "   123.00000000000000     "},
    {0.1, "  0.10000000000000001     "},
    {-0.1, " -0.10000000000000001     "},
    {std::nextafter(0.1, 0.0), "   9.9999999999999992E-002"},
    {0.01, "   1.0000000000000000E-002"},
    {1e15, "   1000000000000000.0     "},
    {std::nextafter(1e16, 0.0), "   9999999999999998.0     "},
    {1e16, "   10000000000000000.     "},
    {std::nextafter(1e17, 0.0), "   99999999999999984.     "},
    {1e17, "   1.0000000000000000E+017"},
    {-1e17, "  -1.0000000000000000E+017"},
    {1e99, "   9.9999999999999997E+098"},
    {1e100, "   1.0000000000000000E+100"},
    {-1e100, "  -1.0000000000000000E+100"},
    {1e-100, "   1.0000000000000000E-100"},
    {1e-5, "   1.0000000000000001E-005"},
    {562949953421312.125, "   562949953421312.12     "},
    {562949953421312.375, "   562949953421312.38     "},
    {DBL_MIN, "   2.2250738585072014E-308"},
    {DBL_TRUE_MIN, "   4.9406564584124654E-324"},
    {-DBL_TRUE_MIN, "  -4.9406564584124654E-324"},
    {DBL_MAX, "   1.7976931348623157E+308"},
    {-DBL_MAX, "  -1.7976931348623157E+308"},
    {dinf, "                  Infinity"},
    {-dinf, "                 -Infinity"},
    {nan8, "                       NaN"},
    {-nan8, "                       NaN"},
};

const written<int> integers[] = {
    {0, "           0"},
    {1, "           1"},
    {-1, "          -1"},
    {12345, "       12345"},
    {std::numeric_limits<int>::max(), "  2147483647"},
    {std::numeric_limits<int>::min(), " -2147483648"},
};

// The lines the library writes for the values, one record each.
template <class T>
std::vector<std::string> writeeach(const std::vector<T>& values) {
  io::open(21, "values.txt", "formatted", "unknown");
  io::unit& u = io::getunit(21);
  for (T x : values) io::listwrite(u, x);
  io::close(21);
  return zt::lines(zt::readfile("values.txt"));
}

template <class T, std::size_t N>
void expecttable(const written<T> (&table)[N]) {
  std::vector<T> values;
  for (const auto& w : table) values.push_back(w.value);
  const auto lines = writeeach(values);
  ASSERT_EQ(lines.size(), N);
  for (std::size_t i = 0; i < N; ++i) EXPECT_EQ(lines[i], table[i].line) << "entry " << i;
}

template <class T>
std::vector<T> samples(std::size_t random) {
  using bitsof = std::conditional_t<std::is_same_v<T, float>, std::uint32_t, std::uint64_t>;
  std::vector<T> v;
  // Powers of ten and their neighbours, where the decimal exponent changes.
  for (int e = std::numeric_limits<T>::min_exponent10 - 8; e <= std::numeric_limits<T>::max_exponent10; ++e) {
    const T p = static_cast<T>(std::pow(10.0L, e));
    if (!std::isfinite(p) || p == 0) continue;
    for (T q : {p, std::nextafter(p, T(0)), std::nextafter(p, std::numeric_limits<T>::infinity())}) {
      v.push_back(q);
      v.push_back(-q);
    }
  }
  // Whole numbers, and values whose digits round up to the next power of ten (9.99999999..).
  for (long long n = 1; n < 1000000000000LL; n = n * 7 + 3) v.push_back(static_cast<T>(n));
  for (int e = -30; e <= 30; ++e) v.push_back(static_cast<T>(9.9999999999999999e0L * std::pow(10.0L, e)));
  std::mt19937_64 g(20240611);
  for (std::size_t i = 0; i < random; ++i) {
    const auto b = static_cast<bitsof>(g());
    T x;
    std::memcpy(&x, &b, sizeof x);
    v.push_back(x);
  }
  return v;
}

// Every value's line as the model gives it, and every value read back: the finite ones exactly.
template <class T>
void checkmodelandreadback(const std::vector<T>& values) {
  const auto lines = writeeach(values);
  ASSERT_EQ(lines.size(), values.size());
  std::size_t wrong = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (lines[i] == zt::listreal(values[i])) continue;
    if (++wrong <= 10)
      ADD_FAILURE() << "value " << i << ": \"" << lines[i] << "\", expected \"" << zt::listreal(values[i])
                    << "\"";
  }
  EXPECT_EQ(wrong, 0u);
  io::open(21, "values.txt", "formatted", "old");
  io::unit& u = io::getunit(21);
  std::size_t differ = 0;
  for (T x : values) {
    T y{};
    ASSERT_EQ(io::listread(u, y), io::rstat::ok) << io::lastreaderror();
    if (std::isfinite(x) ? std::memcmp(&x, &y, sizeof x) != 0 : std::isnan(x) != std::isnan(y)) ++differ;
  }
  io::close(21);
  EXPECT_EQ(differ, 0u);
}

std::string writtenrecord(const auto&... items) {
  io::open(21, "record.txt", "formatted", "unknown");
  io::listwrite(io::getunit(21), items...);
  io::close(21);
  return zt::readfile("record.txt");
}

}  // namespace

TEST_F(listformat, FourByteRealsAsGfortranWritesThem) {
  expecttable(fourbyte);
}

TEST_F(listformat, EightByteRealsAsGfortranWritesThem) {
  expecttable(eightbyte);
}

TEST_F(listformat, IntegersAsGfortranWritesThem) {
  expecttable(integers);
}

TEST_F(listformat, TheModelAgreesWithTheTables) {
  for (const auto& w : fourbyte) EXPECT_EQ(zt::listreal(w.value), w.line);
  for (const auto& w : eightbyte) EXPECT_EQ(zt::listreal(w.value), w.line);
}

TEST_F(listformat, FourByteRealsFollowTheModelAndReadBack) {
  checkmodelandreadback(samples<float>(200000));
}

TEST_F(listformat, EightByteRealsFollowTheModelAndReadBack) {
  checkmodelandreadback(samples<double>(200000));
}

// Every item but a text right after a text starts with a blank, the record's first item too.
TEST_F(listformat, ItemsOfARecordAsGfortranSeparatesThem) {
  EXPECT_EQ(writtenrecord(1.5f, -2.25, 7, 0.1f),
            "   1.50000000      -2.2500000000000000                7  0.100000001    \n");
  EXPECT_EQ(writtenrecord("abc", 1, "def", "ghi", 2, 3, "x"),
            " abc           1 defghi           2           3 x\n");
  EXPECT_EQ(writtenrecord("x", 1.5f, "y", -1e-5, "z"), " x   1.50000000     y  -1.0000000000000001E-005 z\n");
  EXPECT_EQ(writtenrecord("Reading Grid Points in Zone ", 3, "..."),
            " Reading Grid Points in Zone            3 ...\n");
  EXPECT_EQ(writtenrecord(""), " \n");
  EXPECT_EQ(writtenrecord("a ", " b"), " a  b\n");
  EXPECT_EQ(writtenrecord(), "\n");
}
