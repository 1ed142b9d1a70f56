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

namespace mod_zelmgrid {

using detail::israw;
using detail::openbycode;
using fortran::index_t;
using io::rstat;

namespace {

constexpr int gridreaderunit = 13;
constexpr int headerreaderunit = 14;
constexpr int gridwriterunit = 4;

// One read statement, list-directed or unformatted by the file-type code.
template <class... Items>
rstat readrecord(io::unit& u, int filetype, Items&&... its) {
  return filetype == formatted ? io::listread(u, its...) : io::rawread(u, its...);
}

// The five counts of every zone, as items of one statement.
template <class Statement>
void zonecountitems(Statement& s, int nzones, farray<int, 1>& nptsz, farray<int, 1>& nfacesz,
                    farray<int, 1>& ncellsz, farray<int, 1>& mnpfz, farray<int, 1>& mfpcz) {
  for (int k = 1; k <= nzones && s.status() == rstat::ok; ++k) {
    s.item(nptsz(k));
    s.item(nfacesz(k));
    s.item(ncellsz(k));
    s.item(mnpfz(k));
    s.item(mfpcz(k));
  }
}

bool holdszones(int nzones, std::initializer_list<const farray<int, 1>*> arrays) {
  for (const auto* a : arrays)
    if (a->extent(1) < nzones) return false;
  return true;
}

// ---- fast paths of the node and face statements -----------------------------------------------
//
// Node and face records make up nearly all of a grid file, and in the "unformatted" and "binary"
// encodings most of the cost of one record is the general statement around it (sub-records,
// records longer than their items, end of file, errors). The loops below take the common case
// straight from or into the unit's buffer: a record that lies whole in the buffer, whose length
// markers (framed) agree and hold exactly its items, and whose node count fits ifnode. Every other
// record, and every record near the end of the file, goes through the statement as before, so what
// is stored, written and reported is the same; each record counts as one statement.

constexpr std::size_t marker = 4;

int32_t load32(const char* p) {
  int32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
void store32(char* p, int32_t v) {
  std::memcpy(p, &v, 4);
}

// Reads node records i, i+1, ... < n: record j holds `rows` values of T for the column at
// dst + j * stride. Returns the first record it did not read.
template <class T>
index_t fastnodes(io::unit& u, bool framed, T* dst, index_t stride, index_t rows, index_t i, index_t n) {
  if (rows < 1 || stride < rows) return i;
  const std::size_t payload = static_cast<std::size_t>(rows) * sizeof(T);
  const std::size_t rec = payload + (framed ? 2 * marker : 0);
  u.beginread();
  while (i < n && u.fill(rec)) {
    const char* p = u.rp();
    const index_t m = std::min<index_t>(n - i, static_cast<index_t>(u.avail() / rec));
    index_t done = 0;
    if (!framed && stride == rows) {
      std::memcpy(dst + i * stride, p, static_cast<std::size_t>(m) * payload);
      done = m;
    } else if (!framed) {
      for (; done < m; ++done, p += rec) std::memcpy(dst + (i + done) * stride, p, payload);
    } else {
      const auto len = static_cast<int32_t>(payload);
      for (; done < m; ++done, p += rec) {
        if (load32(p) != len || load32(p + marker + payload) != len) break;
        std::memcpy(dst + (i + done) * stride, p + marker, payload);
      }
    }
    u.consume(static_cast<std::size_t>(done) * rec);
    u.records += done;
    i += done;
    if (done < m) break;  // a record the statement must take
  }
  return i;
}

// Reads face records f, f+1, ... < fend (numbers from 1) into npf, ifnode (w slots a face) and
// ifcell (`cs` a face, the first two read). Returns the first face it did not read.
index_t fastfaces(io::unit& u, bool framed, int* npf, int* ifnode, index_t w, int* ifcell, index_t cs,
                  index_t f, index_t fend) {
  if (cs < 2) return f;
  const std::size_t head = framed ? marker : 0;
  const std::size_t most = 4 * static_cast<std::size_t>(w + 3) + 2 * head;
  u.beginread();
  bool irregular = false;
  while (f < fend && !irregular && u.fill(most)) {
    const char* const start = u.rp();
    const char* p = start;
    const char* const end = start + u.avail();
    index_t done = 0;
    while (f < fend && static_cast<std::size_t>(end - p) >= most) {
      const int32_t count = load32(p + head);
      if (count > w) {
        irregular = true;
        break;
      }
      const std::size_t k = count > 0 ? static_cast<std::size_t>(count) : 0;
      const std::size_t payload = 4 * (k + 3);
      if (framed && (load32(p) != static_cast<int32_t>(payload) ||
                     load32(p + marker + payload) != static_cast<int32_t>(payload))) {
        irregular = true;
        break;
      }
      npf[f - 1] = count;
      std::memcpy(ifnode + (f - 1) * w, p + head + 4, 4 * k);
      std::memcpy(ifcell + cs * (f - 1), p + head + 4 + 4 * k, 8);
      p += payload + 2 * head;
      ++f;
      ++done;
    }
    u.consume(static_cast<std::size_t>(p - start));
    u.records += done;
  }
  return f;
}

// Writes node records i < n: record j holds `rows` values of T from the column at src + j * stride.
template <class T>
void putnodes(io::unit& u, bool framed, const T* src, index_t stride, index_t rows, index_t n) {
  const std::size_t payload = static_cast<std::size_t>(std::max<index_t>(rows, 0)) * sizeof(T);
  const std::size_t rec = payload + (framed ? 2 * marker : 0);
  if (rows < 1 || rec > io::unit::bufferlimit ||
      (framed && payload > static_cast<std::size_t>(io::maxsubrecord()))) {
    for (index_t j = 0; j < n; ++j) io::rawwrite(u, io::items(src + j * stride, rows));
    return;
  }
  u.beginwrite();
  const auto len = static_cast<int32_t>(payload);
  for (index_t j = 0; j < n;) {
    char* w = u.wspace(rec);
    const index_t m = std::min<index_t>(n - j, static_cast<index_t>(u.wroom() / rec));
    for (index_t e = 0; e < m; ++e, ++j) {
      if (framed) store32(w, len);
      std::memcpy(w + (framed ? marker : 0), src + j * stride, payload);
      if (framed) store32(w + marker + payload, len);
      w += rec;
    }
    u.wcommit(static_cast<std::size_t>(m) * rec);
    u.records += m;
  }
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
    if (readrecord(u, filetype, ndim, nzones, ngridaux) != rstat::ok) return detail::readfailed();
  }

  farray<int, 1> nfacesz, mnpfz, mfpcz;  // temporaries, released on every way out
  mod_gridvars::checkallocationerror(allocatecounts(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}));

  if (opened) {
    u.context = {"zone counts"};
    if (!holdszones(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}))
      return detail::outofbounds(
          u, "the zone-count arrays for " + std::to_string(nzones) + " zones could not be allocated");
    rstat st;
    if (filetype == formatted) {
      io::listin s(u);
      zonecountitems(s, nzones, nptsz, nfacesz, ncellsz, mnpfz, mfpcz);
      st = s.finish();
    } else {
      io::rawin s(u);
      zonecountitems(s, nzones, nptsz, nfacesz, ncellsz, mnpfz, mfpcz);
      st = s.finish();
    }
    if (st != rstat::ok) return detail::readfailed();
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
    if (readrecord(u, filetype, ndim, nzones, ngridaux) != rstat::ok) return detail::readfailed();

    mod_gridvars::checkallocationerror(allocatecounts(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}));
    u.context = filetype == formatted ? io::what{"zone counts of zone", 1} : io::what{"zone counts"};
    if (!holdszones(nzones, {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}))
      return detail::outofbounds(
          u, "the zone-count arrays for " + std::to_string(nzones) + " zones could not be allocated");

    if (filetype == formatted) {  // each zone's five counts start a line of their own
      for (int k = 1; k <= nzones; ++k) {
        u.context = {"zone counts of zone", k};
        if (io::listread(u, nptsz(k), nfacesz(k), ncellsz(k), mnpfz(k), mfpcz(k)) != rstat::ok)
          return detail::readfailed();
      }
    } else {
      u.context = {"zone counts"};
      io::rawin s(u);
      zonecountitems(s, nzones, nptsz, nfacesz, ncellsz, mnpfz, mfpcz);
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
          const bool framed = filetype == unformatted;
          i = wide ? fastnodes(u, framed, x8.data() + (node - 1) * x8.extent(1), x8.extent(1), ndim, i, n)
                   : fastnodes(u, framed, x.data() + (node - 1) * x.extent(1), x.extent(1), ndim, i, n);
          if (i >= n) break;
        }
        u.context = {"zone", k, "node", i + 1};
        const rstat st =
            wide ? readrecord(u, filetype, io::items(x8.data() + (node + i - 1) * x8.extent(1), ndim))
                 : readrecord(u, filetype, io::items(x.data() + (node + i - 1) * x.extent(1), ndim));
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
            i = fastfaces(u, filetype == unformatted, npf.data(), ifnode.data(), w, ifcell.data(),
                          ifcell.extent(1), face + i, face + nf) -
                face;
            if (i >= nf) break;
          }
          const index_t f = face + i;
          u.context = {"zone", k, "face", i + 1};
          const io::lazyseq<int> nodes{ifnode.data() + (f - 1) * w, &npf(f), w};
          if (readrecord(u, filetype, npf(f), nodes, ifcell(1, f), ifcell(2, f)) != rstat::ok)
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

  if (text) {
    io::listwrite(u, ndim, nzones, ngridaux);
    io::listout s(u);
    for (int k = 1; k <= nzones; ++k)
      for (const auto* a : {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}) s.item((*a)(k));
    s.finish();
  } else {
    io::rawwrite(u, ndim, nzones, ngridaux);
    io::rawout s(u);
    for (int k = 1; k <= nzones; ++k)
      for (const auto* a : {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}) s.item((*a)(k));
    s.finish();
  }

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
      const bool framed = filetype == unformatted;
      if (wide)
        putnodes(u, framed, x8.data() + (node - 1) * x8.extent(1), x8.extent(1), ndim, nptsz(k));
      else
        putnodes(u, framed, x.data() + (node - 1) * x.extent(1), x.extent(1), ndim, nptsz(k));
    }
    io::print("Writing Connectivity in Zone ", k, "...");
    const bool framed = filetype == unformatted;
    const std::size_t head = framed ? marker : 0;
    const std::size_t most = 4 * static_cast<std::size_t>(std::max<index_t>(w, 0) + 3) + 2 * head;
    const bool fast = !text && most <= io::unit::bufferlimit &&
                      (!framed || most - 2 * head <= static_cast<std::size_t>(io::maxsubrecord()));
    if (fast) u.beginwrite();
    for (index_t i = 0; i < nfacesz(k); ++i) {
      const index_t f = face + i;
      const int n = npf(f);
      if (n > w)  // the message is only built for a face that ends the run
        detail::requirearray(false, routine,
                             "face " + std::to_string(f) + " has more nodes than ifnode holds");
      if (fast) {
        // The record straight into the buffer: count, nodes, cells (with its length markers).
        const std::size_t kn = n > 0 ? static_cast<std::size_t>(n) : 0;
        const std::size_t payload = 4 * (kn + 3);
        char* b = u.wspace(payload + 2 * head);
        if (framed) store32(b, static_cast<int32_t>(payload));
        store32(b + head, n);
        std::memcpy(b + head + 4, ifnode.data() + (f - 1) * w, 4 * kn);
        std::memcpy(b + head + 4 + 4 * kn, ifcell.data() + (f - 1) * ifcell.extent(1), 8);
        if (framed) store32(b + head + payload, static_cast<int32_t>(payload));
        u.wcommit(payload + 2 * head);
        ++u.records;
        continue;
      }
      const auto nodes = io::items(ifnode.data() + (f - 1) * w, n);
      if (text)
        io::listwrite(u, n, nodes, ifcell(1, f), ifcell(2, f));
      else
        io::rawwrite(u, n, nodes, ifcell(1, f), ifcell(2, f));
    }
    node += std::max(nptsz(k), 0);
    face += std::max(nfacesz(k), 0);
  }
  // Unit 4 stays connected: the caller closes it.
}

}  // namespace mod_zelmgrid
