// zelm: inspect, convert and export the solver family's grid, restart and pix files.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "detect.hpp"
#include "gridgen.hpp"
#include "zelmgrid/files.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"
#include "zelmgrid/tecplot.hpp"

namespace fs = std::filesystem;
using zelmtool::filekind;

namespace {

constexpr const char* usage = R"(usage: zelm [--quiet] VERB [ARGS]

Reads, checks, converts and exports the solver family's grid, restart and pix files.
The encoding (framed records, unframed stream or text) and the precision of a file
are found from its bytes: there is nothing to tell zelm about them.

verbs:
  info FILE [--grid GRID]        what a file is, with the evidence, and its contents
  convert IN OUT --encoding E --precision P [--grid GRID] [--nvar N] [--force]
                                 rewrite a file in another encoding or precision
  export GRID [--pix PIX] -o OUT.dat [--force]
                                 write a grid and its node solution to Tecplot ASCII
  sample DIR                     write the sample grids and solutions into DIR

Run 'zelm VERB --help' for the options of a verb.
)";

constexpr const char* infohelp = R"(usage: zelm info FILE [--grid GRID]

Tells what FILE is without being told: its kind (grid, restart or pix), its encoding
(framed records, unframed stream or text) and the precision of its reals, with the
evidence found in the bytes, then the grid header and a table of the zones.

Restart and pix files hold no counts of their own: with --grid GRID, zelm checks that
the file's records and length agree with the grid's zones and says where they do not.
The exit status is 1 when the file cannot be read or does not fit its grid.
)";

constexpr const char* converthelp =
    R"(usage: zelm convert IN OUT --encoding E --precision P [--grid GRID] [--nvar N] [--force]

Rewrites IN as OUT in another encoding and precision, carrying every header value across.
  --encoding E    unformatted (framed records), binary (unframed) or formatted (text)
  --precision P   single (4-byte reals) or double (8-byte reals); for text, 9 or 17 digits
  --grid GRID     the grid of a restart or pix file (required for them)
  --nvar N        the number of restart variables (found from the file when omitted)
  --force         replace OUT if it exists

Every zone keeps its place (the conversion does not go through the routines' zone
placement). zelm says when values lose precision on the way to single precision.
)";

constexpr const char* exporthelp = R"(usage: zelm export GRID [--pix PIX] -o OUT.dat [--force]

Writes GRID with the node solution of PIX (zero when omitted) to a Tecplot ASCII file
through the library's export: triangles or quadrilaterals in 2D, a tetrahedron zone and a
prism zone (as bricks) in 3D, and the zone's body surface.
  -o OUT.dat      the Tecplot file
  --pix PIX       the node solution; its six fixed variables become RHO U V W P FREE
  --force         replace OUT.dat if it exists

The export numbers nodes and cells within one zone, so a grid of several zones is written
one file per zone: OUT.dat for zone 1, OUT-zone2.dat for zone 2, and so on.
)";

constexpr const char* samplehelp = R"(usage: zelm sample DIR

Writes the sample data into DIR: a 2D grid of quadrilaterals and triangles and a 3D grid
of tetrahedra and prisms, each with a pix solution of a smooth flow, in several encodings.
)";

// Progress of long work, on standard error when it is a terminal and --quiet was not given.
bool showprogress = false;
bool quiet = false;  // --quiet: no progress lines from the library

class stage {
 public:
  explicit stage(const std::string& what) : start_(std::chrono::steady_clock::now()) {
    if (showprogress) std::fprintf(stderr, "%s ...", what.c_str());
  }
  ~stage() {
    if (!showprogress) return;
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    std::fprintf(stderr, " %.2f s\n", s);
  }
  stage(const stage&) = delete;
  stage& operator=(const stage&) = delete;

 private:
  std::chrono::steady_clock::time_point start_;
};

std::string sized(const std::string& path) {
  std::error_code ec;
  const auto n = fs::file_size(path, ec);
  if (ec) return path;
  char b[64];
  std::snprintf(b, sizeof b, " (%.1f MB)", static_cast<double>(n) / 1e6);
  return path + b;
}

struct failure {
  std::string message;
  int status = 1;
};

[[noreturn]] void die(const std::string& message, int status = 1) {
  throw failure{message, status};
}

struct args {
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;
  bool has(const std::string& k) const { return options.count(k) != 0; }
  std::string get(const std::string& k) const {
    auto it = options.find(k);
    return it == options.end() ? "" : it->second;
  }
};

args parse(int argc, char** argv, int from, const std::vector<std::string>& valued,
           const std::vector<std::string>& flags) {
  args a;
  for (int i = from; i < argc; ++i) {
    std::string s = argv[i];
    if (s.size() > 1 && s[0] == '-') {
      const auto eq = s.find('=');
      std::string key = s.substr(0, eq);
      if (std::find(valued.begin(), valued.end(), key) != valued.end()) {
        if (eq != std::string::npos)
          a.options[key] = s.substr(eq + 1);
        else if (i + 1 < argc)
          a.options[key] = argv[++i];
        else
          die("option " + key + " needs a value", 2);
      } else if (std::find(flags.begin(), flags.end(), key) != flags.end()) {
        a.options[key] = "1";
      } else {
        die("unknown option " + s, 2);
      }
    } else {
      a.positional.push_back(s);
    }
  }
  return a;
}

void requirefile(const std::string& path) {
  std::error_code ec;
  if (!fs::exists(path, ec)) die("\"" + path + "\": no such file");
  if (fs::is_directory(path, ec)) die("\"" + path + "\" is a directory");
}

// A grid, recognised from its bytes.
zelm::grid loadgrid(const std::string& path, bool headeronly) {
  requirefile(path);
  const auto d = zelmtool::detect(path);
  if (d.kind != filekind::grid)
    die("\"" + path + "\" is not a grid file (" + zelmtool::kindname(d.kind) + ")");
  return headeronly ? zelm::readgridheader(path, d.format()) : zelm::readgrid(path, d.format());
}

std::string describeformat(const zelmtool::detection& d) {
  std::string s = zelm::encodingname(d.enc);
  s += d.enc == zelm::encoding::unformatted ? " (framed records)"
       : d.enc == zelm::encoding::binary    ? " (unframed stream)"
                                            : " (list-directed text)";
  return s;
}

// Writes through a temporary name in the same folder, renamed into place once complete, so that
// a failure never leaves a half-written file under the requested name.
template <class F>
void writeatomically(const std::string& out, bool force, F&& write) {
  std::error_code ec;
  if (fs::exists(out, ec) && !force) die("\"" + out + "\" exists: give --force to replace it");
  const fs::path target(out);
  const fs::path tmp =
      target.parent_path() / ("." + target.filename().string() + ".zelm-" + std::to_string(::getpid()));
  try {
    write(tmp.string());
    fs::rename(tmp, target);
  } catch (const mod_zelmgrid::io::ioerror& e) {
    fs::remove(tmp, ec);
    die("cannot write \"" + out + "\", left as it was: " + e.what());
  } catch (const fs::filesystem_error& e) {
    fs::remove(tmp, ec);
    die("cannot write \"" + out + "\", left as it was: " + e.what());
  } catch (...) {
    fs::remove(tmp, ec);
    throw;
  }
}

// ---- info -------------------------------------------------------------------------------------

int info(const args& a) {
  if (a.positional.size() != 1) die("info takes one file (see zelm info --help)", 2);
  const std::string path = a.positional[0];
  requirefile(path);
  std::optional<zelm::grid> grid;
  if (a.has("--grid")) grid = loadgrid(a.get("--grid"), true);
  const auto d = zelmtool::detect(path, grid ? &*grid : nullptr);
  std::printf("%s: %s file\n", path.c_str(), zelmtool::kindname(d.kind));
  if (d.encodingknown) std::printf("  encoding:  %s\n", describeformat(d).c_str());
  if (d.precisionknown) std::printf("  precision: %s reals\n", d.dblprec ? "8-byte" : "4-byte");
  std::printf("  evidence:\n");
  for (const auto& e : d.evidence) std::printf("    - %s\n", e.c_str());
  if (d.kind == filekind::unknown) die("\"" + path + "\" is not a grid, restart or pix file");

  if (d.kind == filekind::grid) {
    const auto g = zelm::readgridheader(path, d.format());
    std::printf("  header: ndim %d, %zu zone(s), auxiliary value %d\n", g.ndim, g.zones.size(), g.aux);
    std::printf("  %6s %12s %12s %12s %9s %9s\n", "zone", "nodes", "faces", "cells", "mnpfz", "mfpcz");
    for (std::size_t k = 0; k < g.zones.size(); ++k) {
      const auto& z = g.zones[k];
      std::printf("  %6zu %12d %12d %12d %9d %9d\n", k + 1, z.nodes, z.faces, z.cells, z.mnpf, z.mfpc);
    }
    std::printf("  %6s %12lld %12lld %12lld\n", "total", static_cast<long long>(g.totalnodes()),
                static_cast<long long>(g.totalfaces()), static_cast<long long>(g.totalcells()));
  }
  if ((d.kind == filekind::restart || d.kind == filekind::pix) && grid) {
    std::vector<std::string> problems = d.problems;
    if (problems.empty()) {  // the whole file, read against the grid, must fit it
      try {
        if (d.kind == filekind::restart) {
          const int nvar = a.has("--nvar") ? std::atoi(a.get("--nvar").c_str()) : d.nvar;
          if (nvar < 0) {
            problems.push_back("the number of variables cannot be found from the file: give --nvar");
          } else {
            const auto r = zelm::readrestart(path, d.format(), grid->cellsperzone(), nvar);
            std::printf("  header: time %.17g, cycle %d, type %d, gamma %.9g, gas constant %.9g\n", r.dtime,
                        r.lastcyc, r.rstype, r.dgamma, r.drgas);
            std::printf("  %d variable(s) of %lld cells in %zu zone(s)\n", nvar,
                        static_cast<long long>(grid->totalcells()), grid->zones.size());
          }
        } else {
          const auto p = zelm::readpix(path, d.format(), grid->nodesperzone());
          std::printf("  header: \"%s\", reference values %.9g %.9g %.9g %.9g %.9g %.9g\n", p.text.c_str(),
                      p.dvar, p.dgamma, p.drgas, p.dr0, p.drm0, p.dp0);
          std::printf("  %lld variable(s) (%zu free) of %lld nodes in %zu zone(s)\n",
                      static_cast<long long>(p.values.extent(1)), p.labels.size(),
                      static_cast<long long>(grid->totalnodes()), grid->zones.size());
          for (std::size_t k = 0; k < p.labels.size(); ++k)
            std::printf("    free variable %zu: \"%s\"\n", k + 1, p.labels[k].c_str());
        }
      } catch (const zelm::error& e) {
        problems.push_back(e.what());
      }
    }
    if (!problems.empty()) {
      std::printf("  DOES NOT FIT the grid %s:\n", a.get("--grid").c_str());
      for (const auto& p : problems) std::printf("    - %s\n", p.c_str());
      return 1;
    }
    std::printf("  fits the grid %s\n", a.get("--grid").c_str());
  } else if (d.kind != filekind::grid) {
    std::printf("  (give --grid GRID to check it against its grid and show its contents)\n");
  }
  return 0;
}

// ---- convert ----------------------------------------------------------------------------------

zelm::format outputformat(const args& a) {
  const std::string e = a.get("--encoding"), p = a.get("--precision");
  zelm::format f;
  if (e == "unformatted")
    f.enc = zelm::encoding::unformatted;
  else if (e == "binary")
    f.enc = zelm::encoding::binary;
  else if (e == "formatted")
    f.enc = zelm::encoding::formatted;
  else
    die("--encoding must be unformatted, binary or formatted", 2);
  if (p == "single")
    f.dblprec = false;
  else if (p == "double")
    f.dblprec = true;
  else
    die("--precision must be single or double", 2);
  return f;
}

// Values that change when narrowed to 4-byte reals.
template <class A>
std::int64_t lost(const A& a) {
  std::int64_t n = 0;
  for (fortran::index_t i = 0; i < a.size(); ++i)
    n += static_cast<double>(static_cast<float>(a.data()[i])) != a.data()[i];
  return n;
}

int convert(const args& a) {
  if (a.positional.size() != 2) die("convert takes an input and an output file (see zelm convert --help)", 2);
  const std::string in = a.positional[0], out = a.positional[1];
  const zelm::format to = outputformat(a);
  requirefile(in);
  std::optional<zelm::grid> grid;
  if (a.has("--grid")) grid = loadgrid(a.get("--grid"), true);
  const auto d = zelmtool::detect(in, grid ? &*grid : nullptr);
  if (d.kind == filekind::unknown) die("\"" + in + "\" is not a grid, restart or pix file");
  if (d.kind != filekind::grid && !grid)
    die("converting a " + std::string(zelmtool::kindname(d.kind)) + " file needs its grid: --grid GRID");
  if (!d.problems.empty()) die("\"" + in + "\" does not fit the grid: " + d.problems.front());
  std::int64_t narrowed = 0;
  writeatomically(out, a.has("--force"), [&](const std::string& tmp) {
    const std::string reading = "reading " + sized(in), writing = "writing " + out;
    if (d.kind == filekind::grid) {
      zelm::grid g;
      {
        stage s(reading);
        g = zelm::readgrid(in, d.format());
      }
      if (!to.dblprec) narrowed = lost(g.x);
      stage s(writing);
      zelm::writegrid(tmp, to, g);
    } else if (d.kind == filekind::restart) {
      const int nvar = a.has("--nvar") ? std::atoi(a.get("--nvar").c_str()) : d.nvar;
      if (nvar < 0) die("the number of restart variables cannot be found from \"" + in + "\": give --nvar");
      zelm::restart r;
      {
        stage s(reading);
        r = zelm::readrestart(in, d.format(), grid->cellsperzone(), nvar);
      }
      if (!to.dblprec) narrowed = lost(r.q);
      stage s(writing);
      zelm::writerestart(tmp, to, r, grid->cellsperzone());
    } else {
      zelm::pix p;
      {
        stage s(reading);
        p = zelm::readpix(in, d.format(), grid->nodesperzone());
      }
      if (!to.dblprec) narrowed = lost(p.values);
      stage s(writing);
      zelm::writepix(tmp, to, p, grid->nodesperzone());
    }
  });
  std::printf("%s (%s, %s) -> %s (%s, %s)\n", in.c_str(), zelm::encodingname(d.enc),
              d.dblprec ? "double" : "single", out.c_str(), zelm::encodingname(to.enc),
              to.dblprec ? "double" : "single");
  if (narrowed > 0)
    std::printf("warning: %lld value(s) lost precision on the way to 4-byte reals\n",
                static_cast<long long>(narrowed));
  return 0;
}

// ---- export -----------------------------------------------------------------------------------

int exportgrid(const args& a) {
  if (a.positional.size() != 1) die("export takes one grid file (see zelm export --help)", 2);
  if (!a.has("-o")) die("export needs an output file: -o OUT.dat", 2);
  const fs::path out = a.get("-o");
  zelm::grid g;
  {
    stage s("reading " + sized(a.positional[0]));
    g = loadgrid(a.positional[0], false);
  }
  std::optional<zelm::pix> p;
  if (a.has("--pix")) {
    const std::string pixfile = a.get("--pix");
    requirefile(pixfile);
    const auto d = zelmtool::detect(pixfile, &g);
    if (d.kind != filekind::pix)
      die("\"" + pixfile + "\" is not a pix file (" + zelmtool::kindname(d.kind) + ")");
    if (!d.problems.empty()) die("\"" + pixfile + "\" does not fit the grid: " + d.problems.front());
    p = zelm::readpix(pixfile, d.format(), g.nodesperzone());
    if (!p->labels.empty())
      std::printf(
          "note: the Tecplot variables hold the six fixed variables; %zu free variable(s) are not exported\n",
          p->labels.size());
  }
  std::vector<fs::path> outs;
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    fs::path o = out;
    if (k > 0)
      o.replace_filename(out.stem().string() + "-zone" + std::to_string(k + 1) + out.extension().string());
    std::error_code ec;
    if (fs::exists(o, ec) && !a.has("--force"))
      die("\"" + o.string() + "\" exists: give --force to replace it");
    outs.push_back(o);
  }
  // The export numbers nodes and cells within a zone: one file per zone, each zone on its own.
  zelm::tecplotoptions options;
  options.messages = zelm::messagesto(quiet ? nullptr : stdout);
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    {
      stage s("exporting zone " + std::to_string(k + 1) + " to " + outs[k].string());
      options.zone = static_cast<int>(k + 1);
      writeatomically(outs[k].string(), a.has("--force"), [&](const std::string& tmp) {
        const auto leftout = zelm::writetecplot(tmp, g, p ? &p->values : nullptr, options);
        if (leftout > 0)
          die("zone " + std::to_string(k + 1) + " refers to " + std::to_string(leftout) +
              " node, face or cell number(s) outside the grid: not exported");
      });
    }
    std::printf("wrote %s (zone %zu: %d nodes, %d cells)\n", outs[k].c_str(), k + 1, g.zones[k].nodes,
                g.zones[k].cells);
  }
  return 0;
}

// ---- sample -----------------------------------------------------------------------------------

int sample(const args& a) {
  if (a.positional.size() != 1) die("sample takes a folder (see zelm sample --help)", 2);
  const fs::path dir = a.positional[0];
  fs::create_directories(dir);
  struct samplegrid {
    const char* name;
    zelmgen::grid g;
  };
  samplegrid grids[] = {{"flow2d", zelmgen::quadtri(16, 12, false, 2)},
                        {"flow3d", zelmgen::tetprism(8, 8, 6, 3)}};
  for (auto& s : grids) {
    const auto g = zelmgen::typed(s.g);
    const auto values = zelmgen::nodesolution(s.g, 1);
    zelm::pix p;
    p.dvar = 1.0, p.dgamma = 1.4, p.drgas = 287.05, p.dr0 = 1.225, p.drm0 = 0.5, p.dp0 = 101325.0;
    p.text = std::string("sample ") + s.name;
    p.labels = {"speed"};
    p.values.allocate(values.extent(1), values.extent(2));
    for (fortran::index_t i = 0; i < values.size(); ++i) p.values.data()[i] = values.data()[i];
    // The cell solution of a restart file: five conserved variables at the cell centres.
    const auto cellvalues = zelmgen::cellsolution(s.g, 5);
    zelm::restart r;
    r.dtime = 0.125, r.lastcyc = 400, r.rstype = 1, r.dgamma = 1.4, r.drgas = 287.05, r.dr0 = 1.225,
    r.drm0 = 0.5;
    r.dp0 = 101325.0;
    r.q.allocate(cellvalues.extent(1), cellvalues.extent(2));
    for (fortran::index_t i = 0; i < cellvalues.size(); ++i) r.q.data()[i] = cellvalues.data()[i];
    for (auto [enc, suffix] :
         {std::pair{zelm::encoding::unformatted, "unf"}, std::pair{zelm::encoding::formatted, "txt"}}) {
      const std::string base = (dir / s.name).string();
      zelm::writegrid(base + "-grid." + suffix, {enc, false}, g);
      zelm::writepix(base + "-pix." + suffix, {enc, false}, p, g.nodesperzone());
      zelm::writerestart(base + "-restart." + suffix, {enc, false}, r, g.cellsperzone());
      std::printf("wrote %s-grid.%s, %s-pix.%s and %s-restart.%s\n", base.c_str(), suffix, base.c_str(),
                  suffix, base.c_str(), suffix);
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int first = 1;
  while (first < argc && (std::string(argv[first]) == "--quiet" || std::string(argv[first]) == "-q")) {
    quiet = true;
    ++first;
  }
  showprogress = !quiet && ::isatty(2) != 0;
  if (quiet) {
    mod_zelmgrid::io::setstdout(nullptr);
    mod_gridvars::announcements = nullptr;
  }
  if (first >= argc || std::string(argv[first]) == "--help" || std::string(argv[first]) == "-h") {
    std::fputs(usage, first >= argc ? stderr : stdout);
    return first >= argc ? 2 : 0;
  }
  const std::string verb = argv[first];
  struct verbdef {
    const char* help;
    std::vector<std::string> valued, flags;
    int (*run)(const args&);
  };
  const std::map<std::string, verbdef> verbs = {
      {"info", {infohelp, {"--grid", "--nvar"}, {}, info}},
      {"convert", {converthelp, {"--encoding", "--precision", "--grid", "--nvar"}, {"--force"}, convert}},
      {"export", {exporthelp, {"-o", "--pix"}, {"--force"}, exportgrid}},
      {"sample", {samplehelp, {}, {}, sample}},
  };
  const auto it = verbs.find(verb);
  if (it == verbs.end()) {
    std::fprintf(stderr, "zelm: unknown verb \"%s\"\n\n%s", verb.c_str(), usage);
    return 2;
  }
  for (int i = first + 1; i < argc; ++i)
    if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
      std::fputs(it->second.help, stdout);
      return 0;
    }
  try {
    const args a = parse(argc, argv, first + 1, it->second.valued, it->second.flags);
    return it->second.run(a);
  } catch (const failure& f) {
    std::fprintf(stderr, "zelm: %s\n", f.message.c_str());
    return f.status;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zelm: %s\n", e.what());
    return 1;
  }
}
