// zelmbench: times every file routine of zelmgrid in every encoding and precision against the
// Fortran-runtime path, meshio and the floor of plain system calls, on a synthetic grid. Results go
// to a JSON file that bench/report.py turns into RESULTS.md.
//
//   driver.cpp     the options, the grid, the files the readers read, the order of the measurements
//   harness.*      clocks, peak memory, child processes, programs run
//   measure.*      what a measurement is, and the runner that interleaves the library and baselines
//   baselines.*    the Fortran path, the floors of system calls and formatting; meshio.cpp
//   cases*.cpp     the routines of each file kind as measured, and the Tecplot export
//   results.*      the rows of the report and their JSON
#include <malloc.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "baselines.hpp"
#include "cases.hpp"

using namespace zelmbench;
namespace fs = std::filesystem;

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
  if (!o.json.empty()) writejson(o.json, d, b.rows, wallnow() - start);
  if (madedir && !o.keep) fs::remove_all(d.dir);
  std::printf("zelmbench: %zu measurements in %.1f s%s\n", b.rows.size(), wallnow() - start,
              failed ? "; SOME FAILED OR DISAGREE" : "");
  return failed ? 1 : 0;
}
