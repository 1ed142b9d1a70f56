// The routines of the Tecplot export that writetecplotfile calls, and a view of its saved work
// arrays. Not part of the module's interface: the export is entered through writetecplotfile only.
#pragma once

#include "zelmgrid/mod_zelmgrid.hpp"

namespace mod_zelmgrid {

// Everything of zone iz: the title and variables (zone 1), the two-dimensional zone header and node
// records, the element zones (through quapts/tripts or tetpts/prsmpts) and the body surface.
void writer(const int& iz, const int& ndim, const farray<int, 1>& mfpcz, const farray<int, 1>& nptsz,
            const farray<int, 1>& ncellsz, farray<int, 1>& ipf, const farray<double, 2>& x,
            const farray<double, 2>& qnode, const farray<int, 2>& ifnode, const farray<int, 2>& iface,
            const farray<int, 1>& npf, farray<int, 2>& ifcell, const farray<int, 1>& ibf);

// Connectivity of the quadrilaterals (quapts) or triangles (tripts) of zone iz, one record a cell.
void quapts(const int& iz, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
            const farray<int, 2>& ifnode);
void tripts(const int& iz, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
            const farray<int, 2>& ifnode);

// The Tet-Zone and the Prism-Zone (written as bricks) of zone iz, each with its own nodes.
void tetpts(const int& iz, const int& ndim, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
            const farray<int, 2>& ifnode, farray<int, 1>& ipf, farray<int, 1>& ipbf,
            const farray<double, 2>& x, const farray<double, 2>& qnode, const farray<int, 1>& nptsz,
            const farray<int, 2>& ifcell);
void prsmpts(const int& iz, const int& ndim, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
             const farray<int, 2>& ifnode, farray<int, 1>& ipf, farray<int, 1>& ipbf,
             const farray<double, 2>& x, const farray<double, 2>& qnode, const farray<int, 1>& npf,
             const farray<int, 1>& nptsz, const farray<int, 2>& ifcell);

namespace detail {

// The export's saved arrays, for inspection: writetecplotfile's own mfpc (not the module variable
// of that name), ibf, ipf and iface, and writer's ipbf.
struct tecplotarrays {
  farray<int, 1>& mfpc;
  farray<int, 1>& ibf;
  farray<int, 1>& ipf;
  farray<int, 2>& iface;
  farray<int, 1>& ipbf;
};
tecplotarrays tecplotwork();

// How many references outside an array the export has left out since the last writetecplotfile
// call began (or since the module was reset).
int tecplotleftouts();

}  // namespace detail
}  // namespace mod_zelmgrid
