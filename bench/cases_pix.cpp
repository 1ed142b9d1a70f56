// The pix file's routines: the whole-file and one-variable readers and writers.
#include <memory>

#include "baselines.hpp"
#include "cases.hpp"
#include "records.hpp"

namespace zelmbench {

void addpix(bench& b, data& d) {
  const auto& g = d.g;
  const int npix = 6 + nfreevars;
  const std::int64_t pbytes = 4 * npix * d.nnodes;
  const std::int64_t nz = g.nzones;
  for (bool whole : {true, false})
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = whole ? "readzelmpixfile" : "readnextzelmpixvar";
      m.reader = true;
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("p." + suffix(enc, dbl));
      m.fop = whole ? "pixread" : "pixnext";
      const std::int64_t pass1 = 3 + 6 * nz + 1;
      m.records =
          whole ? pass1 + 3 + 6 * nz + 1 + nfreevars + nfreevars * nz : pass1 + 3 + npix * nz + 1 + nfreevars;
      const bool wide = enc != 1 && dbl;
      m.musthold = whole ? pbytes * (wide ? 3 : 1) : 4 * d.nnodes * (wide ? 2 : 1);
      m.outputs = {whole ? pbytes : 4 * d.nnodes};
      m.floorpasses = 2;  // a sizing pass, then the values
      if (!whole && wide)
        m.note = "reads 4-byte reals from 8-byte records, as the one-variable reader does by design";
      m.call = [&g, file = m.file, enc, dbl, whole, npix](bool last) -> std::int64_t {
        farray<float, 2> pix;
        mod_gridvars::readallvars = whole ? 1 : 0;
        zm::readzelmpixfile(name40(file), enc, dbl, g.nzones, g.nptsz, pix);
        if (!whole) {
          if (enc != 1) {  // the caller steps over the header that the reader left in front
            zm::io::unit& u = zm::io::getunit(13);
            fortran::char25 t;
            if (dbl) {
              double a = 0, bb = 0, c = 0;
              zm::io::rawread(u, a, bb, c);
              zm::io::rawread(u, a, bb, c);
            } else {
              float a = 0, bb = 0, c = 0;
              zm::io::rawread(u, a, bb, c);
              zm::io::rawread(u, a, bb, c);
            }
            zm::io::rawread(u, zm::io::text(t));
          }
          for (int v = 1; v <= mod_gridvars::npixvar; ++v)
            zm::readnextzelmpixvar(v, name40(file), enc, dbl, g.nzones, g.nptsz, pix);
          zm::io::close(13);
        }
        if (!last) return 0;
        mark();
        hashes h;
        const double hd[6] = {zm::dvar, zm::dgamma, zm::drgas, zm::dr0, zm::drm0, zm::dp0};
        h.doubles(0, hd, 6);
        const int hi[2] = {zm::nfree, mod_gridvars::npixvar};
        h.ints(0, hi, 2);
        if (whole)
          for (int v = 1; v <= mod_gridvars::npixvar; ++v)
            hashrow(h.h[1], pix, v, g.nptsz, g.nzones, enc == 1 && v > 6);
        else
          hashrow(h.h[1], pix, 1, g.nptsz, g.nzones, false);
        (void)npix;
        return h.total();
      };
      b.run(m);
    }
  for (bool whole : {true, false})
    for (const auto& [enc, dbl] : filecases) {
      measurement m;
      m.name = whole ? "writezelmpixfile" : "writenextzelmpixvar";
      m.enc = enc;
      m.dbl = dbl;
      m.file = d.path("w.p." + suffix(enc, dbl));
      m.fop = whole ? "pixwrite" : "pixwritenext";
      m.records = 3 + 6 * nz + 1 + nfreevars + nfreevars * nz;
      const bool wide = enc != 1 && dbl;
      m.musthold = wide ? (whole ? 2 * pbytes : 8 * d.nnodes) : 0;
      auto rowsof = std::make_shared<std::vector<farray<float, 2>>>();
      if (!whole)
        m.setup = [&d, rowsof, npix] {
          rowsof->resize(npix);
          for (int v = 1; v <= npix; ++v) {
            auto& r = (*rowsof)[static_cast<std::size_t>(v - 1)];
            r.allocate(1, d.nnodes);
            for (index_t j = 1; j <= d.nnodes; ++j) r(1, j) = d.pix(v, j);
          }
        };
      m.call = [&g, &d, rowsof, file = m.file, enc, dbl, whole, npix](bool) -> std::int64_t {
        if (whole) {
          zm::writezelmpixfile(name40(file), enc, dbl, g.nzones, g.nptsz, d.pix);
        } else {
          for (int v = 1; v <= npix; ++v)
            zm::writenextzelmpixvar(v, name40(file), enc, dbl, g.nzones, g.nptsz,
                                    (*rowsof)[static_cast<std::size_t>(v - 1)]);
          zm::io::close(14);
        }
        return 0;
      };
      if (enc == 1) m.tochars = [&d, npix] { tocharsfloats(d.pix, npix); };
      b.run(m);
    }
}

}  // namespace zelmbench
