// Grid files: the header reader, the reader and the writer.
//
// Layout, in every encoding:
//   header       ndim, nzones, ngridaux
//   zone counts  nptsz, nfacesz, ncellsz, mnpfz, mfpcz of zone 1, then of zone 2, ... (one record;
//                the formatted reader reads each zone's five values from a line of their own)
//   per zone     one record per node: its ndim coordinates (4- or 8-byte reals by dblprec);
//                one record per face: node count n, n node numbers, the two cells beside it.
#include <climits>
#include <cstdint>
#include <cstring>

#include "internal.hpp"
#include "layouts.hpp"

namespace mod_zelmgrid {

using detail::israw;
using detail::openbycode;
using fortran::index_t;
using io::rstat;

namespace {

constexpr int gridreaderunit = 13;
constexpr int headerreaderunit = 14;
constexpr int gridwriterunit = 4;

// The five counts of every zone, as items of one statement.
template <class Statement, class... Counts>
void allzonecounts(Statement& s, int nzones, Counts&... counts) {
  for (int k = 1; k <= nzones && s.status() == rstat::ok; ++k) layout::zonecounts(s, counts(k)...);
}

bool holdszones(int nzones, std::initializer_list<const farray<int, 1>*> arrays) {
  for (const auto* a : arrays)
    if (a->extent(1) < nzones) return false;
  return true;
}

// Chained allocation of the five per-zone count arrays.
int allocatecounts(int nzones, std::initializer_list<farray<int, 1>*> arrays) {
  int istat = 0;
  for (auto* a : arrays) {
    if (istat != 0) break;
    istat = a->allocate(nzones);
  }
  return istat;
}

}  // namespace

void readzelmgridheader(const char40& filename, const int& filetype, int& ndim, int& nzones, int& ngridaux,
                        farray<int, 1>& nptsz, farray<int, 1>& ncellsz) {
  io::unit& u = io::getunit(headerreaderunit);
  const bool opened =
      openbycode(headerreaderunit, filename, filetype, detail::fileformat.readzelmgridheader, "old");
  if (opened) {
    u.context = {"grid header"};
    if (io::readwith(u, filetype == formatted,
                     [&](auto& s) { layout::gridheader(s, ndim, nzones, ngridaux); }) != rstat::ok)
      return detail::readfailed();
  }

  farray<int, 1> nfacesz, mnpfz, mfpcz;  // temporaries, released on every way out
  mod_gridvars::checkallocationerror(allocatecounts(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}));

  if (opened) {
    u.context = {"zone counts"};
    if (!holdszones(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}))
      return detail::outofbounds(
          u, "the zone-count arrays for " + std::to_string(nzones) + " zones could not be allocated");
    if (io::readwith(u, filetype == formatted, [&](auto& s) {
          allzonecounts(s, nzones, nptsz, nfacesz, ncellsz, mnpfz, mfpcz);
        }) != rstat::ok)
      return detail::readfailed();
  }
  io::close(headerreaderunit);
}

void readzelmgrid(const char40& filename, const int& filetype, const logical& dblprec, int& ndim, int& nzones,
                  int& ngridaux, farray<float, 2>& x, farray<int, 1>& nptsz, farray<int, 1>& nfacesz,
                  farray<int, 1>& ncellsz, farray<int, 1>& mnpfz, farray<int, 1>& mfpcz, farray<int, 1>& npf,
                  farray<int, 2>& ifnode, farray<int, 2>& ifcell, const logical& readconn) {
  mod_gridvars::dispreadwrite(1, 10, 100, filename, filetype, dblprec);
  const bool conn = fortran::istrue(readconn);
  const bool wide = israw(filetype) && fortran::istrue(dblprec);
  farray<double, 2> x8;  // 8-byte coordinates when the file holds them

  io::unit& u = io::getunit(gridreaderunit);
  if (openbycode(gridreaderunit, filename, filetype, detail::fileformat.readzelmgrid, "old")) {
    u.context = {"grid header"};
    if (io::readwith(u, filetype == formatted,
                     [&](auto& s) { layout::gridheader(s, ndim, nzones, ngridaux); }) != rstat::ok)
      return detail::readfailed();

    mod_gridvars::checkallocationerror(allocatecounts(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}));
    u.context = filetype == formatted ? io::what{"zone counts of zone", 1} : io::what{"zone counts"};
    if (!holdszones(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}))
      return detail::outofbounds(
          u, "the zone-count arrays for " + std::to_string(nzones) + " zones could not be allocated");

    if (filetype == formatted) {  // each zone's five counts start a line of their own
      for (int k = 1; k <= nzones; ++k) {
        u.context = {"zone counts of zone", k};
        io::listin s(u);
        layout::zonecounts(s, nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k));
        if (s.finish() != rstat::ok) return detail::readfailed();
      }
    } else {
      u.context = {"zone counts"};
      io::rawin s(u);
      allzonecounts(s, nzones, nptsz, nfacesz, ncellsz, mnpfz, mfpcz);
      if (s.finish() != rstat::ok) return detail::readfailed();
    }

    // Connectivity arrays: always for formatted files, only when asked for otherwise.
    const index_t nfaces = detail::sum(nfacesz);
    int width = INT_MIN;
    for (int k = 1; k <= nzones; ++k) width = std::max(width, mnpfz(k));
    width = std::max(width, 0);
    if (filetype == formatted || conn) {
      int istat = npf.allocate(nfaces);
      if (istat == 0) istat = ifnode.allocate(width, nfaces);
      if (istat == 0) istat = ifcell.allocate(2, nfaces);
      mod_gridvars::checkallocationerror(istat);
    }

    const index_t nnodes = detail::sum(nptsz);
    if (wide)
      mod_gridvars::checkallocationerror(x8.allocate(ndim, nnodes));
    else
      mod_gridvars::checkallocationerror(x.allocate(ndim, nnodes));

    index_t node = 1;
    index_t face = 1;
    for (int k = 1; k <= nzones; ++k) {
      io::print("Reading Grid Points in Zone ", k, "...");
      const index_t n = nptsz(k);
      u.context = {"zone", k, "node", 1};
      if (n > 0) {
        const index_t rows = wide ? x8.extent(1) : x.extent(1);
        const index_t cols = wide ? x8.extent(2) : x.extent(2);
        if (node < 1 || node + n - 1 > cols || (ndim > 0 && rows < ndim))
          return detail::outofbounds(u, "zone " + std::to_string(k) + "'s " + std::to_string(n) +
                                            " nodes do not fit the coordinate array");
      }
      // With no coordinates (ndim 0 or less) a node record of the unframed encoding is empty: the
      // zone's records take no bytes, and are passed over at once rather than one by one (a count
      // near the largest integer would otherwise keep the reader busy for minutes).
      const bool emptyrecords = n > 0 && ndim <= 0 && filetype == binary;
      if (emptyrecords) u.records += n;
      for (index_t i = emptyrecords ? n : 0; i < n; ++i) {
        if (filetype != formatted) {
          i = wide ? io::readfixed(u, x8.data() + (node - 1) * x8.extent(1), x8.extent(1), ndim, i, n)
                   : io::readfixed(u, x.data() + (node - 1) * x.extent(1), x.extent(1), ndim, i, n);
          if (i >= n) break;
        }
        u.context = {"zone", k, "node", i + 1};
        const bool text = filetype == formatted;
        const rstat st = wide ? io::read(u, text, io::items(x8.data() + (node + i - 1) * x8.extent(1), ndim))
                              : io::read(u, text, io::items(x.data() + (node + i - 1) * x.extent(1), ndim));
        if (st != rstat::ok) return detail::readfailed();
      }
      if (conn) {
        io::print("Reading Connectivity Information in Zone ", k, "...");
        const index_t nf = nfacesz(k);
        u.context = {"zone", k, "face", 1};
        if (nf > 0 && (face < 1 || face + nf - 1 > npf.extent(1) || face + nf - 1 > ifnode.extent(2) ||
                       face + nf - 1 > ifcell.extent(2)))
          return detail::outofbounds(u, "zone " + std::to_string(k) + "'s " + std::to_string(nf) +
                                            " faces do not fit the connectivity arrays");
        const index_t w = ifnode.extent(1);
        for (index_t i = 0; i < nf; ++i) {
          if (filetype != formatted) {
            i = io::readfaces(u, npf.data(), ifnode.data(), w, ifcell.data(), ifcell.extent(1), face + i,
                              face + nf) -
                face;
            if (i >= nf) break;
          }
          const index_t f = face + i;
          u.context = {"zone", k, "face", i + 1};
          const io::lazyseq<int> nodes{ifnode.data() + (f - 1) * w, &npf(f), w};
          if (io::readwith(u, filetype == formatted, [&](auto& s) {
                layout::face(s, npf(f), nodes, ifcell(1, f), ifcell(2, f));
              }) != rstat::ok)
            return detail::readfailed();
        }
        face += nf;
      } else {
        io::print("Skipping Connectivity Information in Zone ", k, "...");
        if (k == 1) break;  // only zone 1's nodes are read in this mode
      }
      node += n;
    }

    if (wide) {
      mod_gridvars::checkallocationerror(x.allocate(x8.extent(1), x8.extent(2)));
      if (x.allocated() && x.size() == x8.size())
        for (index_t i = 0; i < x.size(); ++i) x.data()[i] = detail::narrow(x8.data()[i]);
    }
  }

  io::close(gridreaderunit);
  if (!conn) {  // released as a chain: a release that fails ends it
    if (nfacesz.deallocate() == 0 && ncellsz.deallocate() == 0 && mnpfz.deallocate() == 0) mfpcz.deallocate();
  }
}

void writezelmgrid(const char40& filename, const int& filetype, const logical& dblprec, const int& ndim,
                   const int& nzones, const int& ngridaux, const farray<float, 2>& x,
                   const farray<int, 1>& nptsz, const farray<int, 1>& nfacesz, const farray<int, 1>& ncellsz,
                   const farray<int, 1>& mnpfz, const farray<int, 1>& mfpcz, const farray<int, 1>& npf,
                   const farray<int, 2>& ifnode, const farray<int, 2>& ifcell) {
  static constexpr const char* routine = "writezelmgrid";
  mod_gridvars::dispreadwrite(2, 10, 100, filename, filetype, dblprec);
  const bool wide = israw(filetype) && fortran::istrue(dblprec);
  if (!israw(filetype) && filetype != formatted) return;  // an unknown code: nothing is touched

  // The arrays must hold what the counts say; the routine checks nothing else.
  detail::requirearray(
      holdszones(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}), routine,
      "the zone-count arrays hold fewer than nzones = " + std::to_string(nzones) + " entries");
  index_t nnodes = 0, nfaces = 0;
  for (int k = 1; k <= nzones; ++k) {
    nnodes += std::max(nptsz(k), 0);
    nfaces += std::max(nfacesz(k), 0);
  }
  detail::requirearray(nnodes == 0 || (x.extent(2) >= nnodes && x.extent(1) >= ndim), routine,
                       "x holds fewer nodes or coordinates than the counts say");
  detail::requirearray(nfaces == 0 || (npf.extent(1) >= nfaces && ifnode.extent(2) >= nfaces &&
                                       ifcell.extent(1) >= 2 && ifcell.extent(2) >= nfaces),
                       routine, "npf, ifnode or ifcell hold fewer faces than the counts say");

  farray<double, 2> x8;  // widened coordinates, prepared before anything is opened
  if (wide) {
    mod_gridvars::checkallocationerror(x8.allocate(x.extent(1), x.extent(2)));
    // Without the copy there is nothing to write the coordinates from: the run ends before the
    // file is opened.
    detail::requirearray(x8.allocated() || nnodes == 0 || ndim <= 0, routine,
                         "no memory for the 8-byte copy of x (" + std::to_string(x.extent(1)) + " x " +
                             std::to_string(x.extent(2)) + ")");
    if (x8.allocated())
      for (index_t i = 0; i < x.size(); ++i) x8.data()[i] = x.data()[i];
  }

  if (!openbycode(gridwriterunit, filename, filetype, detail::fileformat.writezelmgrid, "unknown")) return;
  io::unit& u = io::getunit(gridwriterunit);
  const bool text = filetype == formatted;

  // The header, then every zone's counts in one record.
  io::writewith(u, text, [&](auto& s) { layout::gridheader(s, ndim, nzones, ngridaux); });
  io::writewith(u, text, [&](auto& s) {
    for (int k = 1; k <= nzones; ++k)
      layout::zonecounts(s, nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k));
  });

  index_t node = 1;
  index_t face = 1;
  const index_t w = ifnode.extent(1);
  for (int k = 1; k <= nzones; ++k) {
    io::print("Writing Grid Points in Zone ", k, "...");
    if (text) {
      for (index_t i = 0; i < nptsz(k); ++i) {
        const index_t col = node + i - 1;
        io::listwrite(u, io::items(x.data() + col * x.extent(1), ndim));
      }
    } else if (nptsz(k) > 0) {
      if (wide)
        io::writefixed(u, x8.data() + (node - 1) * x8.extent(1), x8.extent(1), ndim, nptsz(k));
      else
        io::writefixed(u, x.data() + (node - 1) * x.extent(1), x.extent(1), ndim, nptsz(k));
    }
    io::print("Writing Connectivity in Zone ", k, "...");
    for (index_t i = 0; i < nfacesz(k); ++i) {
      const index_t f = face + i;
      const int n = npf(f);
      if (n > w)  // the message is only built for a face that ends the run
        detail::requirearray(false, routine,
                             "face " + std::to_string(f) + " has more nodes than ifnode holds");
      if (text)
        io::listwrite(u, n, io::items(ifnode.data() + (f - 1) * w, n), ifcell(1, f), ifcell(2, f));
      else
        io::writeface(u, n, ifnode.data() + (f - 1) * w, ifcell.data() + (f - 1) * ifcell.extent(1));
    }
    node += std::max(nptsz(k), 0);
    face += std::max(nfacesz(k), 0);
  }
  // Unit 4 stays connected: the caller closes it.
}

}  // namespace mod_zelmgrid
