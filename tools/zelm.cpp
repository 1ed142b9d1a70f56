// zelm: writes a small sample grid in every encoding and precision and reads each file back,
// printing what it read.
#include <cstdio>
#include <filesystem>
#include <string>

#include "zelmgrid/mod_zelmgrid.hpp"

using namespace mod_zelmgrid;

namespace {

// A unit square of two quadrilateral cells (2D, one zone): 6 nodes, 7 edges.
struct samplegrid {
  int ndim = 2, nzones = 1, ngridaux = 0;
  farray<float, 2> x;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;

  samplegrid() {
    const float xy[6][2] = {{0, 0}, {1, 0}, {2, 0}, {0, 1}, {1, 1}, {2, 1}};
    const int edges[7][4] = {{1, 2, 1, -1}, {2, 3, 2, -1}, {3, 6, 2, -2}, {6, 5, 2, -3},
                             {5, 4, 1, -3}, {4, 1, 1, -4}, {2, 5, 1, 2}};
    x.allocate(2, 6);
    for (int n = 1; n <= 6; ++n) {
      x(1, n) = xy[n - 1][0];
      x(2, n) = xy[n - 1][1];
    }
    for (auto* a : {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}) a->allocate(1);
    nptsz(1) = 6, nfacesz(1) = 7, ncellsz(1) = 2, mnpfz(1) = 2, mfpcz(1) = 4;
    npf.allocate(7);
    ifnode.allocate(2, 7);
    ifcell.allocate(2, 7);
    for (int f = 1; f <= 7; ++f) {
      npf(f) = 2;
      ifnode(1, f) = edges[f - 1][0];
      ifnode(2, f) = edges[f - 1][1];
      ifcell(1, f) = edges[f - 1][2];
      ifcell(2, f) = edges[f - 1][3];
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path dir = argc > 1 ? argv[1] : "zelm-sample";
  std::filesystem::create_directories(dir);
  samplegrid g;
  const char* names[3] = {"unformatted", "formatted", "binary"};
  for (int filetype : {unformatted, formatted, binary}) {
    for (logical dblprec : {0, 1}) {
      if (filetype == formatted && dblprec) continue;
      const std::string file = (dir / (std::string("grid-") + names[filetype] + (dblprec ? "-r8" : "-r4") + ".dat")).string();
      const char40 name(file);
      writezelmgrid(name, filetype, dblprec, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz, g.ncellsz,
                    g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
      io::close(4);

      int ndim = 0, nzones = 0, ngridaux = 0;
      farray<int, 1> hpts, hcells;
      readzelmgridheader(name, filetype, ndim, nzones, ngridaux, hpts, hcells);
      std::printf("%s: ndim %d, %d zone(s), zone 1: %d nodes, %d cells\n", file.c_str(), ndim, nzones,
                  hpts.allocated() ? hpts(1) : -1, hcells.allocated() ? hcells(1) : -1);

      farray<float, 2> x;
      farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
      farray<int, 2> ifnode, ifcell;
      readzelmgrid(name, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz,
                   npf, ifnode, ifcell, 1);
      for (int f = 1; f <= npf.extent(1); ++f)
        std::printf("  face %d: nodes %d %d, cells %d %d\n", f, ifnode(1, f), ifnode(2, f), ifcell(1, f), ifcell(2, f));
    }
  }
  return 0;
}
