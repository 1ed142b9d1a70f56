// zelm: inspect, convert and export the solver family's grid, restart and pix files.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
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
#include "zelmgrid/check.hpp"
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
  check GRID [--pix PIX] [--restart RESTART [--nvar N]] [--json]
                                 is the grid (and its solution) sound
  diff A B [--grid GRID] [--atol X] [--rtol Y] [--ulps N] [--json]
                                 how two files of one kind differ
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

constexpr const char* infohelp = R"(usage: zelm info FILE [--grid GRID] [--stats] [--json]

Tells what FILE is without being told: its kind (grid, restart or pix), its encoding
(framed records, unframed stream or text) and the precision of its reals, with the
evidence found in the bytes, then the grid header and a table of the zones.

Restart and pix files hold no counts of their own: with --grid GRID, zelm checks that
the file's records and length agree with the grid's zones and says where they do not.
  --nvar N        the number of restart variables (found from the file when omitted)
  --stats         every variable's minimum, maximum and mean (a grid: its coordinates')
  --json          all of it as one JSON object
A grid's bounding box is shown whenever the file is a grid.
The exit status is 1 when the file cannot be read or does not fit its grid.
)";

constexpr const char* checkhelp =
    R"(usage: zelm check GRID [--pix PIX] [--restart RESTART [--nvar N]] [--json]

Reads every record of GRID (and of its solutions) and checks, zone by zone:
  file       every record read (a cut-short file is named as truncated, with how far it goes)
  topology   node and cell numbers in range (and whether they count within a zone or across
             the grid), face node counts from 2 (2D) or 3 (3D) to mnpfz, no node repeated in a
             face, no duplicate faces, every node on a face, a cell beside every face, every cell
             with at least ndim + 1 and at most mfpcz faces; boundary codes with faces and areas
  geometry   faces oriented one way (the sense is named), cells closed, volumes (areas in 2D)
             positive; volume range, neighbour volume ratio, non-orthogonality (failed at 90
             degrees, warned above 70), skewness (failed above 4; OpenFOAM's checkMesh measure)
  solutions  --pix PIX (node values) and --restart RESTART (cell values): fit to the grid, no
             NaN or infinity, density and pressure positive, every variable's range
  --nvar N        the number of restart variables (found from the file when omitted)
  --density N     the variable that holds density (pix: 1, restart: 1; 0 for none)
  --pressure N    the variable that holds pressure (pix: 5, the fixed P; restart: none)
  --json          the report as JSON

The report ends in "grid OK" or "N checks failed". Exit status: 0 sound, 1 a check failed
(or GRID is not a grid file), 2 the check could not run.
)";

constexpr const char* diffhelp =
    R"(usage: zelm diff A B [--grid GRID] [--atol X] [--rtol Y] [--ulps N] [--json]

Compares two grid, restart or pix files of one kind, each in any encoding and precision.
Grids: the counts of every zone, the coordinates within tolerance, the faces face for face.
Solutions (they need --grid): the header values, and for every variable the largest
absolute, relative and ULP difference and where it is, and how many values exceed the
tolerance. Two values are equal when |a - b| <= atol + rtol * max(|a|, |b|), or when they
are at most N units in the last place apart (counted in the coarser precision of the two
files, so a double rounded to 4 bytes is at most 0.5 away). All tolerances default to 0.
  --grid GRID     the grid of restart or pix files; differences are then placed at their
                  node's coordinates or cell's centre
  --atol X, --rtol Y, --ulps N
  --nvar N        the number of restart variables (found from each file when omitted)
  --json          the report as JSON
  -q, --quiet     print nothing; only the exit status tells
Exit status, as diff's: 0 equal within tolerance, 1 different, 2 could not compare.
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

// A count given as an option: a whole number of at least `least`.
int countoption(const commandline& a, const std::string& name, int fallback, int least) {
  if (!a.has(name)) return fallback;
  const std::string v = a.get(name);
  char* end = nullptr;
  const long n = std::strtol(v.c_str(), &end, 10);
  if (v.empty() || *end != '\0' || n < least || n > 1000000)
    die(name + " takes a whole number of at least " + std::to_string(least) + ", not " + quoted(v),
        status::environment);
  return static_cast<int>(n);
}

// What info adds to the file's description: a grid's bounding box, and with --stats every
// variable's range (a grid's coordinates, a solution's variables against its grid).
std::vector<zelm::check::range> inforanges(const commandline& a, const std::string& path,
                                           const zelmtool::detection& d, const zelm::grid* grid,
                                           std::vector<std::string>& problems) {
  namespace zc = zelm::check;
  try {
    if (d.kind == filekind::grid) return zc::coordinateranges(zelm::readgrid(path, d.format()));
    if (!a.has("--stats") || !grid || !problems.empty()) return {};
    if (d.kind == filekind::pix) {
      const auto p = zelm::readpix(path, d.format(), grid->nodesperzone());
      return zc::checksolution("", p.values, grid->nodesperzone(), "node", {}, {}).ranges;
    }
    const int nvar = countoption(a, "--nvar", d.nvar, 0);
    if (nvar < 0) return {};
    const auto r = zelm::readrestart(path, d.format(), grid->cellsperzone(), nvar);
    return zc::checksolution("", r.q, grid->cellsperzone(), "cell", {}, {}).ranges;
  } catch (const zelm::error& e) {
    problems.push_back(e.what());
    return {};
  }
}

int infojson(const commandline& a, const std::string& path, const zelmtool::detection& d,
             const zelm::grid* grid) {
  namespace zc = zelm::check;
  std::vector<std::string> problems = d.problems;
  const auto ranges = inforanges(a, path, d, grid, problems);
  const auto list = [](const std::vector<std::string>& v) {
    std::string s = "[";
    for (std::size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + zc::jsonstring(v[i]);
    return s + "]";
  };
  std::string s =
      "{\"file\": " + zc::jsonstring(path) + ", \"kind\": " + zc::jsonstring(zelmtool::kindname(d.kind)) +
      ", \"encoding\": " + (d.encodingknown ? zc::jsonstring(zelm::encodingname(d.enc)) : "null") +
      ", \"realbytes\": " + (d.precisionknown ? (d.dblprec ? "8" : "4") : "null") +
      ", \"evidence\": " + list(d.evidence) + ", \"problems\": " + list(problems);
  if (d.kind == filekind::grid) {
    const auto g = zelm::readgridheader(path, d.format());
    s += ", \"ndim\": " + std::to_string(g.ndim) + ", \"aux\": " + std::to_string(g.aux) + ", \"zones\": [";
    for (std::size_t k = 0; k < g.zones.size(); ++k) {
      const auto& z = g.zones[k];
      s += std::string(k ? ", " : "") + "{\"nodes\": " + std::to_string(z.nodes) +
           ", \"faces\": " + std::to_string(z.faces) + ", \"cells\": " + std::to_string(z.cells) +
           ", \"mnpfz\": " + std::to_string(z.mnpf) + ", \"mfpcz\": " + std::to_string(z.mfpc) + "}";
    }
    s += "], \"boundingbox\": " + zc::json(ranges);
  } else {
    s += ", \"stats\": " + zc::json(ranges);
  }
  std::printf("%s}\n", s.c_str());
  return d.kind == filekind::unknown || !problems.empty() ? status::badfile : status::done;
}

// ---- info -------------------------------------------------------------------------------------

int info(const commandline& a) {
  if (a.positional.size() != 1) die("info takes one file (see zelm info --help)", status::environment);
  const std::string path = a.positional[0];
  requirefile(path);
  std::optional<zelm::grid> grid;
  if (a.has("--grid")) grid = loadgrid(a.get("--grid"), true);
  const auto d = zelmtool::detect(path, grid ? &*grid : nullptr);
  if (a.has("--json")) return infojson(a, path, d, grid ? &*grid : nullptr);
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
    std::vector<std::string> problems;
    const auto box = inforanges(a, path, d, nullptr, problems);
    for (const auto& q : box)
      std::printf("  %s from %.9g to %.9g%s\n", q.name.c_str(), q.min, q.max,
                  a.has("--stats") ? (", mean " + std::to_string(q.mean)).c_str() : "");
    if (!problems.empty()) die(quoted(path) + ": " + problems.front(), status::badfile);
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
    for (const auto& q : inforanges(a, path, d, &*grid, problems))
      std::printf("  %s: min %.9g, max %.9g, mean %.9g\n", q.name.c_str(), q.min, q.max, q.mean);
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

// ---- check ------------------------------------------------------------------------------------

// The grid as far as it reads: the whole of it, or the header of a grid that breaks off (in the
// encoding and precision that read furthest when its bytes could not tell).
struct gridread {
  std::optional<zelm::grid> whole, header;
  zelmtool::detection d;
  std::string failure;
};

gridread readforcheck(const std::string& path) {
  gridread r;
  r.d = zelmtool::detect(path);
  std::vector<zelm::format> tries;
  if (r.d.kind == filekind::grid) tries.push_back(r.d.format());
  for (auto e : {zelm::encoding::unformatted, zelm::encoding::binary, zelm::encoding::formatted})
    for (bool dbl : {false, true})
      if (r.d.kind != filekind::grid) tries.push_back({e, dbl});
  long furthest = -1;
  for (const auto& f : tries) {
    try {
      auto h = zelm::readgridheader(path, f);
      if (h.ndim < 1 || h.ndim > 3 || h.zones.empty()) continue;
      if (!r.header) r.header = std::move(h);
      r.whole = reading(path, [&] { return zelm::readgrid(path, f); });
      r.d.enc = f.enc, r.d.dblprec = f.dblprec;
      return r;
    } catch (const zelm::error& e) {
      const std::string m = e.what();
      const auto at = m.find("at byte ");
      const long byte = at == std::string::npos ? 0 : std::atol(m.c_str() + at + 8);
      if (byte > furthest) furthest = byte, r.failure = m, r.d.enc = f.enc, r.d.dblprec = f.dblprec;
    }
  }
  return r;
}

int checkfiles(const commandline& a) {
  namespace zc = zelm::check;
  if (a.positional.size() != 1) die("check takes one grid file (see zelm check --help)", status::environment);
  const std::string path = a.positional[0];
  requirefile(path);
  for (const char* o : {"--pix", "--restart"})
    if (a.has(o)) requirefile(a.get(o));
  const gridread gr = readforcheck(path);
  if (!gr.whole && !gr.header)
    die(quoted(path) + " is not a grid file (" + zelmtool::kindname(gr.d.kind) + ")", status::badfile);
  zc::report r = gr.whole ? zc::checkgrid(*gr.whole) : zc::report{};
  r.subject =
      path + ": grid file, " + describeformat(gr.d) + ", " + (gr.d.dblprec ? "8-byte" : "4-byte") + " reals";
  if (!gr.whole) r.sections.push_back(zc::unreadable(gr.failure, zelmtool::filesize(path), &*gr.header));
  const zelm::grid& counts = gr.whole ? *gr.whole : *gr.header;
  const auto fixed = [&](zc::fixedvariables f) {
    return zc::fixedvariables{countoption(a, "--density", f.density, 0),
                              countoption(a, "--pressure", f.pressure, 0)};
  };
  fixed({});  // a bad value is a usage error even without a solution to apply it to
  // A solution section: the file read against the grid's counts and checked, or why it cannot be.
  const auto solution = [&](const char* option, filekind kind) {
    const std::string file = a.get(option);
    const std::string title = std::string(zelmtool::kindname(kind)) + " file " + file;
    try {
      const auto d = zelmtool::detect(file, &counts);
      if (d.kind != kind)
        return zc::unfit(title, "it is not a " + std::string(zelmtool::kindname(kind)) + " file (" +
                                    zelmtool::kindname(d.kind) + ")");
      if (!d.problems.empty()) return zc::unfit(title, d.problems.front());
      if (kind == filekind::pix) {
        const auto p = reading(file, [&] { return zelm::readpix(file, d.format(), counts.nodesperzone()); });
        std::vector<std::string> names = {"RHO", "U", "V", "W", "P", "FREE"};
        for (auto l : p.labels) names.push_back(l.erase(l.find_last_not_of(' ') + 1));
        return zc::checksolution(title, p.values, counts.nodesperzone(), "node", fixed(zc::pixfixed), names);
      }
      const int nvar = countoption(a, "--nvar", d.nvar, 0);
      if (nvar < 0)
        die("the number of restart variables cannot be found from " + quoted(file) + ": give --nvar",
            status::environment);
      const auto q =
          reading(file, [&] { return zelm::readrestart(file, d.format(), counts.cellsperzone(), nvar); });
      return zc::checksolution(title, q.q, counts.cellsperzone(), "cell", fixed(zc::restartfixed), {});
    } catch (const zelm::error& e) {
      return zc::unfit(title, e.what());
    }
  };
  if (a.has("--pix")) r.sections.push_back(solution("--pix", filekind::pix));
  if (a.has("--restart")) r.sections.push_back(solution("--restart", filekind::restart));
  const std::string out = a.has("--json") ? zc::json(r) : zc::text(r, "grid OK");
  std::fputs(out.c_str(), stdout);
  return r.failed() == 0 ? status::done : status::badfile;
}

// ---- diff -------------------------------------------------------------------------------------

double tolerance(const commandline& a, const std::string& name) {
  if (!a.has(name)) return 0;
  const std::string v = a.get(name);
  char* end = nullptr;
  const double x = std::strtod(v.c_str(), &end);
  if (v.empty() || *end != '\0' || !(x >= 0) || !std::isfinite(x))
    die(name + " takes a number of at least 0, not " + quoted(v), status::environment);
  return x;
}

int difffiles(const commandline& a) {
  namespace zc = zelm::check;
  // Anything that keeps the files from being compared is status 2, as diff has it.
  const auto cannot = [](const std::string& why) { die("cannot compare: " + why, status::environment); };
  if (a.positional.size() != 2) die("diff takes two files (see zelm diff --help)", status::environment);
  const zc::tolerance t{tolerance(a, "--atol"), tolerance(a, "--rtol"), tolerance(a, "--ulps")};
  const std::string pa = a.positional[0], pb = a.positional[1];
  requirefile(pa);
  requirefile(pb);
  zc::report r;
  try {
    std::optional<zelm::grid> grid;
    if (a.has("--grid")) {
      requirefile(a.get("--grid"));
      const auto d = zelmtool::detect(a.get("--grid"));
      if (d.kind != filekind::grid) cannot(quoted(a.get("--grid")) + " is not a grid file");
      grid = reading(a.get("--grid"), [&] { return zelm::readgrid(a.get("--grid"), d.format()); });
    }
    const zelm::grid* g = grid ? &*grid : nullptr;
    const auto da = zelmtool::detect(pa, g), db = zelmtool::detect(pb, g);
    for (const auto* d : {&da, &db}) {
      const std::string& p = d == &da ? pa : pb;
      if (d->kind == filekind::unknown) cannot(quoted(p) + " is not a grid, restart or pix file");
      if (!d->problems.empty()) cannot(quoted(p) + " does not fit the grid: " + d->problems.front());
    }
    if (da.kind != db.kind)
      cannot(quoted(pa) + " is a " + zelmtool::kindname(da.kind) + " file, " + quoted(pb) + " a " +
             zelmtool::kindname(db.kind) + " file");
    if (da.kind != filekind::grid && !g)
      cannot(std::string(zelmtool::kindname(da.kind)) +
             " files hold no counts of their own: give --grid GRID");
    const zc::side sa{da.dblprec}, sb{db.dblprec};
    if (da.kind == filekind::grid) {
      const auto ga = reading(pa, [&] { return zelm::readgrid(pa, da.format()); });
      const auto gb = reading(pb, [&] { return zelm::readgrid(pb, db.format()); });
      r = zc::diffgrids(ga, sa, gb, sb, t);
    } else if (da.kind == filekind::pix) {
      const auto xa = reading(pa, [&] { return zelm::readpix(pa, da.format(), g->nodesperzone()); });
      const auto xb = reading(pb, [&] { return zelm::readpix(pb, db.format(), g->nodesperzone()); });
      r = zc::diffpix(xa, sa, xb, sb, g->nodesperzone(), g, t);
    } else {
      const int na = countoption(a, "--nvar", da.nvar, 0), nb = countoption(a, "--nvar", db.nvar, 0);
      if (na < 0 || nb < 0)
        cannot("the number of restart variables cannot be found from the files: give --nvar");
      const auto xa = reading(pa, [&] { return zelm::readrestart(pa, da.format(), g->cellsperzone(), na); });
      const auto xb = reading(pb, [&] { return zelm::readrestart(pb, db.format(), g->cellsperzone(), nb); });
      r = zc::diffrestart(xa, sa, xb, sb, g->cellsperzone(), g, t);
    }
    r.subject = pa + " (" + describeformat(da) + ", " + (da.dblprec ? "8" : "4") + "-byte reals) vs " + pb +
                " (" + describeformat(db) + ", " + (db.dblprec ? "8" : "4") +
                "-byte reals): " + zelmtool::kindname(da.kind) + " files";
  } catch (const zelm::error& e) {
    cannot(e.what());
  }
  if (!global.quiet) {
    const std::string out = a.has("--json") ? zc::json(r) : zc::text(r, "files equal within tolerance");
    std::fputs(out.c_str(), stdout);
  }
  return r.failed() == 0 ? status::done : status::badfile;
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
  const std::vector<zelmtool::verbspec> syntaxes = {
      {"info", {"--grid", "--nvar"}, {"--stats", "--json"}},
      {"check", {"--pix", "--restart", "--nvar", "--density", "--pressure"}, {"--json"}},
      {"diff", {"--grid", "--atol", "--rtol", "--ulps", "--nvar"}, {"--json"}},
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
      {"check", {checkhelp, checkfiles}},   {"diff", {diffhelp, difffiles}},
      {"help", {helphelp, nullptr}},
  };
  const auto helpfor = [&](const std::string& verb) {
    const auto it = verbs.find(verb);
    if (it == verbs.end())
      die("unknown verb " + quoted(verb) + " (verbs: info, check, diff, convert, export, sample, help)", 2);
    std::fputs(it->second.help, stdout);
    if (verb != "help")
      std::fputs("\nOptions -q, -v and -h go anywhere; see zelm --help for the exit statuses.\n", stdout);
  };
  int result = status::done;
  try {
    const commandline c = zelmtool::parse(argc, argv, syntaxes);
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
