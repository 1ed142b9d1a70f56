// Grids built in the tests.
#pragma once

#include "testsupport.hpp"

namespace zt {

struct grid {
  int ndim = 0, nzones = 0, ngridaux = 0;
  fortran::farray<float, 2> x;
  fortran::farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  fortran::farray<int, 2> ifnode, ifcell;

  void write(const fortran::char40& name, int filetype, fortran::logical dblprec) const {
    mod_zelmgrid::writezelmgrid(name, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz,
                                mnpfz, mfpcz, npf, ifnode, ifcell);
    mod_zelmgrid::io::close(4);
  }
  void read(const fortran::char40& name, int filetype, fortran::logical dblprec,
            fortran::logical readconn = 1) {
    mod_zelmgrid::readzelmgrid(name, filetype, dblprec, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz,
                               mnpfz, mfpcz, npf, ifnode, ifcell, readconn);
  }
};

// A grid of `zones` zones; zone k has 3 + k nodes and 2 + k faces with up to 2 + k nodes each.
// Coordinates are not exactly representable in fewer digits, so precision losses show.
inline grid makegrid(int zones, int ndim = 3) {
  grid g;
  g.ndim = ndim;
  g.nzones = zones;
  g.ngridaux = 77;
  int nn = 0, nf = 0, width = 0;
  for (int k = 1; k <= zones; ++k) {
    nn += 3 + k;
    nf += 2 + k;
    width = std::max(width, 2 + k);
  }
  for (auto* a : {&g.nptsz, &g.nfacesz, &g.ncellsz, &g.mnpfz, &g.mfpcz}) a->allocate(zones);
  g.x.allocate(ndim, nn);
  g.npf.allocate(nf);
  g.ifnode.allocate(width, nf);
  g.ifcell.allocate(2, nf);
  for (int i = 1; i <= nn; ++i)
    for (int d = 1; d <= ndim; ++d) g.x(d, i) = static_cast<float>(i * 1.1 + d / 3.0);
  int f = 0;
  for (int k = 1; k <= zones; ++k) {
    g.nptsz(k) = 3 + k;
    g.nfacesz(k) = 2 + k;
    g.ncellsz(k) = k;
    g.mnpfz(k) = 2 + k;
    g.mfpcz(k) = 4 + k;
    for (int j = 1; j <= 2 + k; ++j) {
      ++f;
      g.npf(f) = 1 + (j % (2 + k)) + (j == 1 ? 1 : 0);  // counts vary between 2 and 2 + k
      g.npf(f) = std::min(g.npf(f), 2 + k);
      for (int i = 1; i <= width; ++i) g.ifnode(i, f) = i <= g.npf(f) ? 100 * k + 10 * j + i : 0;
      g.ifcell(1, f) = j;
      g.ifcell(2, f) = j % 2 ? -1 : j + 1;
    }
  }
  return g;
}

}  // namespace zt
