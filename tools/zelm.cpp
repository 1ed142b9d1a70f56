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
#include "zelmgrid/export.hpp"
#include "zelmgrid/files.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"

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
  export GRID [--pix PIX] [--restart RESTART] -o OUT.vtu|.vtm|.dat [--force]
                                 write a grid and its solutions for a viewer (VTK XML or Tecplot)
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

constexpr const char* exporthelp =
    R"(usage: zelm export GRID [--pix PIX] [--restart RESTART [--nvar N]] -o OUT [options]

Writes GRID with its node solution (PIX) and cell solution (RESTART) in a form that
ParaView, VisIt or Tecplot open as it is. Cells are rebuilt from the grid's faces: every
zone, every cell (triangles, quadrilaterals and polygons in 2D; tetrahedra, pyramids,
wedges, hexahedra and general polyhedra in 3D), each boundary code as a surface of its own.
The format follows OUT's suffix:
  OUT.vtu         one VTK unstructured grid: a grid of one zone, or the zone of --zone K
  OUT.vtm         a VTK multiblock file and a folder OUT/ of .vtu files, one per zone and
                  one per boundary code
  OUT.dat, .tec   Tecplot ASCII: a polyhedral (3D) or polygonal (2D) zone per grid zone and
                  a polygonal zone per boundary code
options:
  --pix PIX         node values: density, velocity_u, velocity_v, velocity_w, pressure,
                    variable6, then the free variables by their labels
  --restart RST     cell values q1 .. qN; --nvar N when the file does not say N
  --zone K          the zone written to a .vtu file
  --ascii, --base64 VTK arrays as text or inline base64 (default: appended raw binary)
  --strict          refuse a grid with a cell that cannot be built (default: leave such
                    cells out and say which)
  --faithful        the library's own Tecplot export (writetecplotfile), as hosts get it:
                    FEPOINT zones, one file per zone (OUT.dat, OUT-zone2.dat, ...); its 3D
                    files are not well-formed Tecplot
  --force           replace OUT if it exists
)";

constexpr const char* samplehelp = R"(usage: zelm sample DIR

Writes the sample data into DIR: a 2D grid of quadrilaterals and triangles and a 3D grid
of tetrahedra and prisms, each with a pix solution of a smooth flow, in several encodings.
)";

// Progress of long work, on standard error when it is a terminal and --quiet was not given.
bool showprogress = false;

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
zelm::grid loadgrid(const std::string& path, bool headeronly, zelmtool::detection* found = nullptr) {
  requirefile(path);
  const auto d = zelmtool::detect(path);
  if (found != nullptr) *found = d;
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

void throwingfailure(const std::string& message) {
  throw failure{message, 1};
}
void throwingstop() {
  throw failure{"the export stopped: a cell's nodes cannot be ordered (see the message above)", 1};
}

// Copies a file across folders (rename cannot cross file systems).
void movefile(const fs::path& from, const fs::path& to) {
  std::error_code ec;
  fs::rename(from, to, ec);
  if (!ec) return;
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  fs::remove(from);
}

// One zone of the grid with its node values, exported to `out` through writetecplotfile.
void exportzone(const zelm::grid& g, std::size_t k, const fortran::farray<double, 2>* values,
                const fs::path& out) {
  using fortran::farray;
  using fortran::index_t;
  index_t node0 = 0, face0 = 0;
  for (std::size_t i = 0; i < k; ++i) {
    node0 += g.zones[i].nodes;
    face0 += g.zones[i].faces;
  }
  const auto& z = g.zones[k];
  farray<double, 2> x, qnode;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;
  x.allocate(g.ndim, z.nodes);
  qnode.allocate(6, z.nodes);
  for (index_t n = 1; n <= z.nodes; ++n) {
    for (int d = 1; d <= g.ndim; ++d) x(d, n) = g.x(d, node0 + n);
    for (int v = 1; v <= 6; ++v) qnode(v, n) = values != nullptr ? (*values)(v, node0 + n) : 0.0;
  }
  for (auto* a : {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}) a->allocate(1);
  nptsz(1) = z.nodes, nfacesz(1) = z.faces, ncellsz(1) = z.cells, mnpfz(1) = z.mnpf, mfpcz(1) = z.mfpc;
  const index_t width = g.ifnode.extent(1);
  npf.allocate(z.faces);
  ifnode.allocate(width, z.faces);
  ifcell.allocate(2, z.faces);
  for (index_t f = 1; f <= z.faces; ++f) {
    npf(f) = g.npf(face0 + f);
    for (index_t s = 1; s <= width; ++s) ifnode(s, f) = g.ifnode(s, face0 + f);
    ifcell(1, f) = g.ifcell(1, face0 + f);
    ifcell(2, f) = g.ifcell(2, face0 + f);
  }
  // The export takes a 40-character file name: it writes under a short temporary name first.
  const char* tmpdir = std::getenv("TMPDIR");
  fs::path tmp = fs::path(tmpdir != nullptr && std::strlen(tmpdir) < 20 ? tmpdir : "/tmp") /
                 ("zelm-" + std::to_string(::getpid()) + ".dat");
  mod_gridvars::npixvar = 6;
  mod_gridvars::numrstrtvar = 6;
  mod_zelmgrid::resetstate();  // the export runs once per run; this starts it afresh
  const int ndim = g.ndim, one = 1;
  try {
    mod_zelmgrid::writetecplotfile(tmp.string(), ndim, one, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf,
                                   ifnode, ifcell, qnode);
    mod_zelmgrid::io::closeall();
    movefile(tmp, out);
  } catch (...) {
    mod_zelmgrid::io::closeall();
    std::error_code ec;
    fs::remove(tmp, ec);
    throw;
  }
}

// A solution file of the given kind, recognised from its bytes and checked against the grid.
zelmtool::detection detectsolution(const std::string& path, const zelm::grid& g, filekind kind) {
  requirefile(path);
  const auto d = zelmtool::detect(path, &g);
  if (d.kind != kind)
    die("\"" + path + "\" is not a " + zelmtool::kindname(kind) + " file (" + zelmtool::kindname(d.kind) +
        ")");
  if (!d.problems.empty()) die("\"" + path + "\" does not fit the grid: " + d.problems.front());
  return d;
}

// --faithful: the library's own export, one file per zone, as hosts of writetecplotfile get it.
int exportfaithful(const args& a, const zelm::grid& g) {
  const fs::path out = a.get("-o");
  if (a.has("--restart")) die("--faithful writes node values only: leave out --restart", 2);
  if (g.ndim == 3)
    std::fprintf(
        stderr,
        "zelm: warning: --faithful 3D files are not well-formed Tecplot (a zone follows another without "
        "its header); readers lose the body surfaces\n");
  std::optional<zelm::pix> p;
  if (a.has("--pix")) {
    const std::string pixfile = a.get("--pix");
    p = zelm::readpix(pixfile, detectsolution(pixfile, g, filekind::pix).format(), g.nodesperzone());
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
  mod_zelmgrid::io::setfailurehandler(throwingfailure);
  mod_zelmgrid::io::setstophandler(throwingstop);
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    {
      stage s("exporting zone " + std::to_string(k + 1) + " to " + outs[k].string());
      exportzone(g, k, p ? &p->values : nullptr, outs[k]);
    }
    std::printf("wrote %s (zone %zu: %d nodes, %d cells)\n", outs[k].c_str(), k + 1, g.zones[k].nodes,
                g.zones[k].cells);
  }
  return 0;
}

int exportgrid(const args& a) {
  if (a.positional.size() != 1) die("export takes one grid file (see zelm export --help)", 2);
  if (!a.has("-o")) die("export needs an output file: -o OUT.vtu, OUT.vtm or OUT.dat", 2);
  zelm::grid g;
  zelmtool::detection gd;
  {
    stage s("reading " + sized(a.positional[0]));
    g = loadgrid(a.positional[0], false, &gd);
  }
  if (g.ndim != 2 && g.ndim != 3)
    die("the export takes 2D or 3D grids; this grid has ndim " + std::to_string(g.ndim));
  if (a.has("--faithful")) return exportfaithful(a, g);

  const fs::path out = a.get("-o");
  const std::string suffix = out.extension().string();
  if (suffix != ".vtu" && suffix != ".vtm" && suffix != ".dat" && suffix != ".tec")
    die("the output's suffix chooses the format: .vtu, .vtm, .dat or .tec (\"" + out.string() + "\")", 2);
  int zone = 1;
  if (suffix == ".vtu") {
    if (a.has("--zone"))
      zone = std::atoi(a.get("--zone").c_str());
    else if (g.zones.size() != 1)
      die("the grid has " + std::to_string(g.zones.size()) +
              " zones and a .vtu file holds one: give --zone K or write .vtm",
          2);
    if (zone < 1 || zone > static_cast<int>(g.zones.size()))
      die("--zone must be 1 .. " + std::to_string(g.zones.size()), 2);
  } else if (a.has("--zone")) {
    die("--zone chooses the zone of a .vtu file", 2);
  }
  zelm::exportdata data;
  data.g = &g;
  data.grid64 = gd.dblprec;
  data.title = "zelm export of " + fs::path(a.positional[0]).filename().string();
  std::optional<zelm::pix> p;
  std::optional<zelm::restart> r;
  if (a.has("--pix")) {
    const auto d = detectsolution(a.get("--pix"), g, filekind::pix);
    stage s("reading " + sized(a.get("--pix")));
    p = zelm::readpix(a.get("--pix"), d.format(), g.nodesperzone());
    data.p = &*p, data.pix64 = d.dblprec;
  }
  if (a.has("--restart")) {
    const auto d = detectsolution(a.get("--restart"), g, filekind::restart);
    const int nvar = a.has("--nvar") ? std::atoi(a.get("--nvar").c_str()) : d.nvar;
    if (nvar < 0) die("the number of restart variables cannot be found from the file: give --nvar");
    stage s("reading " + sized(a.get("--restart")));
    r = zelm::readrestart(a.get("--restart"), d.format(), g.cellsperzone(), nvar);
    data.r = &*r, data.restart64 = d.dblprec;
  }
  zelm::mesh m;
  {
    stage s("building cells from faces");
    m = zelm::buildmesh(g, a.has("--strict"));
  }
  for (const auto& line : m.report()) std::printf("%s\n", line.c_str());
  const auto enc = a.has("--ascii")    ? zelm::vtuencoding::ascii
                   : a.has("--base64") ? zelm::vtuencoding::base64
                                       : zelm::vtuencoding::raw;
  // Everything is written under temporary names in the destination folder and renamed into place.
  const fs::path folder = out.parent_path() / out.stem();
  std::error_code ec;
  if (!a.has("--force") && (fs::exists(out, ec) || (suffix == ".vtm" && fs::exists(folder, ec))))
    die("\"" + (fs::exists(out, ec) ? out : folder).string() + "\" exists: give --force to replace it");
  const std::string tag = ".zelm-" + std::to_string(::getpid());
  const fs::path tmp = out.parent_path() / ("." + out.filename().string() + tag);
  const fs::path tmpfolder = out.parent_path() / ("." + out.stem().string() + tag);
  try {
    stage s("writing " + out.string());
    if (suffix == ".vtu")
      zelm::writevtu(tmp.string(), m, m.zones[static_cast<std::size_t>(zone - 1)], data, enc);
    else if (suffix == ".vtm")
      zelm::writevtm(tmp.string(), tmpfolder.string(), out.stem().string(), m, data, enc);
    else
      zelm::writetecplot(tmp.string(), m, data);
    if (suffix == ".vtm") {
      fs::remove_all(folder);
      fs::rename(tmpfolder, folder);
    }
    fs::rename(tmp, out);
  } catch (...) {
    fs::remove(tmp, ec);
    fs::remove_all(tmpfolder, ec);
    throw;
  }
  std::printf("wrote %s\n", sized(out.string()).c_str());
  return 0;
}

// ---- sample -----------------------------------------------------------------------------------

zelm::grid typed(const zelmgen::grid& g) {
  zelm::grid t;
  t.ndim = g.ndim;
  t.aux = g.ngridaux;
  for (int k = 1; k <= g.nzones; ++k)
    t.zones.push_back({g.nptsz(k), g.nfacesz(k), g.ncellsz(k), g.mnpfz(k), g.mfpcz(k)});
  t.x.allocate(g.x.extent(1), g.x.extent(2));
  for (fortran::index_t i = 0; i < g.x.size(); ++i) t.x.data()[i] = g.x.data()[i];
  t.npf.allocate(g.npf.extent(1));
  t.ifnode.allocate(g.ifnode.extent(1), g.ifnode.extent(2));
  t.ifcell.allocate(2, g.ifcell.extent(2));
  for (fortran::index_t i = 0; i < g.npf.size(); ++i) t.npf.data()[i] = g.npf.data()[i];
  for (fortran::index_t i = 0; i < g.ifnode.size(); ++i) t.ifnode.data()[i] = g.ifnode.data()[i];
  for (fortran::index_t i = 0; i < g.ifcell.size(); ++i) t.ifcell.data()[i] = g.ifcell.data()[i];
  return t;
}

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
    const auto g = typed(s.g);
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
  bool quiet = false;
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
      {"export",
       {exporthelp,
        {"-o", "--pix", "--restart", "--nvar", "--zone"},
        {"--force", "--faithful", "--ascii", "--base64", "--strict"},
        exportgrid}},
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
