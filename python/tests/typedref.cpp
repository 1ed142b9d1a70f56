// The C++ typed interface as the reference of the Python package's tests and measurements.
//
//   typedref grid FILE ENC DBL                              what zelm::readgrid reads
//   typedref restart FILE ENC DBL NVAR GRID GENC GDBL       what zelm::readrestart reads
//   typedref pix FILE ENC DBL GRID GENC GDBL                what zelm::readpix reads
//   typedref time FILE ENC DBL RUNS                         the fastest of RUNS zelm::readgrid calls, in
//   seconds typedref gen CELLS FILE                                 a tetrahedra-and-prisms grid of about
//   CELLS cells,
//                                                           framed, 4-byte reals
//
// ENC is the encoding code (0, 1, 2), DBL 0 or 1. The dump on standard output is a series of items,
// each a line "num NAME VALUE" (reals in hexadecimal floating point), "str NAME LENGTH" followed by
// the bytes, or "arr NAME TYPE N1 [N2]" followed by the farray's memory (column-major, N1 x N2).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "gridgen.hpp"
#include "zelmgrid/files.hpp"
#include "zelmgrid/io.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"

namespace {

void num(const char* name, double v) {
  std::printf("num %s %a\n", name, v);
}
void str(const char* name, const std::string& s) {
  std::printf("str %s %zu\n", name, s.size());
  std::fwrite(s.data(), 1, s.size(), stdout);
}
template <class T, int R>
void arr(const char* name, const fortran::farray<T, R>& a) {
  std::printf("arr %s %s %lld", name, sizeof(T) == 8 ? "f8" : "i4", static_cast<long long>(a.extent(1)));
  if constexpr (R == 2) std::printf(" %lld", static_cast<long long>(a.extent(2)));
  std::printf("\n");
  std::fwrite(a.data(), sizeof(T), static_cast<std::size_t>(a.size()), stdout);
}

zelm::format fmt(char** a) {
  return {static_cast<zelm::encoding>(std::atoi(a[0])), std::atoi(a[1]) != 0};
}

void dumpgrid(const zelm::grid& g) {
  num("ndim", g.ndim);
  num("aux", g.aux);
  fortran::farray<int, 2> zones;
  zones.allocate(5, static_cast<fortran::index_t>(g.zones.size()));
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    const auto& z = g.zones[k];
    const int row[5] = {z.nodes, z.faces, z.cells, z.mnpf, z.mfpc};
    std::copy(row, row + 5, zones.data() + 5 * k);
  }
  arr("zones", zones);
  arr("x", g.x);
  arr("npf", g.npf);
  arr("ifnode", g.ifnode);
  arr("ifcell", g.ifcell);
}

// A generated grid of about `cells` cells, written by the grid routine (names up to 40 characters).
void generate(std::int64_t cells, const std::string& path) {
  if (path.size() > 40) throw std::runtime_error("the grid's name must fit 40 characters");
  const int n = zelmgen::edgeforcells(cells);
  const auto g = zelmgen::tetprism(n, n, n, n / 2);
  mod_zelmgrid::io::setstdout(nullptr);
  mod_zelmgrid::writezelmgrid(path, 0, 0, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz, g.ncellsz,
                              g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
  mod_zelmgrid::io::close(4);  // the routine leaves its unit connected
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  try {
    if (mode == "grid" && argc == 5) {
      dumpgrid(zelm::readgrid(argv[2], fmt(argv + 3)));
    } else if (mode == "restart" && argc == 9) {
      const auto g = zelm::readgridheader(argv[6], fmt(argv + 7));
      const auto r = zelm::readrestart(argv[2], fmt(argv + 3), g.cellsperzone(), std::atoi(argv[5]));
      for (auto [name, v] : {std::pair{"dtime", r.dtime},
                             {"lastcyc", double(r.lastcyc)},
                             {"rstype", double(r.rstype)},
                             {"dgamma", r.dgamma},
                             {"drgas", r.drgas},
                             {"dr0", r.dr0},
                             {"drm0", r.drm0},
                             {"dp0", r.dp0}})
        num(name, v);
      arr("q", r.q);
    } else if (mode == "pix" && argc == 8) {
      const auto g = zelm::readgridheader(argv[5], fmt(argv + 6));
      const auto p = zelm::readpix(argv[2], fmt(argv + 3), g.nodesperzone());
      for (auto [name, v] : {std::pair{"dvar", p.dvar},
                             {"dgamma", p.dgamma},
                             {"drgas", p.drgas},
                             {"dr0", p.dr0},
                             {"drm0", p.drm0},
                             {"dp0", p.dp0}})
        num(name, v);
      str("text", p.text);
      for (const auto& l : p.labels) str("label", l);
      arr("values", p.values);
    } else if (mode == "time" && argc == 6) {
      double best = 1e30;
      for (int i = 0; i < std::atoi(argv[5]); ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        const auto g = zelm::readgrid(argv[2], fmt(argv + 3));
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
      }
      std::printf("%.6f\n", best);
    } else if (mode == "gen" && argc == 4) {
      generate(std::atoll(argv[2]), argv[3]);
    } else {
      std::fprintf(stderr, "usage: typedref grid|restart|pix|time|gen ... (see the source)\n");
      return 2;
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "typedref: %s\n", e.what());
    return 1;
  }
  return 0;
}
