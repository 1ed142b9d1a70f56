// zelmbench: times every file routine of zelmgrid in every encoding and precision against the
// Fortran-runtime path, meshio and the floor of plain system calls, on a synthetic grid.
//
// Each measurement runs in a child process forked for it, so that every routine allocates its
// arrays in fresh memory as a host program would, and its peak resident memory can be taken on
// its own: the child resets the high-water mark (/proc/self/clear_refs), notes the resident size,
// makes the call(s), and reads VmHWM. The baselines run interleaved with the library, run by run,
// so that the load of a shared machine falls on both alike. Results go to a JSON file that
// bench/report.py turns into RESULTS.md.
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "records.hpp"
#include "gridgen.hpp"
#include "zelmgrid/farray.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"
#include "zelmgrid/tecplot.hpp"

extern char** environ;

namespace zm = mod_zelmgrid;
namespace fs = std::filesystem;
using fortran::farray;
using fortran::index_t;

namespace {

constexpr const char* usage = R"(usage: zelmbench [options]

  --cells N        cells of the grid (default 1000000; 10^4 .. 10^7 are sensible)
  --shape S        tetprism (3D tetrahedra and prisms, default), quad or tri (2D)
  --zones Z        zones of the grid (default 1)
  --runs R         runs of every library measurement (default 5)
  --fortran-runs R runs of every Fortran-path measurement (default 3)
  --meshio-runs R  runs of every meshio measurement (default 3; 0 leaves meshio out)
  --fortran PATH   the Fortran-path program (zelmbench_fortran); left out when not given
  --meshio PATH    bench/meshio_path.py; left out when not given
  --python PATH    the Python that has meshio (default /usr/bin/python3)
  --dir DIR        directory for the files (default: a new one under /tmp; its path and the file
                   names must fit the routines' 40-character names)
  --keep           keep the files
  --only TEXT      only the measurements whose name contains TEXT
  --min-time S     repeat a call within one run until it takes about S seconds (default 0.002)
  --json FILE      write every sample to FILE
  --smoke          a quick check that everything runs: a small grid, one run of each
  --in-process     for profiling: run the library's calls in this process, without the baselines
)";

// ---- options ----------------------------------------------------------------------------------

struct options {
  std::int64_t cells = 1000000;
  std::string shape = "tetprism";
  int zones = 1;
  int runs = 5, fruns = 3, mruns = 3;
  std::string fortran, meshio, python = "/usr/bin/python3";
  std::string dir, only, json;
  bool keep = false, smoke = false, inprocess = false;
  double mintime = 0.002;
};

[[noreturn]] void die(const std::string& m) {
  std::fprintf(stderr, "zelmbench: %s\n", m.c_str());
  std::exit(2);
}

options parse(int argc, char** argv) {
  options o;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) die("option " + a + " needs a value");
      return argv[++i];
    };
    if (a == "--cells")
      o.cells = std::stoll(next());
    else if (a == "--shape")
      o.shape = next();
    else if (a == "--zones")
      o.zones = std::stoi(next());
    else if (a == "--runs")
      o.runs = std::stoi(next());
    else if (a == "--fortran-runs")
      o.fruns = std::stoi(next());
    else if (a == "--meshio-runs")
      o.mruns = std::stoi(next());
    else if (a == "--fortran")
      o.fortran = next();
    else if (a == "--meshio")
      o.meshio = next();
    else if (a == "--python")
      o.python = next();
    else if (a == "--dir")
      o.dir = next();
    else if (a == "--keep")
      o.keep = true;
    else if (a == "--only")
      o.only = next();
    else if (a == "--min-time")
      o.mintime = std::stod(next());
    else if (a == "--json")
      o.json = next();
    else if (a == "--smoke")
      o.smoke = true;
    else if (a == "--in-process")
      o.inprocess = true;
    else if (a == "--help" || a == "-h") {
      std::fputs(usage, stdout);
      std::exit(0);
    } else {
      die("unknown option " + a + "\n" + usage);
    }
  }
  if (o.smoke) {
    o.cells = std::min<std::int64_t>(o.cells, 3000);
    o.runs = o.fruns = 1;
    o.mruns = std::min(o.mruns, 1);
    o.mintime = 0;
  }
  if (o.shape != "tetprism" && o.shape != "quad" && o.shape != "tri") die("unknown shape " + o.shape);
  if (o.zones < 1 || o.runs < 1 || o.fruns < 0 || o.mruns < 0) die("zones and runs must be positive");
  return o;
}

// ---- clocks, memory, checksums ---------------------------------------------------------------

double wallnow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
std::int64_t faultsnow() {
  rusage r{};
  getrusage(RUSAGE_SELF, &r);
  return r.ru_minflt + r.ru_majflt;
}
double cpunow() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

std::int64_t statuskb(const char* key) {
  std::ifstream s("/proc/self/status");
  std::string line;
  const std::size_t n = std::strlen(key);
  while (std::getline(s, line))
    if (line.compare(0, n, key) == 0) return std::stoll(line.substr(n));
  return -1;
}

// Starts a new high-water mark of the resident size at the present size; returns that size.
// Free heap pages inherited from the parent are returned to the system first: an allocation that
// reused them would not raise the resident size, and the routine's memory would go uncounted.
std::int64_t resetpeak() {
  ::malloc_trim(0);
  const int fd = ::open("/proc/self/clear_refs", O_WRONLY);
  if (fd >= 0) {
    if (::write(fd, "5", 1) != 1) std::perror("clear_refs");
    ::close(fd);
  }
  return statuskb("VmRSS:");
}

// The checksum that the Fortran path computes too: each 32-bit pattern is folded in with its
// linear position, so that a value in the wrong place changes the sum.
struct hashes {
  std::uint64_t h[8] = {};
  static void add(std::uint64_t& h, std::uint32_t p, std::int64_t i) {
    const std::uint64_t t = (std::uint64_t{p} + static_cast<std::uint64_t>(i % 65536) * 40503u) & 0xffffffffu;
    const int r = static_cast<int>(i % 31);
    const std::uint64_t rot = ((t << r) | (r == 0 ? 0 : t >> (32 - r))) & 0xffffffffu;
    h ^= rot;
  }
  template <class T>
  static std::uint32_t bits(T v) {
    static_assert(sizeof(T) == 4);
    std::uint32_t b;
    std::memcpy(&b, &v, 4);
    return b;
  }
  void ints(int k, const int* a, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) add(h[k], bits(a[i]), i);
  }
  void doubles(int k, const double* a, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) {
      std::uint64_t b;
      std::memcpy(&b, &a[i], 8);
      add(h[k], static_cast<std::uint32_t>(b), 2 * i);
      add(h[k], static_cast<std::uint32_t>(b >> 32), 2 * i + 1);
    }
  }
  std::int64_t total() const {
    std::int64_t s = 0;
    for (int k = 0; k < 8; ++k) s += (k + 1) * static_cast<std::int64_t>(h[k]);
    return s;
  }
};

// Row `row` of a (variable, position) array at each zone's positions by the zone placement rule;
// `upperbyzone`: a zone's last position is its own count (the formatted free variables of a pix
// file read whole).
void hashrow(std::uint64_t& h, const farray<float, 2>& a, int row, const farray<int, 1>& n, int nzones,
             bool upperbyzone) {
  std::int64_t ioff = 1;
  for (int z = 1; z <= nzones; ++z) {
    const std::int64_t upper = upperbyzone ? n(z) : ioff + n(z) - 1;
    for (std::int64_t i = ioff; i <= upper; ++i)
      hashes::add(h, hashes::bits(a(row, i)), (row - 1) + (i - 1) * a.extent(1));
    if (z >= 2) ioff += n(z - 1);
  }
}

// ---- child processes ---------------------------------------------------------------------------

struct sample {
  double wall = 0, cpu = 0;  // per call
  std::int64_t basekb = 0, peakkb = 0;
  std::int64_t faults = 0;  // minor page faults per call
  std::int64_t checksum = 0;
  int ok = 0;
};

bool noforks = false;  // --in-process

// Runs f in a forked child and returns what it reports; a child that fails or dies reports ok = 0.
sample inchild(const std::function<sample()>& f) {
  if (noforks) return f();
  int fds[2];
  if (::pipe(fds) != 0) die("pipe failed");
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) die("fork failed");
  if (pid == 0) {
    ::close(fds[0]);
    // Large blocks come from fresh mappings, as in a new process, not from heap pages shared with
    // the parent (whose first writes would be copy-on-write faults that no host program pays).
    ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    ::mallopt(M_TRIM_THRESHOLD, 128 * 1024);
    sample s = f();
    if (::write(fds[1], &s, sizeof s) != static_cast<ssize_t>(sizeof s)) ::_exit(3);
    std::fflush(nullptr);
    ::_exit(0);
  }
  ::close(fds[1]);
  sample s;
  const ssize_t n = ::read(fds[0], &s, sizeof s);
  ::close(fds[0]);
  int st = 0;
  ::waitpid(pid, &st, 0);
  if (n != static_cast<ssize_t>(sizeof s) || !WIFEXITED(st) || WEXITSTATUS(st) != 0) s = sample{};
  return s;
}

// Runs a program with the arguments given and returns its standard output (and its exit status).
std::string runprogram(const std::vector<std::string>& args, int& status) {
  int fds[2];
  if (::pipe(fds) != 0) die("pipe failed");
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
  posix_spawn_file_actions_addclose(&fa, fds[0]);
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  // A program built with the sanitizers must not fail on what its runtime library keeps at exit.
  std::vector<std::string> envs;
  for (char** e = environ; *e != nullptr; ++e)
    if (std::strncmp(*e, "ASAN_OPTIONS=", 13) != 0) envs.emplace_back(*e);
  envs.emplace_back("ASAN_OPTIONS=detect_leaks=0");
  std::vector<char*> envp;
  for (auto& e : envs) envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid = 0;
  std::fflush(nullptr);
  const int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  ::close(fds[1]);
  std::string out;
  if (rc == 0) {
    char buf[65536];
    for (;;) {
      const ssize_t n = ::read(fds[0], buf, sizeof buf);
      if (n <= 0) break;
      out.append(buf, static_cast<std::size_t>(n));
    }
  }
  ::close(fds[0]);
  status = -1;
  if (rc == 0) {
    int st = 0;
    ::waitpid(pid, &st, 0);
    status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }
  return out;
}

// ---- the benchmark's data -----------------------------------------------------------------------

constexpr int nvar = 6;       // restart variables
constexpr int nfreevars = 1;  // free variables of the pix file

struct data {
  options opt;
  zelmgen::grid g;
  farray<float, 2> q, pix;      // restart (variable, cell) and pix (variable, node) solutions
  farray<double, 2> x8, qnode;  // the Tecplot export's 8-byte coordinates and node values
  std::int64_t nnodes = 0, nfaces = 0, ncells = 0;
  std::string dir;
  std::string path(const std::string& name) const { return dir + "/" + name; }
};

// The encodings and precisions of the files: 4- and 8-byte reals in the unformatted and binary
// encodings, text once (it has no precision).
constexpr std::pair<int, int> filecases[] = {{0, 0}, {0, 1}, {2, 0}, {2, 1}, {1, 0}};

const char* encname(int enc) {
  return enc == 0 ? "unformatted" : enc == 2 ? "binary" : "formatted";
}
std::string suffix(int enc, int dbl) {
  return std::string(enc == 0 ? "u" : enc == 2 ? "b" : "f") + (enc == 1 ? "" : dbl ? "8" : "4");
}

fortran::char40 name40(const std::string& s) {
  if (s.size() > 40) die("file name longer than 40 characters: " + s);
  return fortran::char40(s);
}

std::int64_t filesize(const std::string& p) {
  struct stat sb {};
  return ::stat(p.c_str(), &sb) == 0 ? static_cast<std::int64_t>(sb.st_size) : 0;
}

// Bytes from the start of a text file to the end of the line that holds its token number `tokens`
// (counting from 1), or to the end of line number `lines` when tokens is 0.
std::int64_t textprefix(const std::string& p, std::int64_t tokens, std::int64_t lines) {
  std::ifstream f(p, std::ios::binary);
  const std::string s((std::istreambuf_iterator<char>(f)), {});
  std::int64_t seen = 0, line = 0;
  bool in = false;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (c == '\n') {
      ++line;
      in = false;
      if ((tokens > 0 && seen >= tokens) || (tokens == 0 && line >= lines))
        return static_cast<std::int64_t>(i + 1);
    } else if (c == ' ' || c == ',') {
      in = false;
    } else if (!in) {
      in = true;
      ++seen;
    }
  }
  return static_cast<std::int64_t>(s.size());
}

// The header values of the restart and pix files: exact in 4-byte reals, so that files written in
// either precision carry the same values back.
void setheader() {
  zm::dtime = 0.125;
  zm::lastcyc = 4000;
  zm::rstype = 3;
  zm::dgamma = 1.375;
  zm::drgas = 287.0;
  zm::dr0 = 1.25;
  zm::drm0 = 0.5;
  zm::dp0 = 101325.0;
  zm::dvar = 0.75;
  zm::string = fortran::char25("zelmbench pix file");
  zm::nfree = nfreevars;
  for (int k = 1; k <= 20; ++k)
    zm::strfree(k) = fortran::char25(k <= nfreevars ? "free variable " + std::to_string(6 + k) : "");
  mod_gridvars::numrstrtvar = nvar;
  mod_gridvars::npixvar = 6 + nfreevars;
}

// ---- cell-to-node lists for meshio --------------------------------------------------------------

// meshio wants cells by their nodes; the grid knows them only through faces. Nodes get numbers over
// the whole grid, from 0.
struct cellnodes {
  std::vector<std::int32_t> tets, wedges, tris, quads;
};

cellnodes nodesofcells(const zelmgen::grid& g) {
  cellnodes out;
  index_t f0 = 0, n0 = 0;
  for (int k = 1; k <= g.nzones; ++k) {
    const int nc = g.ncellsz(k);
    std::vector<int> count(static_cast<std::size_t>(nc) + 1, 0);
    for (index_t f = f0 + 1; f <= f0 + g.nfacesz(k); ++f)
      for (int s = 1; s <= 2; ++s)
        if (g.ifcell(s, f) > 0) ++count[static_cast<std::size_t>(g.ifcell(s, f))];
    std::vector<int> start(static_cast<std::size_t>(nc) + 2, 0);
    for (int c = 1; c <= nc; ++c)
      start[static_cast<std::size_t>(c) + 1] =
          start[static_cast<std::size_t>(c)] + count[static_cast<std::size_t>(c)];
    std::vector<index_t> faces(static_cast<std::size_t>(start[static_cast<std::size_t>(nc) + 1]));
    std::vector<int> fill(start.begin(), start.end());
    for (index_t f = f0 + 1; f <= f0 + g.nfacesz(k); ++f)
      for (int s = 1; s <= 2; ++s)
        if (g.ifcell(s, f) > 0)
          faces[static_cast<std::size_t>(fill[static_cast<std::size_t>(g.ifcell(s, f))]++)] = f;
    auto node = [&](index_t f, int j) { return g.ifnode(j, f); };
    auto global = [&](int n) { return static_cast<std::int32_t>(n0 + n - 1); };
    for (int c = 1; c <= nc; ++c) {
      const index_t* cf = faces.data() + start[static_cast<std::size_t>(c)];
      const int m = count[static_cast<std::size_t>(c)];
      if (g.ndim == 3 && m == 4) {
        const int a = node(cf[0], 1), b = node(cf[0], 2), cc = node(cf[0], 3);
        int d = 0;
        for (int j = 1; j <= 3; ++j) {
          const int n = node(cf[1], j);
          if (n != a && n != b && n != cc) d = n;
        }
        for (int n : {a, b, cc, d}) out.tets.push_back(global(n));
      } else if (g.ndim == 3 && m == 5) {
        index_t t[2] = {0, 0};
        int nt = 0;
        for (int i = 0; i < 5; ++i)
          if (g.npf(cf[i]) == 3 && nt < 2) t[nt++] = cf[i];
        if (nt < 2) continue;
        int low[3], high[3];
        for (int j = 0; j < 3; ++j) {
          low[j] = node(t[0], j + 1);
          high[j] = 0;
          for (int i = 0; i < 5; ++i) {
            if (g.npf(cf[i]) != 4) continue;
            for (int e = 1; e <= 4; ++e) {
              const int p = node(cf[i], e), r = node(cf[i], e % 4 + 1);
              const int other = p == low[j] ? r : r == low[j] ? p : 0;
              if (other != 0 && (other == node(t[1], 1) || other == node(t[1], 2) || other == node(t[1], 3)))
                high[j] = other;
            }
          }
        }
        for (int n : low) out.wedges.push_back(global(n));
        for (int n : high) out.wedges.push_back(global(n));
      } else if (g.ndim == 2 && (m == 3 || m == 4)) {
        const int a = node(cf[0], 1), b = node(cf[0], 2);
        int c3 = 0, d = 0;
        for (int i = 1; i < m; ++i) {
          const int e1 = node(cf[i], 1), e2 = node(cf[i], 2);
          if (e1 == b) c3 = e2;
          if (e2 == b) c3 = e1;
          if (e1 == a) d = e2;
          if (e2 == a) d = e1;
        }
        if (m == 3) {
          for (int n : {a, b, c3}) out.tris.push_back(global(n));
        } else {
          for (int n : {a, b, c3, d}) out.quads.push_back(global(n));
        }
      }
    }
    f0 += g.nfacesz(k);
    n0 += g.nptsz(k);
  }
  return out;
}

template <class T>
void writearray(const std::string& p, const T* a, std::size_t n) {
  std::FILE* f = std::fopen(p.c_str(), "wb");
  if (f == nullptr || (n > 0 && std::fwrite(a, sizeof(T), n, f) != n)) die("cannot write " + p);
  std::fclose(f);
}

// Reads a file through, so that a reader's measurement starts with the file in the page cache (a
// machine's proactive reclaim may have dropped it since it was written).
void warmfile(const std::string& p) {
  static char buf[1 << 20];
  const int fd = ::open(p.c_str(), O_RDONLY);
  if (fd < 0) return;
  while (::read(fd, buf, sizeof buf) > 0) {
  }
  ::close(fd);
}

// ---- measurements ---------------------------------------------------------------------------

// One line of the results: a routine (or baseline) in one encoding and precision.
struct row {
  std::string name;  // e.g. "readzelmgrid/conn"
  std::string impl;  // zelmgrid, zelmgrid-4k, fortran, floor, floor-4k, tochars, write2, meshio
  std::string enc;   // unformatted, binary, formatted, or "-"
  int prec = 0;      // 4 or 8; 0 where the precision plays no part
  std::int64_t bytes = 0, records = 0, musthold = 0;
  int reps = 1;
  std::vector<sample> samples;
  std::string note;
};

struct measurement {
  std::string name;
  bool reader = false;
  int enc = 0, dbl = 0;
  std::string file;  // read (readers) or written (writers)
  std::string fop;   // the Fortran path's operation, "" when it has none
  std::int64_t records = 0, musthold = 0;
  std::vector<std::int64_t> outputs;            // byte sizes of the arrays a reader fills (for its floor)
  std::int64_t floorbytes = -1;                 // bytes of the file that the reader takes (-1: all)
  int floorpasses = 1;                          // times the reader goes through the file
  std::function<void()> setup;                  // in the child, untimed, before the high-water mark is reset
  std::function<std::int64_t(bool last)> call;  // one call; returns the checksum of what it read
  std::function<void()> tochars;                // the formatting floor of a formatted writer
  bool repeatable = true;  // false: one call per process (the Tecplot export's saved state)
  std::string note;
};

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

// The end of the timed part of a call that goes on to compute the checksum of what it read.
struct timemark {
  double wall = 0, cpu = 0;
  std::int64_t peakkb = 0, faults = 0;
  bool set = false;
};
timemark tmark;
void mark() {
  tmark.wall = wallnow();
  tmark.cpu = cpunow();
  tmark.faults = faultsnow();
  tmark.peakkb = statuskb("VmHWM:");
  tmark.set = true;
}

// Reads every page of an array, so that a child's first access to the arrays it shares with its
// parent (several microseconds a page on this kind of machine) is not timed as the routine's.
template <class T, int R>
void prefault(const farray<T, R>& a) {
  volatile T sink{};
  const index_t step = std::max<index_t>(1, 512 / static_cast<index_t>(sizeof(T)));
  for (index_t i = 0; i < a.size(); i += step) sink = a.data()[i];
  (void)sink;
}

void prefaultinputs(const data& d) {
  const auto& g = d.g;
  prefault(g.x), prefault(g.npf), prefault(g.ifnode), prefault(g.ifcell);
  for (const auto* a : {&g.nptsz, &g.nfacesz, &g.ncellsz, &g.mnpfz, &g.mfpcz}) prefault(*a);
  prefault(d.q), prefault(d.pix), prefault(d.x8), prefault(d.qnode);
}

struct bench {
  data& d;
  std::vector<row> rows;

  // The library, in a child: setup, then `reps` calls timed together.
  sample ours(const measurement& m, int reps, bool huge) {
    return inchild([&] {
      fortran::hugepages = huge;
      zm::resetstate();
      // Writers write the benchmark's header values; readers start from zero, as the Fortran
      // path's module variables do.
      setheader();
      if (m.reader) {
        zm::resetstate();
        mod_gridvars::npixvar = 0;
      }
      mod_gridvars::readerrordetail.clear();
      if (!m.reader) prefaultinputs(d);
      if (m.setup) m.setup();
      sample s;
      s.basekb = resetpeak();
      tmark = {};
      const std::int64_t f0 = faultsnow();
      const double w0 = wallnow(), c0 = cpunow();
      for (int k = 0; k < reps; ++k) s.checksum = m.call(k == reps - 1);
      double w1 = wallnow(), c1 = cpunow();
      std::int64_t f1 = faultsnow();
      s.peakkb = statuskb("VmHWM:");
      if (tmark.set) {
        w1 = tmark.wall;
        c1 = tmark.cpu;
        f1 = tmark.faults;
        s.peakkb = tmark.peakkb;
      }
      s.faults = (f1 - f0) / reps;
      s.wall = (w1 - w0) / reps;
      s.cpu = (c1 - c0) / reps;
      s.ok = mod_gridvars::readerrordetail.empty() ? 1 : 0;
      if (!s.ok)
        std::fprintf(stderr, "zelmbench: %s: %s\n", m.name.c_str(), mod_gridvars::readerrordetail.c_str());
      return s;
    });
  }

  sample fortranpath(const measurement& m, int reps) {
    if (!m.reader) ::unlink(m.file.c_str());
    int status = 0;
    const std::string out = runprogram({d.opt.fortran, m.fop, std::to_string(m.enc), std::to_string(m.dbl),
                                        m.file, d.dir, std::to_string(nvar), std::to_string(reps)},
                                       status);
    sample s;
    const auto at = out.find("RESULT ");
    if (at == std::string::npos || status != 0) {
      std::fprintf(stderr, "zelmbench: the Fortran path failed on %s (status %d)\n", m.name.c_str(), status);
      return s;
    }
    std::istringstream in(out.substr(at + 7));
    in >> s.wall >> s.cpu >> s.peakkb >> s.basekb >> s.checksum >> s.ok;
    return s;
  }

  // read(2) of the same bytes into a reused buffer, plus first touch of arrays of the sizes that
  // the reader fills.
  sample readfloor(const measurement& m, bool huge) {
    return inchild([&] {
      fortran::hugepages = huge;
      static char buf[1 << 20];
      std::memset(buf, 0, sizeof buf);
      sample s;
      s.basekb = resetpeak();
      const std::int64_t want = m.floorbytes < 0 ? filesize(m.file) : m.floorbytes;
      const std::int64_t f0 = faultsnow();
      const double w0 = wallnow(), c0 = cpunow();
      const int fd = ::open(m.file.c_str(), O_RDONLY);
      std::int64_t total = 0;
      for (int pass = 0; pass < m.floorpasses; ++pass) {
        if (pass > 0) ::lseek(fd, 0, SEEK_SET);
        for (std::int64_t left = want; left > 0;) {
          const ssize_t n =
              ::read(fd, buf, static_cast<std::size_t>(std::min<std::int64_t>(left, sizeof buf)));
          if (n <= 0) break;
          total += n;
          left -= n;
        }
      }
      ::close(fd);
      std::vector<farray<char, 1>> arrays(m.outputs.size());
      for (std::size_t i = 0; i < m.outputs.size(); ++i) {
        arrays[i].allocate(m.outputs[i]);
        if (m.outputs[i] > 0) std::memset(arrays[i].data(), 1, static_cast<std::size_t>(m.outputs[i]));
      }
      const double w1 = wallnow(), c1 = cpunow();
      s.faults = faultsnow() - f0;
      s.peakkb = statuskb("VmHWM:");
      s.wall = w1 - w0;
      s.cpu = c1 - c0;
      s.checksum = total;
      s.ok = total == want * m.floorpasses;
      return s;
    });
  }

  // write(2) of as many bytes as the writer wrote, from a reused buffer.
  sample writefloor(const measurement& m, std::int64_t bytes) {
    const std::string target = m.file + ".floor";
    return inchild([&] {
      static char buf[1 << 20];
      std::memset(buf, 7, sizeof buf);
      ::unlink(target.c_str());
      sample s;
      s.basekb = resetpeak();
      const double w0 = wallnow(), c0 = cpunow();
      const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      std::int64_t left = bytes;
      while (left > 0) {
        const ssize_t n =
            ::write(fd, buf, static_cast<std::size_t>(std::min<std::int64_t>(left, sizeof buf)));
        if (n <= 0) break;
        left -= n;
      }
      ::close(fd);
      const double w1 = wallnow(), c1 = cpunow();
      s.peakkb = statuskb("VmHWM:");
      s.wall = w1 - w0;
      s.cpu = c1 - c0;
      s.ok = left == 0;
      ::unlink(target.c_str());
      return s;
    });
  }

  sample tocharsfloor(const measurement& m) {
    return inchild([&] {
      prefaultinputs(d);
      sample s;
      s.basekb = resetpeak();
      const double w0 = wallnow(), c0 = cpunow();
      m.tochars();
      const double w1 = wallnow(), c1 = cpunow();
      s.peakkb = statuskb("VmHWM:");
      s.wall = w1 - w0;
      s.cpu = c1 - c0;
      s.ok = 1;
      return s;
    });
  }

  row& addrow(const measurement& m, const std::string& impl, int reps) {
    row r;
    r.name = m.name;
    r.impl = impl;
    r.enc = m.enc < 0 ? "-" : encname(m.enc);
    r.prec = m.enc == 1 || m.enc < 0 ? 0 : (m.dbl ? 8 : 4);
    r.records = m.records;
    r.musthold = m.musthold;
    r.reps = reps;
    r.note = m.note;
    rows.push_back(r);
    return rows.back();
  }

  // A measurement that cannot be made, with the reason.
  void skip(const measurement& m, const std::string& why) {
    if (!d.opt.only.empty() && m.name.find(d.opt.only) == std::string::npos) return;
    row& r = addrow(m, "zelmgrid", 0);
    r.note = why;
    std::printf("%-40s n/a\n", (m.name + " " + suffix(m.enc, m.dbl)).c_str());
  }

  void run(const measurement& m) {
    if (!d.opt.only.empty() && m.name.find(d.opt.only) == std::string::npos) return;
    const std::string label = m.name + " " + (m.enc < 0 ? "" : suffix(m.enc, m.dbl));
    std::printf("%-40s", label.c_str());
    std::fflush(stdout);
    // Calls short enough to drown in the clock's and the process's noise are repeated.
    // The probe makes ten calls, so that the first call's one-time costs in a new process do not
    // decide the count alone.
    int reps = 1;
    if (d.opt.mintime > 0 && m.repeatable) {
      const sample probe = ours(m, 10, true);
      if (probe.ok && probe.wall > 0 && 10 * probe.wall < d.opt.mintime)
        reps = static_cast<int>(std::min(100000.0, std::ceil(d.opt.mintime / probe.wall)));
    }
    if (d.opt.inprocess) {
      std::vector<double> w;
      for (int r = 0; r < d.opt.runs; ++r) w.push_back(ours(m, reps, true).wall);
      std::printf(" %12.6f s\n", median(w));
      return;
    }
    const bool fortran = !d.opt.fortran.empty() && !m.fop.empty();
    const bool raw = m.enc == 0 || m.enc == 2;
    const std::size_t base = rows.size();
    const std::size_t io = base, i4k = base + 1;
    addrow(m, "zelmgrid", reps);
    if (m.reader) addrow(m, "zelmgrid-4k", reps);
    const std::size_t ifo = rows.size();
    if (fortran) addrow(m, "fortran", reps);
    const std::size_t ifl = rows.size();
    if (m.reader) {
      addrow(m, "floor", 1);
      addrow(m, "floor-4k", 1);
    } else if (!raw) {
      if (m.tochars) addrow(m, "tochars", 1);
    } else {
      addrow(m, "write2", 1);
    }
    const std::string keep = m.file + ".zelmgrid";
    for (int r = 0; r < std::max(d.opt.runs, fortran ? d.opt.fruns : 0); ++r) {
      if (m.reader) warmfile(m.file);
      if (r < d.opt.runs) {
        if (!m.reader) ::unlink(m.file.c_str());
        rows[io].samples.push_back(ours(m, reps, true));
        rows[io].bytes = filesize(m.file);
        // The library's output is kept for comparison with the Fortran path's.
        if (!m.reader && fortran && r == 0) ::rename(m.file.c_str(), keep.c_str());
        if (m.reader) {
          rows[i4k].samples.push_back(ours(m, reps, false));
          rows[i4k].bytes = filesize(m.file);
        }
      }
      if (fortran && r < d.opt.fruns) {
        rows[ifo].samples.push_back(fortranpath(m, reps));
        rows[ifo].bytes = filesize(m.file);
        if (!m.reader && r == 0) {
          // The same records: the two files agree byte for byte in the unformatted and binary
          // encodings, and token for token (numbers to their printed precision) in text.
          rows[ifo].note = raw ? samebytes(m.file, keep) : sametokens(m.file, keep);
          ::unlink(keep.c_str());
        }
      }
      if (r < d.opt.runs) {
        if (m.reader) {
          rows[ifl].samples.push_back(readfloor(m, true));
          rows[ifl].bytes = filesize(m.file);
          rows[ifl + 1].samples.push_back(readfloor(m, false));
          rows[ifl + 1].bytes = filesize(m.file);
        } else if (!raw) {
          if (m.tochars) rows[ifl].samples.push_back(tocharsfloor(m));
        } else {
          rows[ifl].samples.push_back(writefloor(m, rows[io].bytes));
          rows[ifl].bytes = rows[io].bytes;
        }
      }
    }
    // Agreement of what the library and the Fortran path read.
    if (fortran && m.reader) {
      row& o = rows[io];
      row& f = rows[ifo];
      bool agree = !o.samples.empty() && !f.samples.empty();
      for (const auto& s : o.samples) agree = agree && s.ok && s.checksum == o.samples.front().checksum;
      for (const auto& s : f.samples) agree = agree && s.ok && s.checksum == o.samples.front().checksum;
      f.note = agree ? "same values read" : "VALUES DIFFER from the library's";
    }
    std::vector<double> w;
    for (const auto& s : rows[io].samples) w.push_back(s.wall);
    std::vector<double> c;
    for (const auto& s : rows[io].samples) c.push_back(s.cpu);
    std::vector<double> fl;
    for (const auto& s : rows[io].samples) fl.push_back(static_cast<double>(s.faults));
    std::printf(" %11.6f s (cpu %.6f, %.0f faults)", median(w), median(c), median(fl));
    if (fortran) {
      std::vector<double> fw;
      for (const auto& s : rows[ifo].samples) fw.push_back(s.wall);
      if (!fw.empty() && median(w) > 0)
        std::printf("   fortran %11.6f s  x%.1f", median(fw), median(fw) / median(w));
      if (rows[ifo].note.find("DIFFER") != std::string::npos) std::printf("   %s", rows[ifo].note.c_str());
    }
    for (std::size_t i = base; i < rows.size(); ++i)
      for (const auto& s : rows[i].samples)
        if (!s.ok) {
          std::printf("   FAILED (%s)", rows[i].impl.c_str());
          i = rows.size();
          break;
        }
    std::printf("\n");
  }

  static std::string slurp(const std::string& p) {
    std::ifstream f(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(f)), {});
  }

  static std::string samebytes(const std::string& a, const std::string& b) {
    const std::string sa = slurp(a), sb = slurp(b);
    if (sa == sb) return "same bytes as the library's file";
    return "BYTES DIFFER from the library's file (" + std::to_string(sa.size()) + " and " +
           std::to_string(sb.size()) + " bytes)";
  }

  // Whitespace-separated tokens in the same order; numbers equal to 7 significant digits (the
  // precision that both sides print 4-byte reals with at least), other tokens equal as text.
  static std::string sametokens(const std::string& a, const std::string& b) {
    const std::string sa = slurp(a), sb = slurp(b);
    std::size_t i = 0, j = 0;
    std::int64_t k = 0;
    auto next = [](const std::string& s, std::size_t& p) {
      while (p < s.size() && std::isspace(static_cast<unsigned char>(s[p]))) ++p;
      const std::size_t q = p;
      while (p < s.size() && !std::isspace(static_cast<unsigned char>(s[p]))) ++p;
      return std::string_view(s).substr(q, p - q);
    };
    for (;; ++k) {
      const auto ta = next(sa, i), tb = next(sb, j);
      if (ta.empty() && tb.empty()) break;
      if (ta == tb) continue;
      double va = 0, vb = 0;
      const auto ra = std::from_chars(ta.data(), ta.data() + ta.size(), va);
      const auto rb = std::from_chars(tb.data(), tb.data() + tb.size(), vb);
      const bool numbers = ra.ec == std::errc() && rb.ec == std::errc() && ra.ptr == ta.data() + ta.size() &&
                           rb.ptr == tb.data() + tb.size();
      if (numbers && std::fabs(va - vb) <= 1e-7 * std::max({1e-30, std::fabs(va), std::fabs(vb)})) continue;
      return "TOKENS DIFFER from the library's file at token " + std::to_string(k + 1) + ": \"" +
             std::string(ta.substr(0, 40)) + "\" and \"" + std::string(tb.substr(0, 40)) + "\"";
    }
    return "same tokens as the library's file (" + std::to_string(k) + ")";
  }
};

// ---- the routines, as the benchmark calls them ----------------------------------------------------

std::int64_t gridchecksum(int ndim, int nzones, int aux, const farray<float, 2>& x,
                          const farray<int, 1>& nptsz, const farray<int, 1>& nfacesz,
                          const farray<int, 1>& ncellsz, const farray<int, 1>& mnpfz,
                          const farray<int, 1>& mfpcz, const farray<int, 1>& npf,
                          const farray<int, 2>& ifnode, const farray<int, 2>& ifcell, bool conn) {
  hashes h;
  const int hdr[3] = {ndim, nzones, aux};
  h.ints(0, hdr, 3);
  h.ints(1, nptsz.data(), nptsz.size());
  std::int64_t n1 = x.extent(2);
  if (!conn) {
    n1 = nzones >= 1 ? nptsz(1) : 0;
  } else {
    for (const auto* a : {&nfacesz, &ncellsz, &mnpfz, &mfpcz}) h.ints(2, a->data(), a->size());
    h.ints(4, npf.data(), npf.size());
    const index_t w = ifnode.extent(1);
    for (index_t f = 1; f <= npf.extent(1); ++f)
      for (index_t j = 1; j <= npf(f); ++j)
        hashes::add(h.h[5], hashes::bits(ifnode(j, f)), (j - 1) + (f - 1) * w);
    h.ints(6, ifcell.data(), ifcell.size());
  }
  for (index_t j = 1; j <= n1; ++j)
    for (index_t i = 1; i <= ndim; ++i) hashes::add(h.h[3], hashes::bits(x(i, j)), (i - 1) + (j - 1) * ndim);
  return h.total();
}

void addgrid(bench& b, data& d) {
  const auto& g = d.g;
  const std::int64_t nodes1 = g.nptsz(1);
  const std::int64_t xbytes = 4 * g.ndim * d.nnodes;
  const std::int64_t conn = 4 * d.nfaces * (1 + g.ifnode.extent(1) + 2);
  const std::int64_t counts = 5 * 4 * g.nzones;
  for (int enc : {0, 2, 1}) {
    measurement m;
    m.name = "readzelmgridheader";
    m.reader = true;
    m.enc = enc;
    m.file = d.path("g." + suffix(enc, 0));
    m.fop = "gridheader";
    m.records = 2;
    m.musthold = counts;
    m.floorbytes = enc == 0   ? 8 + 12 + 8 + 20 * g.nzones
                   : enc == 2 ? 12 + 20 * g.nzones
                              : textprefix(m.file, 3 + 5 * g.nzones, 0);
    m.outputs = {4 * g.nzones, 4 * g.nzones};
    m.call = [&d, file = m.file, enc](bool last) -> std::int64_t {
      int ndim = 0, nzones = 0, aux = 0;
      farray<int, 1> nptsz, ncellsz;
      zm::readzelmgridheader(name40(file), enc, ndim, nzones, aux, nptsz, ncellsz);
      if (!last) return 0;
      mark();
      hashes h;
      const int hdr[3] = {ndim, nzones, aux};
      h.ints(0, hdr, 3);
      h.ints(1, nptsz.data(), nptsz.size());
      h.ints(2, ncellsz.data(), ncellsz.size());
      (void)d;
      return h.total();
    };
    b.run(m);
  }
  for (bool readconn : {true, false}) {
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = readconn ? "readzelmgrid/conn" : "readzelmgrid/noconn";
      m.reader = true;
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("g." + suffix(enc, dbl));
      m.fop = readconn ? "gridread" : "gridnodes";
      const std::int64_t text = enc == 1 ? 1 + g.nzones : 2;
      m.records = readconn ? text + d.nnodes + d.nfaces : text + nodes1;
      const bool wide = enc != 1 && dbl;
      m.musthold = counts + xbytes + (wide ? 2 * xbytes : 0) + (readconn ? conn : 0);
      m.outputs = {xbytes};
      if (readconn) m.outputs.push_back(conn);
      if (!readconn) {
        const int r = dbl ? 8 : 4;
        m.floorbytes = enc == 0   ? 8 + 12 + 8 + 20 * g.nzones + nodes1 * (8 + g.ndim * r)
                       : enc == 2 ? 12 + 20 * g.nzones + nodes1 * g.ndim * r
                                  : textprefix(m.file, 0, 1 + g.nzones + nodes1);
      }
      if (enc == 1 && g.nzones > 1) {
        b.skip(m,
               "n/a: a formatted grid file of several zones is not readable by readzelmgrid by design "
               "(the writer wraps the zone counts, the reader takes one line per zone)");
        continue;
      }
      m.call = [file = m.file, enc, dbl, readconn](bool last) -> std::int64_t {
        int ndim = 0, nzones = 0, aux = 0;
        farray<float, 2> x;
        farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
        farray<int, 2> ifnode, ifcell;
        zm::readzelmgrid(name40(file), enc, dbl, ndim, nzones, aux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz,
                         npf, ifnode, ifcell, readconn ? 1 : 0);
        if (!last) return 0;
        mark();
        return gridchecksum(ndim, nzones, aux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, ifcell,
                            readconn);
      };
      b.run(m);
    }
  }
  for (const auto& [enc, dbl] : filecases) {
    measurement m;
    m.name = "writezelmgrid";
    m.enc = enc;
    m.dbl = dbl;
    m.file = d.path("w.g." + suffix(enc, dbl));
    m.fop = "gridwrite";
    m.records = 2 + d.nnodes + d.nfaces;
    m.musthold = enc != 1 && dbl ? 2 * xbytes : 0;
    m.call = [&g, file = m.file, enc, dbl](bool) -> std::int64_t {
      zm::writezelmgrid(name40(file), enc, dbl, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz,
                        g.ncellsz, g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
      zm::io::close(4);
      return 0;
    };
    if (enc == 1)
      m.tochars = [&g] {
        static char buf[1 << 16];
        char* p = buf;
        for (index_t n = 1; n <= g.x.extent(2); ++n)
          for (index_t i = 1; i <= g.ndim; ++i) {
            if (p > buf + sizeof buf - 64) p = buf;
            p = std::to_chars(p, p + 64, g.x(i, n), std::chars_format::scientific, 8).ptr;
            *p++ = ' ';
          }
        for (index_t f = 1; f <= g.npf.extent(1); ++f) {
          const int n = g.npf(f);
          if (p > buf + sizeof buf - 128) p = buf;
          p = std::to_chars(p, p + 16, n).ptr;
          *p++ = ' ';
          for (int j = 1; j <= n; ++j) {
            p = std::to_chars(p, p + 16, g.ifnode(j, f)).ptr;
            *p++ = ' ';
          }
          for (int s = 1; s <= 2; ++s) {
            p = std::to_chars(p, p + 16, g.ifcell(s, f)).ptr;
            *p++ = ' ';
          }
        }
        asm volatile("" : : "r"(buf) : "memory");
      };
    b.run(m);
  }
}

// Formats `count` 4-byte reals of a (rows, cols) array, as the formatting floor of a text writer.
void tocharsfloats(const farray<float, 2>& a, index_t rows) {
  static char buf[1 << 16];
  char* p = buf;
  for (index_t j = 1; j <= a.extent(2); ++j)
    for (index_t i = 1; i <= rows; ++i) {
      if (p > buf + sizeof buf - 64) p = buf;
      p = std::to_chars(p, p + 64, a(i, j), std::chars_format::scientific, 8).ptr;
      *p++ = ' ';
    }
  asm volatile("" : : "r"(buf) : "memory");
}

void addrestart(bench& b, data& d) {
  const auto& g = d.g;
  const std::int64_t qbytes = 4 * nvar * d.ncells;
  for (bool whole : {true, false})
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = whole ? "readzelmrstrtfile" : "readnextzelmrstrtvar";
      m.reader = true;
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("r." + suffix(enc, dbl));
      m.fop = whole ? "rstread" : "rstnext";
      m.records = 3 + static_cast<std::int64_t>(nvar) * g.nzones;
      const bool wide = enc != 1 && dbl;
      m.musthold = whole ? qbytes * (wide ? 3 : 1) : 4 * d.ncells * (wide ? 3 : 1);
      m.outputs = {whole ? qbytes : 4 * d.ncells};
      if (!whole && enc == 2) {
        b.skip(m,
               "n/a: the one-variable reader reads every code but 0 as text, so a binary file fails by "
               "design");
        continue;
      }
      m.call = [&g, file = m.file, enc, dbl, whole](bool last) -> std::int64_t {
        farray<float, 2> q;
        mod_gridvars::readallvars = whole ? 1 : 0;
        zm::readzelmrstrtfile(name40(file), enc, dbl, g.nzones, g.ncellsz, q);
        if (!whole) {
          for (int v = 1; v <= nvar; ++v)
            zm::readnextzelmrstrtvar(v, name40(file), enc, dbl, g.nzones, g.ncellsz, q);
          zm::io::close(15);
        }
        if (!last) return 0;
        mark();
        hashes h;
        const double hd[6] = {zm::dtime, zm::dgamma, zm::drgas, zm::dr0, zm::drm0, zm::dp0};
        h.doubles(0, hd, 6);
        const int hi[2] = {zm::lastcyc, zm::rstype};
        h.ints(0, hi, 2);
        for (int v = 1; v <= (whole ? nvar : 1); ++v) hashrow(h.h[1], q, v, g.ncellsz, g.nzones, false);
        return h.total();
      };
      b.run(m);
    }
  for (bool whole : {true, false})
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = whole ? "writezelmrstrtfile" : "writenextzelmrstrtvar";
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("w.r." + suffix(enc, dbl));
      m.fop = whole ? "rstwrite" : "rstwritenext";
      m.records = 3 + static_cast<std::int64_t>(nvar) * g.nzones;
      const bool wide = enc != 1 && dbl;
      m.musthold = wide ? (whole ? 2 * qbytes : 8 * d.ncells) : 0;
      auto rowsof = std::make_shared<std::vector<farray<float, 2>>>();
      if (!whole)
        m.setup = [&d, rowsof] {
          rowsof->resize(nvar);
          for (int v = 1; v <= nvar; ++v) {
            auto& r = (*rowsof)[static_cast<std::size_t>(v - 1)];
            r.allocate(1, d.ncells);
            for (index_t j = 1; j <= d.ncells; ++j) r(1, j) = d.q(v, j);
          }
        };
      m.call = [&g, &d, rowsof, file = m.file, enc, dbl, whole](bool) -> std::int64_t {
        if (whole) {
          zm::writezelmrstrtfile(name40(file), enc, dbl, g.nzones, g.ncellsz, d.q);
        } else {
          for (int v = 1; v <= nvar; ++v)
            zm::writenextzelmrstrtvar(v, name40(file), enc, dbl, g.nzones, g.ncellsz,
                                      (*rowsof)[static_cast<std::size_t>(v - 1)]);
          zm::io::close(16);
        }
        return 0;
      };
      if (enc == 1) m.tochars = [&d] { tocharsfloats(d.q, nvar); };
      b.run(m);
    }
}

void addpix(bench& b, data& d) {
  const auto& g = d.g;
  const int npix = 6 + nfreevars;
  const std::int64_t pbytes = 4 * npix * d.nnodes;
  const std::int64_t nz = g.nzones;
  for (bool whole : {true, false})
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = whole ? "readzelmpixfile" : "readnextzelmpixvar";
      m.reader = true;
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("p." + suffix(enc, dbl));
      m.fop = whole ? "pixread" : "pixnext";
      const std::int64_t pass1 = 3 + 6 * nz + 1;
      m.records =
          whole ? pass1 + 3 + 6 * nz + 1 + nfreevars + nfreevars * nz : pass1 + 3 + npix * nz + 1 + nfreevars;
      const bool wide = enc != 1 && dbl;
      m.musthold = whole ? pbytes * (wide ? 3 : 1) : 4 * d.nnodes * (wide ? 2 : 1);
      m.outputs = {whole ? pbytes : 4 * d.nnodes};
      m.floorpasses = 2;  // a sizing pass, then the values
      if (!whole && wide)
        m.note = "reads 4-byte reals from 8-byte records, as the one-variable reader does by design";
      m.call = [&g, file = m.file, enc, dbl, whole, npix](bool last) -> std::int64_t {
        farray<float, 2> pix;
        mod_gridvars::readallvars = whole ? 1 : 0;
        zm::readzelmpixfile(name40(file), enc, dbl, g.nzones, g.nptsz, pix);
        if (!whole) {
          if (enc != 1) {  // the caller steps over the header that the reader left in front
            zm::io::unit& u = zm::io::getunit(13);
            fortran::char25 t;
            if (dbl) {
              double a = 0, bb = 0, c = 0;
              zm::io::rawread(u, a, bb, c);
              zm::io::rawread(u, a, bb, c);
            } else {
              float a = 0, bb = 0, c = 0;
              zm::io::rawread(u, a, bb, c);
              zm::io::rawread(u, a, bb, c);
            }
            zm::io::rawread(u, zm::io::text(t));
          }
          for (int v = 1; v <= mod_gridvars::npixvar; ++v)
            zm::readnextzelmpixvar(v, name40(file), enc, dbl, g.nzones, g.nptsz, pix);
          zm::io::close(13);
        }
        if (!last) return 0;
        mark();
        hashes h;
        const double hd[6] = {zm::dvar, zm::dgamma, zm::drgas, zm::dr0, zm::drm0, zm::dp0};
        h.doubles(0, hd, 6);
        const int hi[2] = {zm::nfree, mod_gridvars::npixvar};
        h.ints(0, hi, 2);
        if (whole)
          for (int v = 1; v <= mod_gridvars::npixvar; ++v)
            hashrow(h.h[1], pix, v, g.nptsz, g.nzones, enc == 1 && v > 6);
        else
          hashrow(h.h[1], pix, 1, g.nptsz, g.nzones, false);
        (void)npix;
        return h.total();
      };
      b.run(m);
    }
  for (bool whole : {true, false})
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = whole ? "writezelmpixfile" : "writenextzelmpixvar";
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("w.p." + suffix(enc, dbl));
      m.fop = whole ? "pixwrite" : "pixwritenext";
      m.records = 3 + 6 * nz + 1 + nfreevars + nfreevars * nz;
      const bool wide = enc != 1 && dbl;
      m.musthold = wide ? (whole ? 2 * pbytes : 8 * d.nnodes) : 0;
      auto rowsof = std::make_shared<std::vector<farray<float, 2>>>();
      if (!whole)
        m.setup = [&d, rowsof, npix] {
          rowsof->resize(npix);
          for (int v = 1; v <= npix; ++v) {
            auto& r = (*rowsof)[static_cast<std::size_t>(v - 1)];
            r.allocate(1, d.nnodes);
            for (index_t j = 1; j <= d.nnodes; ++j) r(1, j) = d.pix(v, j);
          }
        };
      m.call = [&g, &d, rowsof, file = m.file, enc, dbl, whole, npix](bool) -> std::int64_t {
        if (whole) {
          zm::writezelmpixfile(name40(file), enc, dbl, g.nzones, g.nptsz, d.pix);
        } else {
          for (int v = 1; v <= npix; ++v)
            zm::writenextzelmpixvar(v, name40(file), enc, dbl, g.nzones, g.nptsz,
                                    (*rowsof)[static_cast<std::size_t>(v - 1)]);
          zm::io::close(14);
        }
        return 0;
      };
      if (enc == 1) m.tochars = [&d, npix] { tocharsfloats(d.pix, npix); };
      b.run(m);
    }
}

void addtecplot(bench& b, data& d) {
  const auto& g = d.g;
  if (g.nzones != 1) {
    std::printf("(the Tecplot export is measured on grids of one zone: left out)\n");
    return;
  }
  measurement m;
  m.name = "writetecplotfile";
  m.enc = -1;
  m.note = "measured through zelm::writetecplot, the export's typed entry";
  m.repeatable = false;  // one call per process, like the Fortran path's export with its saved arrays
  m.file = d.path("t.dat");
  m.fop = "tecplot";
  int maxmfpc = 0;
  for (int k = 1; k <= g.nzones; ++k) maxmfpc = std::max(maxmfpc, g.mfpcz(k));
  std::int64_t nbf = 0;
  for (index_t f = 1; f <= d.nfaces; ++f) nbf += (g.ifcell(1, f) < 0) + (g.ifcell(2, f) < 0);
  // Work arrays: the copy of ifcell that the export consumes, mfpc, ibf, ipf, iface and the zone
  // writer's ipbf.
  m.musthold = 8 * d.nfaces + 4 * (d.ncells + nbf + d.nnodes + d.ncells * maxmfpc + d.nnodes);
  // The typed grid (its coordinates widened to 8 bytes, as x8 holds them), built before the
  // measurement.
  auto typed = std::make_shared<zelm::grid>();
  m.setup = [&d, typed] { *typed = zelmgen::typed(d.g); };
  m.call = [&d, typed, file = m.file](bool) -> std::int64_t {
    zelm::writetecplot(file, *typed, &d.qnode);
    return 0;
  };
  // The formatting floor: the node records of the cell zones and the body zone (coordinates and six
  // values as 8-byte reals) and the connectivity records, with std::to_chars alone.
  m.tochars = [&d, &g] {
    std::vector<char> used(static_cast<std::size_t>(d.nnodes) + 1, 0);
    std::vector<int> nf(static_cast<std::size_t>(d.ncells) + 1, 0);
    for (index_t f = 1; f <= d.nfaces; ++f)
      for (int s = 1; s <= 2; ++s)
        if (g.ifcell(s, f) > 0) ++nf[static_cast<std::size_t>(g.ifcell(s, f))];
    std::int64_t ints = 0, nodes = 0;
    for (index_t c = 1; c <= d.ncells; ++c)
      ints += nf[static_cast<std::size_t>(c)] == 4 ? 4 : nf[static_cast<std::size_t>(c)] == 5 ? 8 : 3;
    for (index_t f = 1; f <= d.nfaces; ++f) {
      const bool boundary = g.ifcell(1, f) < 0 || g.ifcell(2, f) < 0;
      if (boundary) {
        ints += 3;
        for (int j = 1; j <= g.npf(f); ++j) used[static_cast<std::size_t>(g.ifnode(j, f))] |= 2;
      }
      for (int j = 1; j <= g.npf(f); ++j) used[static_cast<std::size_t>(g.ifnode(j, f))] |= 1;
    }
    for (index_t n = 1; n <= d.nnodes; ++n)
      nodes += (used[static_cast<std::size_t>(n)] & 1) + ((used[static_cast<std::size_t>(n)] >> 1) & 1);
    static char buf[1 << 16];
    char* p = buf;
    index_t n = 1;
    for (std::int64_t k = 0; k < nodes; ++k, n = n % d.nnodes + 1) {
      if (p > buf + sizeof buf - 512) p = buf;
      for (int i = 1; i <= g.ndim; ++i) {
        p = std::to_chars(p, p + 40, d.x8(i, n), std::chars_format::scientific, 16).ptr;
        *p++ = ' ';
      }
      for (int v = 1; v <= 6; ++v) {
        p = std::to_chars(p, p + 40, d.qnode(v, n), std::chars_format::scientific, 16).ptr;
        *p++ = ' ';
      }
    }
    for (std::int64_t k = 0; k < ints; ++k) {
      if (p > buf + sizeof buf - 32) p = buf;
      p = std::to_chars(p, p + 16, static_cast<int>(k % d.nnodes + 1)).ptr;
      *p++ = ' ';
    }
    asm volatile("" : : "r"(buf) : "memory");
  };
  b.run(m);
}

// ---- meshio ---------------------------------------------------------------------------------

void addmeshio(bench& b, data& d) {
  if (d.opt.meshio.empty() || d.opt.mruns == 0) return;
  if (!d.opt.only.empty() && std::string("meshio").find(d.opt.only) == std::string::npos) return;
  const auto& g = d.g;
  const cellnodes c = nodesofcells(g);
  std::vector<double> pts(static_cast<std::size_t>(3 * d.nnodes), 0.0);
  for (index_t n = 1; n <= d.nnodes; ++n)
    for (int i = 1; i <= g.ndim; ++i) pts[static_cast<std::size_t>(3 * (n - 1) + i - 1)] = g.x(i, n);
  std::vector<double> pd(static_cast<std::size_t>(6 * d.nnodes));
  for (int v = 1; v <= 6; ++v)
    for (index_t n = 1; n <= d.nnodes; ++n)
      pd[static_cast<std::size_t>((v - 1) * d.nnodes + n - 1)] = d.pix(v, n);
  const std::string md = d.path("meshio");
  fs::create_directories(md);
  writearray(md + "/points.f64", pts.data(), pts.size());
  writearray(md + "/pointdata.f64", pd.data(), pd.size());
  writearray(md + "/tetra.i32", c.tets.data(), c.tets.size());
  writearray(md + "/wedge.i32", c.wedges.data(), c.wedges.size());
  writearray(md + "/triangle.i32", c.tris.data(), c.tris.size());
  writearray(md + "/quad.i32", c.quads.data(), c.quads.size());
  std::printf("%-40s", "meshio (Tecplot ASCII, VTU)");
  std::fflush(stdout);
  int status = 0;
  const std::string out = runprogram(
      {d.opt.python, d.opt.meshio, md, std::to_string(d.nnodes), std::to_string(d.opt.mruns)}, status);
  if (status != 0) {
    std::printf(" FAILED (status %d)\n%s\n", status, out.c_str());
    return;
  }
  std::istringstream in(out);
  std::string line;
  std::string summary;
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    std::string tag, what;
    double wall = 0, cpu = 0;
    std::int64_t bytes = 0, peakkb = 0;
    if (!(ls >> tag >> what >> wall >> cpu >> bytes >> peakkb) || tag != "RESULT") continue;
    row* r = nullptr;
    for (auto& x : b.rows)
      if (x.name == "meshio/" + what) r = &x;
    if (r == nullptr) {
      row nr;
      nr.name = "meshio/" + what;
      nr.impl = "meshio";
      nr.enc = "-";
      b.rows.push_back(nr);
      r = &b.rows.back();
    }
    sample s;
    s.wall = wall;
    s.cpu = cpu;
    s.peakkb = peakkb;
    s.ok = 1;
    r->samples.push_back(s);
    r->bytes = bytes;
  }
  for (const auto& r : b.rows)
    if (r.impl == "meshio") {
      std::vector<double> w;
      for (const auto& s : r.samples) w.push_back(s.wall);
      summary += " " + r.name.substr(7) + " " + std::to_string(median(w)).substr(0, 6) + " s";
    }
  std::printf("%s\n", summary.c_str());
}

// ---- output -----------------------------------------------------------------------------------

std::string jsonstr(const std::string& s) {
  std::string r = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') r += '\\';
    r += c;
  }
  return r + "\"";
}

void writejson(const std::string& path, const data& d, const bench& b, double seconds) {
  std::ofstream o(path);
  char when[64];
  const std::time_t now = std::time(nullptr);
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S %Z", std::localtime(&now));
  o << "{\n  \"date\": " << jsonstr(when) << ",\n  \"shape\": " << jsonstr(d.opt.shape)
    << ",\n  \"ndim\": " << d.g.ndim << ",\n  \"zones\": " << d.g.nzones << ",\n  \"cells\": " << d.ncells
    << ",\n  \"nodes\": " << d.nnodes << ",\n  \"faces\": " << d.nfaces << ",\n  \"nvar\": " << nvar
    << ",\n  \"nfree\": " << nfreevars << ",\n  \"runs\": " << d.opt.runs
    << ",\n  \"fortran_runs\": " << d.opt.fruns << ",\n  \"meshio_runs\": " << d.opt.mruns
    << ",\n  \"seconds\": " << seconds << ",\n  \"rows\": [\n";
  for (std::size_t i = 0; i < b.rows.size(); ++i) {
    const row& r = b.rows[i];
    o << "    {\"name\": " << jsonstr(r.name) << ", \"impl\": " << jsonstr(r.impl)
      << ", \"enc\": " << jsonstr(r.enc) << ", \"prec\": " << r.prec << ", \"bytes\": " << r.bytes
      << ", \"records\": " << r.records << ", \"musthold\": " << r.musthold << ", \"reps\": " << r.reps
      << ", \"note\": " << jsonstr(r.note) << ", \"samples\": [";
    for (std::size_t k = 0; k < r.samples.size(); ++k) {
      const sample& s = r.samples[k];
      char buf[256];
      std::snprintf(buf, sizeof buf,
                    "%s{\"wall\": %.9g, \"cpu\": %.9g, \"peakkb\": %lld, \"basekb\": %lld, \"faults\": %lld, "
                    "\"ok\": %d}",
                    k ? ", " : "", s.wall, s.cpu, static_cast<long long>(s.peakkb),
                    static_cast<long long>(s.basekb), static_cast<long long>(s.faults), s.ok);
      o << buf;
    }
    o << "]}" << (i + 1 < b.rows.size() ? "," : "") << "\n";
  }
  o << "  ]\n}\n";
}

}  // namespace

int main(int argc, char** argv) {
  const double start = wallnow();
  data d;
  d.opt = parse(argc, argv);
  const options& o = d.opt;

  // The grid, sized by the cell count, and its solutions.
  if (o.shape == "tetprism") {
    const int n = zelmgen::edgeforcells(std::max<std::int64_t>(o.cells / o.zones, 1));
    d.g = zelmgen::tetprism(n, n, n, n / 2, o.zones);
  } else {
    const double per = static_cast<double>(o.cells) / o.zones / (o.shape == "tri" ? 2.0 : 1.0);
    const int n = std::max(1, static_cast<int>(std::lround(std::sqrt(per))));
    d.g = zelmgen::quadtri(n, n, o.shape == "tri", o.zones);
  }
  for (int k = 1; k <= d.g.nzones; ++k) {
    d.nnodes += d.g.nptsz(k);
    d.nfaces += d.g.nfacesz(k);
    d.ncells += d.g.ncellsz(k);
  }
  d.q = zelmgen::cellsolution(d.g, nvar);
  d.pix = zelmgen::nodesolution(d.g, nfreevars);
  d.x8.allocate(d.g.ndim, d.nnodes);
  for (index_t i = 0; i < d.x8.size(); ++i) d.x8.data()[i] = d.g.x.data()[i];
  d.qnode.allocate(6, d.nnodes);
  for (index_t n = 1; n <= d.nnodes; ++n)
    for (int v = 1; v <= 6; ++v) d.qnode(v, n) = d.pix(v, n);

  // The files' directory.
  bool madedir = false;
  if (o.dir.empty()) {
    char tmpl[] = "/tmp/zelmbench.XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) die("cannot make a temporary directory");
    d.dir = tmpl;
    madedir = true;
  } else {
    d.dir = o.dir;
    fs::create_directories(d.dir);
  }
  if (d.dir.size() > 40 - 10) die("the directory's path is too long for 40-character file names: " + d.dir);

  std::printf("zelmbench: %s grid, %d zone(s), %lld cells, %lld nodes, %lld faces; files in %s\n",
              o.shape.c_str(), d.g.nzones, static_cast<long long>(d.ncells), static_cast<long long>(d.nnodes),
              static_cast<long long>(d.nfaces), d.dir.c_str());
  std::printf("runs: %d library, %d Fortran path, %d meshio\n", o.runs, o.fortran.empty() ? 0 : o.fruns,
              o.meshio.empty() ? 0 : o.mruns);

  // Progress lines of the routines and the announcements go nowhere.
  zm::io::setstdout(nullptr);
  mod_gridvars::announcements = nullptr;
  noforks = o.inprocess;

  // The files that the readers read, written by the library in every encoding and precision. In a
  // child: this process keeps no file buffers that the measurements' children would share with it.
  const auto& g = d.g;
  const sample prepared = inchild([&] {
    zm::resetstate();
    setheader();
    for (const auto& [enc, dbl] : filecases) {
      const std::string s = suffix(enc, dbl);
      zm::writezelmgrid(name40(d.path("g." + s)), enc, dbl, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz,
                        g.nfacesz, g.ncellsz, g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
      zm::io::close(4);
      zm::writezelmrstrtfile(name40(d.path("r." + s)), enc, dbl, g.nzones, g.ncellsz, d.q);
      zm::writezelmpixfile(name40(d.path("p." + s)), enc, dbl, g.nzones, g.nptsz, d.pix);
    }
    zm::resetstate();
    sample ok;
    ok.ok = 1;
    return ok;
  });
  if (!prepared.ok) die("cannot write the files to read");
  // Freed memory goes back to the system, so that the children allocate fresh pages.
  ::malloc_trim(0);

  bench b{d, {}};
  {  // what a child costs by itself: the timed part with no call in it
    measurement m;
    m.name = "harness/empty";
    m.enc = -1;
    m.file = d.path("none");
    m.call = [](bool) -> std::int64_t { return 0; };
    b.run(m);
  }
  addgrid(b, d);
  addrestart(b, d);
  addpix(b, d);
  addtecplot(b, d);
  addmeshio(b, d);

  bool failed = false;
  for (const auto& r : b.rows) {
    for (const auto& s : r.samples) failed = failed || !s.ok;
    failed = failed || r.note.find("DIFFER") != std::string::npos;
  }
  if (!o.json.empty()) writejson(o.json, d, b, wallnow() - start);
  if (madedir && !o.keep) fs::remove_all(d.dir);
  std::printf("zelmbench: %zu measurements in %.1f s%s\n", b.rows.size(), wallnow() - start,
              failed ? "; SOME FAILED OR DISAGREE" : "");
  return failed ? 1 : 0;
}
