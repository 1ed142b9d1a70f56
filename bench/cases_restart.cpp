// The restart file's routines: the whole-file and one-variable readers and writers.
#include <memory>

#include "baselines.hpp"
#include "cases.hpp"

namespace zelmbench {

void addrestart(bench& b, data& d) {
  const auto& g = d.g;
  const std::int64_t qbytes = 4 * nvar * d.ncells;
  for (bool whole : {true, false})
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = whole ? "readzelmrstrtfile" : "readnextzelmrstrtvar";
      m.reader = true;
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("r." + suffix(enc, dbl));
      m.fop = whole ? "rstread" : "rstnext";
      m.records = 3 + static_cast<std::int64_t>(nvar) * g.nzones;
      const bool wide = enc != 1 && dbl;
      m.musthold = whole ? qbytes * (wide ? 3 : 1) : 4 * d.ncells * (wide ? 3 : 1);
      m.outputs = {whole ? qbytes : 4 * d.ncells};
      if (!whole && enc == 2) {
        b.skip(m,
               "n/a: the one-variable reader reads every code but 0 as text, so a binary file fails by "
               "design");
        continue;
      }
      m.call = [&g, file = m.file, enc, dbl, whole](bool last) -> std::int64_t {
        farray<float, 2> q;
        mod_gridvars::readallvars = whole ? 1 : 0;
        zm::readzelmrstrtfile(name40(file), enc, dbl, g.nzones, g.ncellsz, q);
        if (!whole) {
          for (int v = 1; v <= nvar; ++v)
            zm::readnextzelmrstrtvar(v, name40(file), enc, dbl, g.nzones, g.ncellsz, q);
          zm::io::close(15);
        }
        if (!last) return 0;
        mark();
        hashes h;
        const double hd[6] = {zm::dtime, zm::dgamma, zm::drgas, zm::dr0, zm::drm0, zm::dp0};
        h.doubles(0, hd, 6);
        const int hi[2] = {zm::lastcyc, zm::rstype};
        h.ints(0, hi, 2);
        for (int v = 1; v <= (whole ? nvar : 1); ++v) hashrow(h.h[1], q, v, g.ncellsz, g.nzones, false);
        return h.total();
      };
      b.run(m);
    }
  for (bool whole : {true, false})
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = whole ? "writezelmrstrtfile" : "writenextzelmrstrtvar";
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("w.r." + suffix(enc, dbl));
      m.fop = whole ? "rstwrite" : "rstwritenext";
      m.records = 3 + static_cast<std::int64_t>(nvar) * g.nzones;
      const bool wide = enc != 1 && dbl;
      m.musthold = wide ? (whole ? 2 * qbytes : 8 * d.ncells) : 0;
      auto rowsof = std::make_shared<std::vector<farray<float, 2>>>();
      if (!whole)
        m.setup = [&d, rowsof] {
          rowsof->resize(nvar);
          for (int v = 1; v <= nvar; ++v) {
            auto& r = (*rowsof)[static_cast<std::size_t>(v - 1)];
            r.allocate(1, d.ncells);
            for (index_t j = 1; j <= d.ncells; ++j) r(1, j) = d.q(v, j);
          }
        };
      m.call = [&g, &d, rowsof, file = m.file, enc, dbl, whole](bool) -> std::int64_t {
        if (whole) {
          zm::writezelmrstrtfile(name40(file), enc, dbl, g.nzones, g.ncellsz, d.q);
        } else {
          for (int v = 1; v <= nvar; ++v)
            zm::writenextzelmrstrtvar(v, name40(file), enc, dbl, g.nzones, g.ncellsz,
                                      (*rowsof)[static_cast<std::size_t>(v - 1)]);
          zm::io::close(16);
        }
        return 0;
      };
      if (enc == 1) m.tochars = [&d] { tocharsfloats(d.q, nvar); };
      b.run(m);
    }
}

}  // namespace zelmbench
