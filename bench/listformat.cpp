// How fast list-directed output formats reals, against std::to_chars of the same values with the
// same number of digits. Prints values per second of processor time (median of five runs, so that
// other processes on the machine count less) for 4- and 8-byte reals
// from random bit patterns (mostly exponent form) and from -1000 .. 1000 (fixed form, as grid
// coordinates and solutions are), written eight to a record as node records are.
//
//   zelmbench_listformat [N] [DIR]     N values of each kind (default 4000000), files in DIR
//                                      (default /dev/shm, so that no disk is timed)
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "records.hpp"

namespace io = mod_zelmgrid::io;

namespace {

double cputime() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

template <class F>
double median5(F&& run) {
  std::vector<double> t;
  for (int i = 0; i < 5; ++i) {
    const double a = cputime();
    run();
    t.push_back(cputime() - a);
  }
  std::sort(t.begin(), t.end());
  return t[2];
}

template <class T>
std::vector<T> randombits(std::size_t n, std::mt19937_64& g) {
  std::vector<T> v;
  while (v.size() < n) {
    const std::uint64_t b = g();
    T x;
    std::memcpy(&x, &b, sizeof x);
    if (std::isfinite(x)) v.push_back(x);
  }
  return v;
}

template <class T>
std::vector<T> midrange(std::size_t n, std::mt19937_64& g) {
  std::uniform_real_distribution<double> d(-1000, 1000);
  std::vector<T> v(n);
  for (T& x : v) x = static_cast<T>(d(g));
  return v;
}

template <class T>
void measure(const char* name, const std::vector<T>& v, const std::string& dir) {
  constexpr int digits = sizeof(T) == 4 ? 9 : 17;
  const std::string file = dir + "/zelmbench_listformat.txt";
  const double library = median5([&] {
    io::open(31, file, "formatted", "unknown");
    io::unit& u = io::getunit(31);
    for (std::size_t i = 0; i < v.size(); i += 8)
      io::listwrite(
          u, io::items(v.data() + i, static_cast<io::index_t>(std::min<std::size_t>(8, v.size() - i))));
    io::close(31);
  });
  std::vector<char> buf(1 << 20);
  std::size_t sink = 0;
  const double tochars = median5([&] {
    char* p = buf.data();
    char* const end = buf.data() + buf.size() - 64;
    for (T x : v) {
      if (p > end) {
        sink += static_cast<std::size_t>(p[-1]);
        p = buf.data();
      }
      p = std::to_chars(p, p + 64, x, std::chars_format::scientific, digits - 1).ptr;
      *p++ = ' ';
    }
    sink += static_cast<std::size_t>(p - buf.data());
  });
  std::remove(file.c_str());
  const double n = static_cast<double>(v.size());
  std::printf("%-28s library %7.1f M values/s   to_chars %7.1f M values/s   ratio %.2f  (%zu)\n", name,
              n / library / 1e6, n / tochars / 1e6, library / tochars, sink % 10);
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t n = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 4000000;
  const std::string dir = argc > 2 ? argv[2] : "/dev/shm";
  std::mt19937_64 g(7);
  measure("4-byte, random bit patterns", randombits<float>(n, g), dir);
  measure("8-byte, random bit patterns", randombits<double>(n, g), dir);
  measure("4-byte, -1000 .. 1000", midrange<float>(n, g), dir);
  measure("8-byte, -1000 .. 1000", midrange<double>(n, g), dir);
}
