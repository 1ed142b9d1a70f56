// The Tecplot export, measured on grids of one zone.
#include <charconv>
#include <memory>
#include <vector>

#include "cases.hpp"
#include "zelmgrid/tecplot.hpp"

namespace zelmbench {

namespace {

// Formats what the export writes, with std::to_chars alone.
void tocharsexport(const data& d) {
  const auto& g = d.g;
  std::vector<char> used(static_cast<std::size_t>(d.nnodes) + 1, 0);
  std::vector<int> nf(static_cast<std::size_t>(d.ncells) + 1, 0);
  for (index_t f = 1; f <= d.nfaces; ++f)
    for (int s = 1; s <= 2; ++s)
      if (g.ifcell(s, f) > 0) ++nf[static_cast<std::size_t>(g.ifcell(s, f))];
  std::int64_t ints = 0, nodes = 0;
  for (index_t c = 1; c <= d.ncells; ++c)
    ints += nf[static_cast<std::size_t>(c)] == 4 ? 4 : nf[static_cast<std::size_t>(c)] == 5 ? 8 : 3;
  for (index_t f = 1; f <= d.nfaces; ++f) {
    const bool boundary = g.ifcell(1, f) < 0 || g.ifcell(2, f) < 0;
    if (boundary) {
      ints += 3;
      for (int j = 1; j <= g.npf(f); ++j) used[static_cast<std::size_t>(g.ifnode(j, f))] |= 2;
    }
    for (int j = 1; j <= g.npf(f); ++j) used[static_cast<std::size_t>(g.ifnode(j, f))] |= 1;
  }
  for (index_t n = 1; n <= d.nnodes; ++n)
    nodes += (used[static_cast<std::size_t>(n)] & 1) + ((used[static_cast<std::size_t>(n)] >> 1) & 1);
  static char buf[1 << 16];
  char* p = buf;
  index_t n = 1;
  for (std::int64_t k = 0; k < nodes; ++k, n = n % d.nnodes + 1) {
    if (p > buf + sizeof buf - 512) p = buf;
    for (int i = 1; i <= g.ndim; ++i) {
      p = std::to_chars(p, p + 40, d.x8(i, n), std::chars_format::scientific, 16).ptr;
      *p++ = ' ';
    }
    for (int v = 1; v <= 6; ++v) {
      p = std::to_chars(p, p + 40, d.qnode(v, n), std::chars_format::scientific, 16).ptr;
      *p++ = ' ';
    }
  }
  for (std::int64_t k = 0; k < ints; ++k) {
    if (p > buf + sizeof buf - 32) p = buf;
    p = std::to_chars(p, p + 16, static_cast<int>(k % d.nnodes + 1)).ptr;
    *p++ = ' ';
  }
  asm volatile("" : : "r"(buf) : "memory");
}

}  // namespace

void addtecplot(bench& b, data& d) {
  const auto& g = d.g;
  if (g.nzones != 1) {
    std::printf("(the Tecplot export is measured on grids of one zone: left out)\n");
    return;
  }
  measurement m;
  m.name = "writetecplotfile";
  m.enc = -1;
  m.note = "measured through zelm::writetecplot, the export's typed entry";
  m.repeatable = false;  // one call per process, like the Fortran path's export with its saved arrays
  m.file = d.path("t.dat");
  m.fop = "tecplot";
  int maxmfpc = 0;
  for (int k = 1; k <= g.nzones; ++k) maxmfpc = std::max(maxmfpc, g.mfpcz(k));
  std::int64_t nbf = 0;
  for (index_t f = 1; f <= d.nfaces; ++f) nbf += (g.ifcell(1, f) < 0) + (g.ifcell(2, f) < 0);
  // Work arrays: the copy of ifcell that the export consumes, mfpc, ibf, ipf, iface and the zone
  // writer's ipbf.
  m.musthold = 8 * d.nfaces + 4 * (d.ncells + nbf + d.nnodes + d.ncells * maxmfpc + d.nnodes);
  // The typed grid (its coordinates widened to 8 bytes, as x8 holds them), built before the
  // measurement.
  auto typed = std::make_shared<zelm::grid>();
  m.setup = [&d, typed] { *typed = zelmgen::typed(d.g); };
  m.call = [&d, typed, file = m.file](bool) -> std::int64_t {
    zelm::writetecplot(file, *typed, &d.qnode);
    return 0;
  };
  // The formatting floor: the node records of the cell zones and the body zone (coordinates and six
  // values as 8-byte reals) and the connectivity records, with std::to_chars alone.
  m.tochars = [&d] { tocharsexport(d); };
  b.run(m);
}

}  // namespace zelmbench
