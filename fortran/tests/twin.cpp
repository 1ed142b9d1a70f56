// The calls of zelmhost.f90 made from C++ with the bundled C++ mod_gridvars, verb for verb and
// with the same printout, so that the Fortran host's files and standard output can be compared
// with what the library's C++ interface gives for the same calls (without the native checks).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "zelmgrid/mod_zelmgrid.hpp"

using namespace mod_zelmgrid;
using fortran::index_t;

namespace {

char** args;
int arg(int i) {
  return std::atoi(args[i]);
}

struct grid {
  int ndim = 0, nzones = 0, ngridaux = 0;
  farray<float, 2> x;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;
  void read(const char40& f, int filetype, logical dbl) {
    readzelmgrid(f, filetype, dbl, ndim, nzones, ngridaux, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf,
                 ifnode, ifcell, 1);
  }
};

farray<int, 1> counts(int first, int& nzones) {
  nzones = arg(first);
  farray<int, 1> c;
  c.allocate(nzones);
  for (int k = 1; k <= nzones; ++k) c(k) = arg(first + k);
  return c;
}

template <class T, int R>
void report(const char* name, const farray<T, R>& a, bool bounds = true) {
  if (!a.allocated()) {
    std::printf("%s unallocated\n", name);
    return;
  }
  std::printf("%s allocated", name);
  for (int d = 1; d <= R; ++d) std::printf(" %lld", static_cast<long long>(a.extent(d)));
  if (bounds)
    for (int d = 1; d <= R; ++d) std::printf(" 1");
  std::printf("\n");
}

void readgridonly(const char40& f, int filetype, logical dbl) {
  grid g;
  g.read(f, filetype, dbl);
  std::fflush(stdout);
  report("x", g.x, false);
  report("nptsz", g.nptsz);
  report("nfacesz", g.nfacesz);
  report("ncellsz", g.ncellsz);
  report("mnpfz", g.mnpfz);
  report("mfpcz", g.mfpcz);
  report("npf", g.npf);
  report("ifnode", g.ifnode);
  report("ifcell", g.ifcell);
}

}  // namespace

int main(int argc, char** argv) {
  args = argv;
  if (argc < 2) return 2;
  const std::string verb = argv[1];
  if (verb == "grid") {
    const int filetype = arg(2);
    const logical dbl = arg(3);
    int ndim, nzones, ngridaux;
    farray<int, 1> hnptsz, hncellsz;
    readzelmgridheader(argv[4], filetype, ndim, nzones, ngridaux, hnptsz, hncellsz);
    grid g;
    g.read(argv[4], filetype, dbl);
    writezelmgrid(argv[5], filetype, dbl, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz, g.ncellsz,
                  g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
  } else if (verb == "restart" || verb == "restartnext") {
    const bool onebyone = verb == "restartnext";
    const int filetype = arg(2);
    const logical dbl = arg(3);
    const int numvar = arg(4);
    int nzones;
    const farray<int, 1> c = counts(5, nzones);
    const char40 in = argv[6 + nzones], out = argv[7 + nzones];
    mod_gridvars::numrstrtvar = numvar;
    mod_gridvars::readallvars = !onebyone;
    farray<float, 2> q;
    readzelmrstrtfile(in, filetype, dbl, nzones, c, q);
    if (onebyone) {
      for (int v = 1; v <= numvar; ++v) {
        readnextzelmrstrtvar(v, in, filetype, dbl, nzones, c, q);
        writenextzelmrstrtvar(v, out, filetype, dbl, nzones, c, q);
      }
    } else {
      writezelmrstrtfile(out, filetype, dbl, nzones, c, q);
    }
  } else if (verb == "pix" || verb == "pixnext") {
    const bool onebyone = verb == "pixnext";
    const int filetype = arg(2);
    const logical dbl = arg(3);
    int nzones;
    const farray<int, 1> c = counts(4, nzones);
    const char40 in = argv[5 + nzones], out = argv[6 + nzones];
    mod_gridvars::readallvars = !(onebyone && filetype == formatted);
    farray<float, 2> pix, row;
    readzelmpixfile(in, filetype, dbl, nzones, c, pix);
    const index_t nptot = c.extent(1) == 0 ? 0 : [&] {
      index_t s = 0;
      for (index_t k = 1; k <= c.extent(1); ++k) s += c(k);
      return s;
    }();
    row.allocate(1, nptot);
    for (int v = 1; v <= mod_gridvars::npixvar; ++v) {
      if (!mod_gridvars::readallvars) readnextzelmpixvar(v, in, filetype, dbl, nzones, c, pix);
      const index_t from = mod_gridvars::readallvars ? v : 1;
      for (index_t k = 1; k <= nptot; ++k) row(1, k) = pix(from, k);
      if (onebyone) writenextzelmpixvar(v, out, filetype, dbl, nzones, c, row);
    }
    if (!onebyone) writezelmpixfile(out, filetype, dbl, nzones, c, pix);
  } else if (verb == "tecplot") {
    grid g;
    g.read(argv[2], unformatted, 0);
    mod_gridvars::readallvars = 1;
    farray<float, 2> pix;
    readzelmpixfile(argv[3], unformatted, 0, g.nzones, g.nptsz, pix);
    farray<double, 2> x8, qnode;
    x8.allocate(g.x.extent(1), g.x.extent(2));
    for (index_t i = 0; i < g.x.size(); ++i) x8.data()[i] = g.x.data()[i];
    qnode.allocate(pix.extent(1), pix.extent(2));
    for (index_t i = 0; i < pix.size(); ++i) qnode.data()[i] = pix.data()[i];
    mod_gridvars::numrstrtvar = mod_gridvars::npixvar;
    writetecplotfile(argv[4], g.ndim, g.nzones, x8, g.nptsz, g.nfacesz, g.ncellsz, g.mnpfz, g.mfpcz, g.npf,
                     g.ifnode, g.ifcell, qnode);
    std::fflush(stdout);
    std::printf("const");
    for (int i = 1; i <= 8; ++i) std::printf(" %d", const_(i));
    std::printf("\nformt");
    for (int i = 1; i <= 5; ++i) std::printf(" %d", formt(i));
    long long sum = 0, nonzero = 0;
    for (index_t i = 0; i < g.ifcell.size(); ++i) {
      sum += g.ifcell.data()[i];
      nonzero += g.ifcell.data()[i] != 0;
    }
    std::printf("\nifcell %lld %lld\n", sum, nonzero);
  } else if (verb == "failread") {
    readgridonly(argv[4], arg(2), arg(3));
  } else if (verb == "alloclimit") {
    fortran::allocationlimit = std::strtoull(argv[2], nullptr, 10);
    readgridonly(argv[5], arg(3), arg(4));
  } else {
    return 2;
  }
  return 0;
}
