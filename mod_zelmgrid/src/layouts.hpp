// The records of grid, restart and pix files, each described once. The routines and the typed
// interface both build their statements from these: the form (text or not) is passed down, the
// items are the caller's (a routine's module variables and arrays, or the typed structures), and
// the sequencing, placement and failure policy stay with the caller.
#pragma once

#include "records.hpp"
#include "zelmgrid/fortran.hpp"

namespace mod_zelmgrid::layout {

using fortran::index_t;
using io::rstat;

// ---- grid ---------------------------------------------------------------------------------------

// Header: ndim, nzones, the auxiliary value.
template <class S, class I>
void gridheader(S& s, I& ndim, I& nzones, I& aux) {
  s.item(ndim);
  s.item(nzones);
  s.item(aux);
}

// One zone's counts: nodes, faces, cells, the most nodes of a face, the most faces of a cell. The
// zones' counts follow one another in one record (a text reader may take one zone a line).
template <class S, class I>
void zonecounts(S& s, I& nodes, I& faces, I& cells, I& mnpf, I& mfpc) {
  s.item(nodes);
  s.item(faces);
  s.item(cells);
  s.item(mnpf);
  s.item(mfpc);
}

// A node is one record of its ndim coordinates; a face one record of its node count, its nodes and
// the cells on either side.
template <class S, class I, class N>
void face(S& s, I& n, const N& nodes, I& left, I& right) {
  s.item(n);
  s.item(nodes);
  s.item(left);
  s.item(right);
}

// ---- restart and pix: three header records, then records of values --------------------------

// Restart header: (dtime, lastcyc, rstype), (dgamma, drgas), (dr0, drm0, dp0). Reals are the
// file's width in the raw encodings; `R` is what the caller holds them in.
template <class R, class I>
rstat readrestartheader(io::unit& u, bool text, R& dtime, I& lastcyc, I& rstype, R& dgamma, R& drgas, R& dr0,
                        R& drm0, R& dp0) {
  u.context = {"header record", 1};
  if (const rstat st = io::read(u, text, dtime, lastcyc, rstype); st != rstat::ok) return st;
  u.context = {"header record", 2};
  if (const rstat st = io::read(u, text, dgamma, drgas); st != rstat::ok) return st;
  u.context = {"header record", 3};
  return io::read(u, text, dr0, drm0, dp0);
}
template <class R, class I>
void writerestartheader(io::unit& u, bool text, const R& dtime, const I& lastcyc, const I& rstype,
                        const R& dgamma, const R& drgas, const R& dr0, const R& drm0, const R& dp0) {
  io::write(u, text, dtime, lastcyc, rstype);
  io::write(u, text, dgamma, drgas);
  io::write(u, text, dr0, drm0, dp0);
}

// Pix header: (dvar, dgamma, drgas), (dr0, drm0, dp0), then a 25-character text.
template <class R>
rstat readpixheader(io::unit& u, bool text, R (&h)[6], fortran::char25& title) {
  u.context = {"header record", 1};
  if (const rstat st = io::read(u, text, h[0], h[1], h[2]); st != rstat::ok) return st;
  u.context = {"header record", 2};
  if (const rstat st = io::read(u, text, h[3], h[4], h[5]); st != rstat::ok) return st;
  u.context = {"header record", 3};
  return io::readtext(u, text, title);
}
template <class R>
void writepixheader(io::unit& u, bool text, const R (&h)[6], const fortran::char25& title) {
  io::write(u, text, h[0], h[1], h[2]);
  io::write(u, text, h[3], h[4], h[5]);
  io::writetext(u, text, title);
}

}  // namespace mod_zelmgrid::layout
