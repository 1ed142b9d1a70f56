// The reference grid that tests/fortran/gridref.f90 and tests/python/gridcheck.py build and print
// too, and the printout that they share.
#pragma once

#include <cinttypes>
#include <cstdio>
#include <string>

#include "gridfixtures.hpp"

namespace zt {

// Zone k has 3+k nodes, 2+k faces, k cells, mnpfz 2+k and mfpcz 4+k. Node i (over the grid) has
// coordinate d = float(1.1 i + d/3). Face f of zone k has (f*f + k) mod (3 + nzones) nodes, so the
// grid holds faces with no nodes and faces with more nodes than their zone's mnpfz (but never more
// than the largest); node m of face f is 1000k + 10f + m, its cells f and -f (f odd) or f+1.
inline grid refgrid(int zones, int ndim = 3) {
  grid g;
  g.ndim = ndim;
  g.nzones = zones;
  g.ngridaux = 77;
  int nn = 0, nf = 0;
  for (int k = 1; k <= zones; ++k) {
    nn += 3 + k;
    nf += 2 + k;
  }
  const int width = zones > 0 ? 2 + zones : 0;
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
      g.npf(f) = (f * f + k) % (3 + zones);
      for (int m = 1; m <= width; ++m) g.ifnode(m, f) = m <= g.npf(f) ? 1000 * k + 10 * f + m : -7;
      g.ifcell(1, f) = f;
      g.ifcell(2, f) = f % 2 ? -f : f + 1;
    }
  }
  return g;
}

// The printout of a grid: header, zone counts, then per zone its nodes (the bit patterns of the
// coordinates as the file holds them: 4-byte reals, or 8-byte when wide) and its faces.
inline std::string dump(const grid& g, bool wide) {
  std::string out;
  char b[64];
  auto num = [&](std::int64_t v) {
    std::snprintf(b, sizeof b, " %" PRId64, v);
    out += b;
  };
  out += "header";
  for (int v : {g.ndim, g.nzones, g.ngridaux}) num(v);
  out += '\n';
  for (int k = 1; k <= g.nzones; ++k) {
    out += "zone";
    for (int v : {k, g.nptsz(k), g.nfacesz(k), g.ncellsz(k), g.mnpfz(k), g.mfpcz(k)}) num(v);
    out += '\n';
  }
  int node = 0, f = 0;
  for (int k = 1; k <= g.nzones; ++k) {
    for (int i = 1; i <= g.nptsz(k); ++i) {
      ++node;
      out += "node";
      num(node);
      for (int d = 1; d <= g.ndim; ++d) {
        if (wide) {
          const double w = g.x(d, node);
          std::int64_t bits;
          std::memcpy(&bits, &w, 8);
          num(bits);
        } else {
          std::int32_t bits;
          std::memcpy(&bits, &g.x(d, node), 4);
          num(bits);
        }
      }
      out += '\n';
    }
    for (int j = 1; j <= g.nfacesz(k); ++j) {
      ++f;
      out += "face";
      num(f);
      num(g.npf(f));
      for (int m = 1; m <= g.npf(f); ++m) num(g.ifnode(m, f));
      num(g.ifcell(1, f));
      num(g.ifcell(2, f));
      out += '\n';
    }
  }
  return out;
}

// The bytes of a grid file in the framed ("unformatted") or unframed ("binary") encoding, built
// record by record from the layout, without sub-records.
inline std::string gridbytes(const grid& g, bool framed, bool wide) {
  bytes file;
  auto add = [&](const bytes& rec) { framed ? file.record(rec) : file.then(rec); };
  add(bytes().i4(g.ndim).i4(g.nzones).i4(g.ngridaux));
  bytes counts;
  for (int k = 1; k <= g.nzones; ++k)
    counts.i4(g.nptsz(k)).i4(g.nfacesz(k)).i4(g.ncellsz(k)).i4(g.mnpfz(k)).i4(g.mfpcz(k));
  add(counts);
  int node = 0, f = 0;
  for (int k = 1; k <= g.nzones; ++k) {
    for (int i = 1; i <= g.nptsz(k); ++i) {
      ++node;
      bytes rec;
      for (int d = 1; d <= g.ndim; ++d) wide ? rec.r8(g.x(d, node)) : rec.r4(g.x(d, node));
      add(rec);
    }
    for (int j = 1; j <= g.nfacesz(k); ++j) {
      ++f;
      bytes rec;
      rec.i4(g.npf(f));
      for (int m = 1; m <= g.npf(f); ++m) rec.i4(g.ifnode(m, f));
      add(rec.i4(g.ifcell(1, f)).i4(g.ifcell(2, f)));
    }
  }
  return file.b;
}

}  // namespace zt
