// zelm: inspect, convert and export the solver family's grid, restart and pix files.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli.hpp"
#include "detect.hpp"
#include "gridgen.hpp"
#include "output.hpp"
#include "progress.hpp"
#include "zelmgrid/error.hpp"
#include "zelmgrid/export.hpp"
#include "zelmgrid/files.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"
#include "zelmgrid/tecplot.hpp"

namespace fs = std::filesystem;
using zelmtool::commandline;
using zelmtool::die;
using zelmtool::filekind;
using zelmtool::outputset;
using zelmtool::progress;
namespace status = zelmtool::status;

namespace {

constexpr const char* usage = R"(usage: zelm [OPTIONS] VERB [ARGS]

Reads, checks, converts and exports the solver family's grid, restart and pix files.
The encoding (framed records, unframed stream or text) and the precision of a file
are found from its bytes: there is nothing to tell zelm about them.

verbs:
  info FILE [--grid GRID]        what a file is, with the evidence, and its contents
  convert IN [OUT | -o OUT] [--encoding E] [--precision P] [--grid GRID] [--nvar N] [--force]
                                 rewrite a file in another encoding or precision
  export GRID [--pix PIX] [--restart RESTART] -o OUT.vtu|.vtm|.dat [--force]
                                 write a grid and its solutions for a viewer (VTK XML or Tecplot)
  sample DIR [--force]           write the sample grids and solutions into DIR
  help [VERB]                    this text, or the options of a verb

options (anywhere on the line):
  -q, --quiet     no progress line and no notes; warnings and errors are still shown
  -v, --verbose   the library's own progress lines, on standard error
  -h, --help      this text, or with a verb, the verb's
  --version       zelm's version
  --              what follows is a file name, even if it begins with -

Outputs are written next to their destination under a temporary name and renamed into
place once complete: a failure or an interrupt leaves the old files as they were. zelm
replaces only regular files, and only with --force.

)";

constexpr const char* infohelp = R"(usage: zelm info FILE [--grid GRID]

Tells what FILE is without being told: its kind (grid, restart or pix), its encoding
(framed records, unframed stream or text) and the precision of its reals, with the
evidence found in the bytes, then the grid header and a table of the zones.

Restart and pix files hold no counts of their own: with --grid GRID, zelm checks that
the file's records and length agree with the grid's zones and says where they do not.
  --nvar N        the number of restart variables (found from the file when omitted)
The exit status is 1 when the file cannot be read or does not fit its grid.
)";

constexpr const char* converthelp =
    R"(usage: zelm convert IN OUT [--encoding E] [--precision P] [--grid GRID] [--nvar N] [--force]
       zelm convert IN -o OUT ...

Rewrites IN as OUT in another encoding and precision, carrying every header value across.
  -o OUT          the output (or give it after IN)
  --encoding E    unformatted (framed records), binary (unframed) or formatted (text);
                  IN's when omitted
  --precision P   single (4-byte reals) or double (8-byte reals); for text, 9 or 17 digits;
                  IN's when omitted
  --grid GRID     the grid of a restart or pix file (required for them)
  --nvar N        the number of restart variables (found from the file when omitted)
  --force         replace OUT if it exists (only a regular file is ever replaced)

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

constexpr const char* samplehelp = R"(usage: zelm sample DIR [--force]

Writes the sample data into DIR: a 2D grid of quadrilaterals and triangles and a 3D grid
of tetrahedra and prisms, each with a pix solution of a smooth flow, in several encodings.
Files in DIR that already hold the same bytes are left alone; one that differs is replaced
only with --force.
)";

constexpr const char* helphelp = R"(usage: zelm help [VERB]

Prints the overview of zelm, or the options of VERB.
)";

// Global options as given.
zelmtool::globaloptions global;

std::string quoted(const std::string& s) {
  return "\"" + s + "\"";
}

// An input: there, a regular file, readable. Anything else is the environment's fault (status 2);
// a FIFO or device would hang the readers or feed them without end.
void requirefile(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    die(quoted(path) + ": " + (errno == ENOENT ? "no such file" : std::strerror(errno)), status::environment);
  if (S_ISDIR(st.st_mode)) die(quoted(path) + " is a directory", status::environment);
  if (!S_ISREG(st.st_mode)) die(quoted(path) + " is not a regular file", status::environment);
  if (::access(path.c_str(), R_OK) != 0) die(quoted(path) + ": " + std::strerror(errno), status::environment);
}

// A note for the user: on standard error, left out with --quiet.
void note(const std::string& text) {
  if (!global.quiet) std::fprintf(stderr, "zelm: %s\n", text.c_str());
}

void warn(const std::string& text) {
  std::fprintf(stderr, "zelm: warning: %s\n", text.c_str());
}

// Reads a file through `read`, with a progress line; a file that cannot be read is damaged or not
// what was asked (status 1).
template <class F>
auto reading(const std::string& path, F&& read) {
  progress p("reading " + path, zelmtool::filesize(path));
  return read();
}

[[noreturn]] void writefailed(const outputset& set, const std::string& destination, const std::string& why) {
  std::string m = "cannot write " + quoted(destination) + " (left as it was): " + set.explain(why);
  if (why.find(std::strerror(EFBIG)) != std::string::npos) m += " (the file size limit, ulimit -f)";
  die(m, status::environment);
}

// Writes one output of `set` through `write`; a failure leaves the destination as it was and says
// why (status 2).
template <class F>
void writing(outputset& set, const std::string& destination, F&& write) {
  try {
    progress p("writing " + destination, -1);
    write();
  } catch (const zelmtool::failure& f) {
    if (f.status != status::environment) die(set.explain(f.message), f.status);
    writefailed(set, destination, f.message);
  } catch (const zelm::ioerror& e) {
    writefailed(set, destination, e.what());
  } catch (const zelm::error& e) {  // what was to be written is not sound
    die(set.explain(e.what()), status::badfile);
  } catch (const std::exception& e) {
    writefailed(set, destination, e.what());
  }
}

// A grid, recognised from its bytes.
zelm::grid loadgrid(const std::string& path, bool headeronly, zelmtool::detection* found = nullptr) {
  requirefile(path);
  const auto d = zelmtool::detect(path);
  if (found != nullptr) *found = d;
  if (d.kind != filekind::grid)
    die(quoted(path) + " is not a grid file (" + zelmtool::kindname(d.kind) + ")", status::badfile);
  if (headeronly) return zelm::readgridheader(path, d.format());
  return reading(path, [&] { return zelm::readgrid(path, d.format()); });
}

std::string describeformat(const zelmtool::detection& d) {
  std::string s = zelm::encodingname(d.enc);
  s += d.enc == zelm::encoding::unformatted ? " (framed records)"
       : d.enc == zelm::encoding::binary    ? " (unframed stream)"
                                            : " (list-directed text)";
  return s;
}

// ---- info -------------------------------------------------------------------------------------

int info(const commandline& a) {
  if (a.positional.size() != 1) die("info takes one file (see zelm info --help)", status::environment);
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
  if (d.kind == filekind::unknown) die(quoted(path) + " is not a grid, restart or pix file", status::badfile);

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

// The output's encoding and precision: as asked, or the source's (`kept` says which).
zelm::format outputformat(const commandline& a, const zelmtool::detection& d, std::string& kept) {
  zelm::format f = d.format();
  const std::string e = a.get("--encoding"), p = a.get("--precision");
  if (!a.has("--encoding"))
    ;
  else if (e == "unformatted")
    f.enc = zelm::encoding::unformatted;
  else if (e == "binary")
    f.enc = zelm::encoding::binary;
  else if (e == "formatted")
    f.enc = zelm::encoding::formatted;
  else
    die("--encoding must be unformatted, binary or formatted, not " + quoted(e), status::environment);
  if (!a.has("--precision"))
    ;
  else if (p == "single")
    f.dblprec = false;
  else if (p == "double")
    f.dblprec = true;
  else
    die("--precision must be single or double, not " + quoted(p), status::environment);
  std::vector<std::string> same;
  if (!a.has("--encoding")) same.push_back(std::string("encoding ") + zelm::encodingname(f.enc));
  if (!a.has("--precision"))
    same.push_back(std::string("precision ") + (f.dblprec ? "double" : "single") +
                   (d.precisionknown ? "" : " (the source's cannot be told)"));
  if (!same.empty()) kept = same.front() + (same.size() > 1 ? " and " + same.back() : "");
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

int convert(const commandline& a) {
  std::vector<std::string> names = a.positional;
  if (a.has("-o")) names.push_back(a.get("-o"));
  if (names.size() != 2)
    die(std::string(names.size() < 2 ? "convert needs" : "convert takes only") +
            " an input and an output file: zelm convert IN OUT (or -o OUT); see zelm convert --help",
        status::environment);
  const std::string in = names[0], out = names[1];
  requirefile(in);
  std::optional<zelm::grid> grid;
  if (a.has("--grid")) grid = loadgrid(a.get("--grid"), true);
  const auto d = zelmtool::detect(in, grid ? &*grid : nullptr);
  if (d.kind == filekind::unknown) die(quoted(in) + " is not a grid, restart or pix file", status::badfile);
  if (d.kind != filekind::grid && !grid)
    die("converting a " + std::string(zelmtool::kindname(d.kind)) + " file needs its grid: --grid GRID",
        status::environment);
  if (!d.problems.empty()) die(quoted(in) + " does not fit the grid: " + d.problems.front(), status::badfile);
  std::string kept;
  const zelm::format to = outputformat(a, d, kept);
  outputset set(a.has("--force") ? outputset::existing::replace : outputset::existing::refuse);
  const std::string name = set.add(out);  // checked before the work
  std::int64_t narrowed = 0;
  if (d.kind == filekind::grid) {
    const auto g = reading(in, [&] { return zelm::readgrid(in, d.format()); });
    if (!to.dblprec) narrowed = lost(g.x);
    writing(set, out, [&] { zelm::writegrid(name, to, g); });
  } else if (d.kind == filekind::restart) {
    const int nvar = a.has("--nvar") ? std::atoi(a.get("--nvar").c_str()) : d.nvar;
    if (nvar < 0)
      die("the number of restart variables cannot be found from " + quoted(in) + ": give --nvar",
          status::environment);
    const auto r = reading(in, [&] { return zelm::readrestart(in, d.format(), grid->cellsperzone(), nvar); });
    if (!to.dblprec) narrowed = lost(r.q);
    writing(set, out, [&] { zelm::writerestart(name, to, r, grid->cellsperzone()); });
  } else {
    const auto p = reading(in, [&] { return zelm::readpix(in, d.format(), grid->nodesperzone()); });
    if (!to.dblprec) narrowed = lost(p.values);
    writing(set, out, [&] { zelm::writepix(name, to, p, grid->nodesperzone()); });
  }
  set.commit();
  std::printf("%s (%s, %s) -> %s (%s, %s)\n", in.c_str(), zelm::encodingname(d.enc),
              d.dblprec ? "double" : "single", out.c_str(), zelm::encodingname(to.enc),
              to.dblprec ? "double" : "single");
  if (!kept.empty())
    note("wrote " + quoted(out) + " with the source's " + kept + " (--encoding, --precision to change)");
  if (narrowed > 0) warn(std::to_string(narrowed) + " value(s) lost precision on the way to 4-byte reals");
  return status::done;
}

// ---- export -----------------------------------------------------------------------------------

// A solution file of the given kind, recognised from its bytes and checked against the grid.
zelmtool::detection detectsolution(const std::string& path, const zelm::grid& g, filekind kind) {
  requirefile(path);
  const auto d = zelmtool::detect(path, &g);
  if (d.kind != kind)
    die(quoted(path) + " is not a " + zelmtool::kindname(kind) + " file (" + zelmtool::kindname(d.kind) + ")",
        status::badfile);
  if (!d.problems.empty())
    die(quoted(path) + " does not fit the grid: " + d.problems.front(), status::badfile);
  return d;
}

// --faithful: the library's own export, one file per zone, as hosts of writetecplotfile get it.
int exportfaithful(const commandline& a, const zelm::grid& g) {
  const fs::path out = a.get("-o");
  if (a.has("--restart")) die("--faithful writes node values only: leave out --restart", status::environment);
  if (g.ndim == 3)
    warn(
        "--faithful 3D files are not well-formed Tecplot (a zone follows another without its header); "
        "readers lose the body surfaces");
  std::optional<zelm::pix> p;
  if (a.has("--pix")) {
    const std::string pixfile = a.get("--pix");
    const auto d = detectsolution(pixfile, g, filekind::pix);
    p = reading(pixfile, [&] { return zelm::readpix(pixfile, d.format(), g.nodesperzone()); });
    if (!p->labels.empty())
      note("the Tecplot variables hold the six fixed variables; " + std::to_string(p->labels.size()) +
           " free variable(s) are not exported");
  }
  outputset set(a.has("--force") ? outputset::existing::replace : outputset::existing::refuse);
  std::vector<std::string> outs;
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    fs::path o = out;
    if (k > 0)
      o.replace_filename(out.stem().string() + "-zone" + std::to_string(k + 1) + out.extension().string());
    outs.push_back(o.string());
  }
  // The export numbers nodes and cells within a zone: one file per zone, each zone on its own.
  zelm::tecplotoptions options;
  if (global.verbose) options.messages = zelm::messagesto(stderr);
  std::vector<std::string> names;
  for (const auto& o : outs) names.push_back(set.add(o));
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    options.zone = static_cast<int>(k + 1);
    writing(set, outs[k], [&] {
      const auto leftout = zelm::writetecplot(names[k], g, p ? &p->values : nullptr, options);
      if (leftout > 0)
        die("zone " + std::to_string(k + 1) + " refers to " + std::to_string(leftout) +
                " node, face or cell number(s) outside the grid: not exported",
            status::badfile);
    });
  }
  set.commit();
  for (std::size_t k = 0; k < g.zones.size(); ++k)
    std::printf("wrote %s (zone %zu: %d nodes, %d cells)\n", outs[k].c_str(), k + 1, g.zones[k].nodes,
                g.zones[k].cells);
  return status::done;
}

int exportgrid(const commandline& a) {
  if (a.positional.size() == 2 && !a.has("-o"))
    die("export takes one grid file; to name the output, give -o: zelm export " + a.positional[0] + " -o " +
            a.positional[1],
        status::environment);
  if (a.positional.size() != 1)
    die("export takes one grid file (see zelm export --help)", status::environment);
  if (!a.has("-o")) die("export needs an output file: -o OUT.vtu, OUT.vtm or OUT.dat", status::environment);
  zelmtool::detection gd;
  const zelm::grid g = loadgrid(a.positional[0], false, &gd);
  if (g.ndim != 2 && g.ndim != 3)
    die("the export takes 2D or 3D grids; this grid has ndim " + std::to_string(g.ndim), status::badfile);
  if (a.has("--faithful")) return exportfaithful(a, g);

  const fs::path out = a.get("-o");
  const std::string suffix = out.extension().string();
  if (suffix != ".vtu" && suffix != ".vtm" && suffix != ".dat" && suffix != ".tec")
    die("the output's suffix chooses the format: .vtu, .vtm, .dat or .tec (" + quoted(out.string()) + ")",
        status::environment);
  int zone = 1;
  if (suffix == ".vtu") {
    if (a.has("--zone"))
      zone = std::atoi(a.get("--zone").c_str());
    else if (g.zones.size() != 1)
      die("the grid has " + std::to_string(g.zones.size()) +
              " zones and a .vtu file holds one: give --zone K or write .vtm",
          status::environment);
    if (zone < 1 || zone > static_cast<int>(g.zones.size()))
      die("--zone must be 1 .. " + std::to_string(g.zones.size()), status::environment);
  } else if (a.has("--zone")) {
    die("--zone chooses the zone of a .vtu file", status::environment);
  }
  zelm::exportdata data;
  data.g = &g;
  data.grid64 = gd.dblprec;
  data.title = "zelm export of " + fs::path(a.positional[0]).filename().string();
  std::optional<zelm::pix> p;
  std::optional<zelm::restart> r;
  if (a.has("--pix")) {
    const std::string file = a.get("--pix");
    const auto d = detectsolution(file, g, filekind::pix);
    p = reading(file, [&] { return zelm::readpix(file, d.format(), g.nodesperzone()); });
    data.p = &*p, data.pix64 = d.dblprec;
  }
  if (a.has("--restart")) {
    const std::string file = a.get("--restart");
    const auto d = detectsolution(file, g, filekind::restart);
    const int nvar = a.has("--nvar") ? std::atoi(a.get("--nvar").c_str()) : d.nvar;
    if (nvar < 0)
      die("the number of restart variables cannot be found from the file: give --nvar", status::badfile);
    r = reading(file, [&] { return zelm::readrestart(file, d.format(), g.cellsperzone(), nvar); });
    data.r = &*r, data.restart64 = d.dblprec;
  }
  zelm::mesh m;
  try {
    progress pr("building cells from faces", -1);
    m = zelm::buildmesh(g, a.has("--strict"));
  } catch (const zelm::error& e) {
    die(e.what(), status::badfile);
  }
  for (const auto& line : m.report()) std::printf("%s\n", line.c_str());
  const auto enc = a.has("--ascii")    ? zelm::vtuencoding::ascii
                   : a.has("--base64") ? zelm::vtuencoding::base64
                                       : zelm::vtuencoding::raw;
  // Every file (the .vtm and its pieces) is replaced together through one output set.
  outputset set(a.has("--force") ? outputset::existing::replace : outputset::existing::refuse);
  const std::string name = set.add(out.string());
  const fs::path folder = out.parent_path() / out.stem();
  writing(set, out.string(), [&] {
    if (suffix == ".vtu") {
      zelm::writevtu(name, m, m.zones[static_cast<std::size_t>(zone - 1)], data, enc);
    } else if (suffix == ".vtm") {
      std::error_code ec;
      if (fs::exists(fs::symlink_status(folder, ec)) && !fs::is_directory(fs::symlink_status(folder, ec)))
        die(quoted(folder.string()) + " is in the way of the pieces' folder and is not a folder",
            status::environment);
      fs::create_directories(folder);
      zelm::writevtm(name, out.stem().string(), m, data, enc,
                     [&](const std::string& piece) { return set.add((folder / piece).string()); });
    } else {
      zelm::writetecplot(name, m, data);
    }
  });
  set.commit();
  std::printf("wrote %s\n", out.string().c_str());
  return status::done;
}

// ---- sample -----------------------------------------------------------------------------------

int sample(const commandline& a) {
  if (a.positional.size() != 1) die("sample takes a folder (see zelm sample --help)", status::environment);
  const fs::path dir = a.positional[0];
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) die("cannot make the folder " + quoted(dir.string()) + ": " + ec.message(), status::environment);
  outputset set(a.has("--force") ? outputset::existing::replace : outputset::existing::keepifsame);
  std::vector<std::string> written;
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
      const std::string base = (dir / s.name).string() + "-";
      const zelm::format f{enc, false};
      const auto put = [&](const char* kind, auto&& write) {
        const std::string destination = base + kind + suffix, name = set.add(destination);
        written.push_back(destination);
        writing(set, destination, [&] { write(name); });
      };
      put("grid.", [&](const std::string& name) { zelm::writegrid(name, f, g); });
      put("pix.", [&](const std::string& name) { zelm::writepix(name, f, p, g.nodesperzone()); });
      put("restart.", [&](const std::string& name) { zelm::writerestart(name, f, r, g.cellsperzone()); });
    }
  }
  set.commit();
  const auto same = set.unchanged();
  for (const auto& w : written)
    std::printf("%s %s\n", std::find(same.begin(), same.end(), w) == same.end() ? "wrote" : "unchanged",
                w.c_str());
  return status::done;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<zelmtool::verbspec> specs = {
      {"info", {"--grid", "--nvar"}, {}},
      {"convert", {"-o", "--encoding", "--precision", "--grid", "--nvar"}, {"--force"}},
      {"export",
       {"-o", "--pix", "--restart", "--nvar", "--zone"},
       {"--force", "--faithful", "--ascii", "--base64", "--strict"}},
      {"sample", {}, {"--force"}},
      {"help", {}, {}},
  };
  struct verbdef {
    const char* help;
    int (*run)(const commandline&);
  };
  const std::map<std::string, verbdef> verbs = {
      {"info", {infohelp, info}},           {"convert", {converthelp, convert}},
      {"export", {exporthelp, exportgrid}}, {"sample", {samplehelp, sample}},
      {"help", {helphelp, nullptr}},
  };
  const auto helpfor = [&](const std::string& verb) {
    const auto it = verbs.find(verb);
    if (it == verbs.end())
      die("unknown verb " + quoted(verb) + " (verbs: info, convert, export, sample, help)", 2);
    std::fputs(it->second.help, stdout);
    if (verb != "help")
      std::fputs("\nOptions -q, -v and -h go anywhere; see zelm --help for the exit statuses.\n", stdout);
  };
  int result = status::done;
  try {
    const commandline c = zelmtool::parse(argc, argv, specs);
    global = c.global;
    if (global.version) {
      std::printf("zelm %s\n", ZELM_VERSION);
    } else if (c.verb.empty() && !global.help) {
      std::fputs(usage, stderr);
      std::fputs(zelmtool::statustable, stderr);
      result = status::environment;
    } else if (c.verb.empty() || (c.verb == "help" && c.positional.empty())) {
      std::fputs(usage, stdout);
      std::fputs(zelmtool::statustable, stdout);
    } else if (c.verb == "help" || global.help) {
      if (c.verb == "help" && c.positional.size() > 1) die("help takes one verb", status::environment);
      helpfor(c.verb == "help" ? c.positional[0] : c.verb);
    } else {
      // The library's own lines (what it reads and writes, the export's steps) only with -v, on
      // standard error.
      mod_gridvars::announcements = global.verbose ? stderr : nullptr;
      mod_zelmgrid::io::setstdout(global.verbose ? stderr : nullptr);
      zelmtool::progress::enable(!global.quiet && !global.verbose && ::isatty(2) != 0);
      zelmtool::installsignalhandlers();
      result = verbs.at(c.verb).run(c);
    }
  } catch (const zelmtool::failure& f) {
    std::fprintf(stderr, "zelm: %s\n", f.message.c_str());
    result = f.status;
  } catch (const zelm::error& e) {
    std::fprintf(stderr, "zelm: %s\n", e.what());
    result = status::badfile;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "zelm: out of memory\n");
    result = status::environment;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zelm: %s\n", e.what());
    result = status::environment;
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "zelm: cannot write to standard output: %s\n", std::strerror(errno));
    if (result == status::done) result = status::environment;
  }
  return result;
}
