// Tecplot export: an unstructured grid with one node-based solution as a Tecplot ASCII data file of
// finite-element (FEPOINT) zones.
//
// writetecplotfile derives, zone by zone, the faces of every cell from the face-to-cell table
// `ifcell` (which it consumes, and then reuses for the cell-type and node-use codes of a
// three-dimensional zone), and hands each zone to writer. writer writes the title and variables
// (zone 1), the two-dimensional zone with its nodes, the element connectivity through
// quapts/tripts (quadrilaterals/triangles) or tetpts/prsmpts (Tet-Zone, Prism-Zone as bricks), and
// the zone's body surface. The file is plain text on unit 10.
//
// One implementation, two states. The steps are members of detail::tecplotexport, which holds the
// shared blocks `const` and `formt`, the saved work arrays and the file it writes to.
// writetecplotfile (and the routines when called on their own) run it on the module's state: unit
// 10, progress lines on standard output, reports on standard error, allocation statuses handed to
// checkallocationerror, stops through io::stop. zelm::writetecplot runs it on a fresh state of its
// own for each call: a standalone unit, messages to the caller's sink, failures thrown.
//
// References outside an array. The routines index arrays with numbers taken from the data (cell
// numbers in ifcell, node numbers in ifnode, face numbers in iface) and with work arrays that keep
// the sizes of an earlier call (the export allocates them once per run: a second call keeps the
// old sizes). No such reference is ever followed outside its array:
//   - argument arrays smaller than the counts make them (zone-count arrays shorter than nzones,
//     ifcell, npf or ifnode with fewer faces than a zone scans, ifnode with fewer than 2 node
//     slots, 3 in three dimensions, x or qnode with fewer nodes than a zone has, x with fewer rows
//     than ndim, qnode with fewer rows than npixvar or, in three dimensions, numrstrtvar) end the
//     run through io::fail before anything is printed or opened;
//   - any other reference that falls outside its array is left out, reported on standard error
//     ("zelmgrid: Tecplot export: ...: left out", at most 20 lines a call), and the export goes on:
//       a face found for a cell beyond iface's columns (or a cell beyond iface's rows) is counted
//       in mfpc but not stored; a cell number beyond mfpc is passed over; a boundary face beyond
//       ibf, or a node beyond ipf or ipbf, is counted but not stored;
//       an element writer leaves out the record of a cell whose face slots lie outside iface
//       (no stop: its faces are unknown, not unorderable); a face slot naming a face that ifnode
//       or npf does not hold contributes no nodes (and may leave the cell unorderable, which stops
//       as for any such cell);
//       a node record for a node that x or qnode does not hold is left out whole; a node number
//       that ipf does not hold is written as 0 in connectivity records; a body face beyond ibf is
//       left out; a node beyond ifcell's columns gets no node-use code (it is then in no element
//       zone), a cell beyond them no type code.
//     Counts (cells, faces, nodes) are counted all the same, so a header may then announce
//     more records than follow.
#include "tecplot.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "internal.hpp"

namespace mod_zelmgrid {

using fortran::index_t;

namespace {

constexpr int tecplotunit = 10;
constexpr const char* routine = "writetecplotfile";

// The module's saved work arrays. writetecplotfile's own mfpc is released at the end of every
// call; ibf, ipf, iface and writer's ipbf are allocated once and never released, so a later call
// finds them allocated with the sizes of the first.
detail::tecplotsaved work;

std::string zonetext(int iz) {
  return "zone " + std::to_string(iz);
}

template <class T>
bool within(const farray<T, 1>& a, index_t i) {
  return i >= 1 && i <= a.extent(1);
}
template <class T>
bool within(const farray<T, 2>& a, index_t i, index_t j) {
  return i >= 1 && i <= a.extent(1) && j >= 1 && j <= a.extent(2);
}

// The largest element (the most negative integer when the array is empty).
int largest(const farray<int, 1>& a) {
  int m = INT_MIN;
  for (index_t i = 1; i <= a.extent(1); ++i) m = std::max(m, a(i));
  return m;
}

// A list-directed record of texts and integers, as the export's messages are: a leading blank,
// texts as they are (a blank before one that follows an integer), each integer right-aligned in 11
// columns after a blank.
void additem(std::string& s, bool& aftertext, std::string_view t) {
  if (s.empty() || !aftertext) s += ' ';
  s += t;
  aftertext = true;
}
void additem(std::string& s, bool& aftertext, int v) {
  s += ' ';
  io::editi(s, 11, v);
  aftertext = false;
}
template <class... Items>
std::string record(const Items&... its) {
  std::string s;
  bool aftertext = false;
  (additem(s, aftertext, its), ...);
  return s;
}

// A format-directed line: (1X,'<text>',I3).
std::string texti3(const char* text, int v) {
  std::string line = " ";
  line += text;
  io::editi(line, 3, v);
  return line;
}

// Format-directed zone header: (1X,'ZONE  T= "<title>',I3,'"  N= ',I9,' , E= ',I9,' ,',' F=FEPOINT,
// ET=<et>').
std::string zoneheader(const char* title, int iz, int n, int e, const char* et) {
  std::string s = " ZONE  T= \"";
  s += title;
  io::editi(s, 3, iz);
  s += "\"  N= ";
  io::editi(s, 9, n);
  s += " , E= ";
  io::editi(s, 9, e);
  s += " ,";
  s += " F=FEPOINT, ET=";
  s += et;
  return s;
}

// Entry checks of writetecplotfile: the argument arrays must hold what the counts index.
void checkarguments(int ndim, int nzones, const farray<double, 2>& x, const farray<int, 1>& nptsz,
                    const farray<int, 1>& nfacesz, const farray<int, 1>& ncellsz, const farray<int, 1>& mnpfz,
                    const farray<int, 1>& mfpcz, const farray<int, 1>& npf, const farray<int, 2>& ifnode,
                    const farray<int, 2>& ifcell, const farray<double, 2>& qnode) {
  for (const auto* a : {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz})
    detail::requirearray(
        nzones <= 0 || a->extent(1) >= nzones, routine,
        "the zone-count arrays hold fewer than nzones = " + std::to_string(nzones) + " entries");
  int faces = 0, nodes = 0;
  for (index_t iz = 1; iz <= nzones; ++iz) {
    faces = std::max(faces, nfacesz(iz));
    nodes = std::max(nodes, nptsz(iz));
  }
  const int slots = ndim == 3 ? 3 : 2;
  detail::requirearray(faces == 0 || (ifcell.extent(1) >= 2 && ifcell.extent(2) >= faces), routine,
                       "ifcell holds fewer than the " + std::to_string(faces) + " faces that a zone scans");
  detail::requirearray(faces == 0 || npf.extent(1) >= faces, routine,
                       "npf holds fewer than the " + std::to_string(faces) + " faces that a zone scans");
  detail::requirearray(faces == 0 || (ifnode.extent(1) >= slots && ifnode.extent(2) >= faces), routine,
                       "ifnode holds fewer than " + std::to_string(slots) + " nodes for each of the " +
                           std::to_string(faces) + " faces that a zone scans");
  detail::requirearray(nodes == 0 || ndim <= 0 || (x.extent(1) >= ndim && x.extent(2) >= nodes), routine,
                       "x holds fewer than " + std::to_string(ndim) + " coordinates for each of the " +
                           std::to_string(nodes) + " nodes of a zone");
  const int npix = std::max(mod_gridvars::npixvar, 0);
  const int nrst = ndim == 3 ? std::max(mod_gridvars::numrstrtvar, 0) : 0;
  detail::requirearray(nodes == 0 || npix == 0 || (qnode.extent(1) >= npix && qnode.extent(2) >= nodes),
                       routine,
                       "qnode holds fewer than npixvar = " + std::to_string(npix) +
                           " values for each of the " + std::to_string(nodes) + " nodes of a zone");
  detail::requirearray(nodes == 0 || nrst == 0 || (qnode.extent(1) >= nrst && qnode.extent(2) >= nodes),
                       routine,
                       "qnode holds fewer than numrstrtvar = " + std::to_string(nrst) +
                           " values for each of the " + std::to_string(nodes) + " nodes of a zone");
}

// The export on the module's state: unit 10, the shared blocks, the saved arrays, npixvar and
// numrstrtvar as they are when it starts.
class moduleexport final : public detail::tecplotexport {
 public:
  moduleexport()
      : tecplotexport(const_, formt, work, io::getunit(tecplotunit), mod_gridvars::npixvar,
                      mod_gridvars::numrstrtvar) {}

 protected:
  void say(const std::string& line) override { io::linewrite(io::getunit(6), line); }
  void report(const std::string& line) override {
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", line.c_str());
  }
  void workallocated(int status, index_t ncells) override {
    // The last request of the chain, a second one for mfpc, finds it allocated whenever the others
    // succeeded, so its already-allocated status is the one reported.
    if (status == 0) status = saved().mfpc.allocate(ncells);
    mod_gridvars::checkallocationerror(status);
  }
  void allocateipbf(index_t nodes) override {
    // Never released: from the second zone on the request finds ipbf allocated, and that status is
    // what is reported.
    mod_gridvars::checkallocationerror(saved().ipbf.allocate(nodes));
  }
  [[noreturn]] void stopped(const char*, int, index_t) override { io::stop(); }
};

}  // namespace

// ---- driver ---------------------------------------------------------------------------------

void writetecplotfile(const char40& filename, const int& ndim, const int& nzones, const farray<double, 2>& x,
                      const farray<int, 1>& nptsz, const farray<int, 1>& nfacesz,
                      const farray<int, 1>& ncellsz, const farray<int, 1>& mnpfz, const farray<int, 1>& mfpcz,
                      const farray<int, 1>& npf, const farray<int, 2>& ifnode, farray<int, 2>& ifcell,
                      const farray<double, 2>& qnode) {
  checkarguments(ndim, nzones, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode, ifcell, qnode);
  moduleexport e;
  e.start(mnpfz);
  io::open(tecplotunit, filename.trimmed(), "formatted", "unknown");
  e.zones(ndim, nzones, x, nptsz, nfacesz, ncellsz, mfpcz, npf, ifnode, ifcell, qnode);
  io::close(tecplotunit);
}

void writer(const int& iz, const int& ndim, const farray<int, 1>& mfpcz, const farray<int, 1>& nptsz,
            const farray<int, 1>& ncellsz, farray<int, 1>& ipf, const farray<double, 2>& x,
            const farray<double, 2>& qnode, const farray<int, 2>& ifnode, const farray<int, 2>& iface,
            const farray<int, 1>& npf, farray<int, 2>& ifcell, const farray<int, 1>& ibf) {
  moduleexport().writer(iz, ndim, mfpcz, nptsz, ncellsz, ipf, x, qnode, ifnode, iface, npf, ifcell, ibf);
}

void quapts(const int& iz, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
            const farray<int, 2>& ifnode) {
  moduleexport().quapts(iz, ncellsz, iface, ifnode);
}

void tripts(const int& iz, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
            const farray<int, 2>& ifnode) {
  moduleexport().tripts(iz, ncellsz, iface, ifnode);
}

void tetpts(const int& iz, const int& ndim, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
            const farray<int, 2>& ifnode, farray<int, 1>& ipf, farray<int, 1>& ipbf,
            const farray<double, 2>& x, const farray<double, 2>& qnode, const farray<int, 1>& nptsz,
            const farray<int, 2>& ifcell) {
  moduleexport().tetpts(iz, ndim, ncellsz, iface, ifnode, ipf, ipbf, x, qnode, nptsz, ifcell);
}

void prsmpts(const int& iz, const int& ndim, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
             const farray<int, 2>& ifnode, farray<int, 1>& ipf, farray<int, 1>& ipbf,
             const farray<double, 2>& x, const farray<double, 2>& qnode, const farray<int, 1>& npf,
             const farray<int, 1>& nptsz, const farray<int, 2>& ifcell) {
  moduleexport().prsmpts(iz, ndim, ncellsz, iface, ifnode, ipf, ipbf, x, qnode, npf, nptsz, ifcell);
}

namespace detail {

// ---- references outside an array ---------------------------------------------------------------

void tecplotexport::leftout(const std::string& what) {
  ++w_.leftouts;
  if (w_.leftouts > leftoutmessages + 1) return;
  if (w_.leftouts == leftoutmessages + 1)
    report("zelmgrid: Tecplot export: further references outside the arrays are left out without a message");
  else
    report("zelmgrid: Tecplot export: " + what + ": left out");
}

// a(iz), or 0 when the zone is outside the array.
int tecplotexport::zonecount(const farray<int, 1>& a, int iz, const char* name) {
  if (within(a, iz)) return a(iz);
  leftout(zonetext(iz) + " is outside " + name + " (" + std::to_string(a.extent(1)) + " zones)");
  return 0;
}

// iface(ic, k), or 0 when (ic, k) is outside iface.
int tecplotexport::cellface(const farray<int, 2>& iface, index_t ic, int k, int iz) {
  if (within(iface, ic, k)) return iface(ic, k);
  leftout(zonetext(iz) + " cell " + std::to_string(ic) + ": face slot " + std::to_string(k) +
          " is outside iface (" + std::to_string(iface.extent(1)) + " cells, " +
          std::to_string(iface.extent(2)) + " slots)");
  return 0;
}

// Whether iface holds face slots 1 .. slots of cell ic; when not, the cell's record is left out.
bool tecplotexport::cellknown(const farray<int, 2>& iface, index_t ic, int slots, int iz) {
  if (within(iface, ic, slots)) return true;
  leftout(zonetext(iz) + ": cell " + std::to_string(ic) + " (face slots 1 to " + std::to_string(slots) +
          ") is outside iface (" + std::to_string(iface.extent(1)) + " cells, " +
          std::to_string(iface.extent(2)) + " slots); its record");
  return false;
}

// Whether face f has node slots 1 .. slots in ifnode; reports it when not (for cell ic, or for the
// body surface when ic is 0).
bool tecplotexport::faceknown(const farray<int, 2>& ifnode, int f, int slots, int iz, index_t ic) {
  if (within(ifnode, slots, f)) return true;
  leftout(zonetext(iz) + (ic > 0 ? " cell " + std::to_string(ic) : std::string(" body surface")) + ": face " +
          std::to_string(f) + " (node slots 1 to " + std::to_string(slots) + ") is outside ifnode (" +
          std::to_string(ifnode.extent(1)) + " slots, " + std::to_string(ifnode.extent(2)) + " faces)");
  return false;
}

// ipf(n), the node's number in the zone being written; 0 when n is outside ipf.
int tecplotexport::renumbered(const farray<int, 1>& ipf, int n, int iz) {
  if (within(ipf, n)) return ipf(n);
  leftout(zonetext(iz) + ": node " + std::to_string(n) + " is outside ipf (" + std::to_string(ipf.extent(1)) +
          " nodes) and is written as 0");
  return 0;
}

// Boundary node n joins the boundary-node list, const(1) long.
void tecplotexport::collectboundary(farray<int, 1>& ipbf, index_t n, int iz) {
  ++cst_(1);
  if (within(ipbf, cst_(1)))
    ipbf(cst_(1)) = static_cast<int>(n);
  else
    leftout(zonetext(iz) + ": boundary node " + std::to_string(cst_(1)) + " is outside ipbf (" +
            std::to_string(ipbf.extent(1)) + ")");
}

// The node record of node n: x(1:ndim, n), then qnode(1:nvals, n) when formt(3) is 2. A node that x
// or qnode does not hold is left out whole.
void tecplotexport::noderecord(const farray<double, 2>& x, const farray<double, 2>& qnode, int ndim,
                               int nvals, index_t n, int iz) {
  const index_t nd = std::max(ndim, 0);
  const index_t nv = formt_(3) == 2 ? std::max(nvals, 0) : 0;
  const bool inx = nd == 0 || (n >= 1 && n <= x.extent(2) && x.extent(1) >= nd);
  const bool inq = nv == 0 || (n >= 1 && n <= qnode.extent(2) && qnode.extent(1) >= nv);
  if (!inx || !inq) {
    leftout(zonetext(iz) + ": the record of node " + std::to_string(n) + " (" + std::to_string(nd) +
            " coordinates, " + std::to_string(nv) + " values) is outside x (" + std::to_string(x.extent(1)) +
            " by " + std::to_string(x.extent(2)) + ") or qnode (" + std::to_string(qnode.extent(1)) + " by " +
            std::to_string(qnode.extent(2)) + ")");
    return;
  }
  io::listout s(file_);
  if (nd > 0) s.item(io::items(x.data() + (n - 1) * x.extent(1), nd));
  if (nv > 0) s.item(io::items(qnode.data() + (n - 1) * qnode.extent(1), nv));
  s.finish();
}

// The message of an element writer that cannot order a cell's nodes, then the stop.
void tecplotexport::unorderable(const char* message, int iz, index_t ic) {
  say(record(message));
  stopped(message, iz, ic);
  std::abort();  // not reached: stopped ends the run or throws
}

// ---- driver -------------------------------------------------------------------------------------

void tecplotexport::start(const farray<int, 1>& mnpfz) {
  w_.leftouts = 0;
  // Fixed switches: solution values in the node records, headers/records/messages on, body zone on.
  formt_(3) = 2;
  formt_(4) = 1;
  formt_(5) = 3;
  cst_(3) = largest(mnpfz);
  say(record("Writing to Tecplot file..."));
}

void tecplotexport::zones(int ndim, int nzones, const farray<double, 2>& x, const farray<int, 1>& nptsz,
                          const farray<int, 1>& nfacesz, const farray<int, 1>& ncellsz,
                          const farray<int, 1>& mfpcz, const farray<int, 1>& npf,
                          const farray<int, 2>& ifnode, farray<int, 2>& ifcell,
                          const farray<double, 2>& qnode) {
  // Boundary faces of the whole table: the size of ibf.
  index_t nbound = 0;
  const index_t sides = std::min<index_t>(ifcell.extent(1), 2);
  for (index_t f = 1; f <= ifcell.extent(2); ++f)
    for (index_t s = 1; s <= sides; ++s) nbound += ifcell(s, f) < 0 ? 1 : 0;

  // A chain of requests: each is made only when the one before succeeded.
  const index_t ncells = detail::sum(ncellsz);
  const int slots = std::max(largest(mfpcz), 0);
  int istat = w_.mfpc.allocate(ncells);
  if (istat == 0) istat = w_.ibf.allocate(nbound);
  if (istat == 0) istat = w_.ipf.allocate(detail::sum(nptsz));
  if (istat == 0) {
    istat = w_.iface.allocate(ncells, slots);
    // Fresh storage starts at 0 so that a slot no face reached reads as "no face"; iface is not
    // cleared on later calls.
    if (istat == 0) std::fill_n(w_.iface.data(), w_.iface.size(), 0);
  }
  workallocated(istat, ncells);
  std::fill_n(w_.mfpc.data(), w_.mfpc.size(), 0);
  std::fill_n(w_.ipf.data(), w_.ipf.size(), 0);

  const bool threed = ndim == 3;
  for (index_t zone = 1; zone <= nzones; ++zone) {
    const int iz = static_cast<int>(zone);
    say("");
    say(texti3("generating face/cell relationships for zone: ", iz));

    // Faces of each cell and the zone's boundary faces. Every entry consumed is cleared, so a
    // face that an earlier zone handled is passed over.
    int nbf = 0;
    int most = 0;
    for (int s = 1; s <= 2; ++s) {
      for (index_t f = 1; f <= nfacesz(iz); ++f) {
        const int ic = ifcell(s, f);
        if (ic > 0) {
          if (within(w_.mfpc, ic)) {
            const int k = ++w_.mfpc(ic);
            if (within(w_.iface, ic, k))
              w_.iface(ic, k) = static_cast<int>(f);
            else
              leftout(zonetext(iz) + ": face " + std::to_string(f) + " is the " + std::to_string(k) +
                      "th face of cell " + std::to_string(ic) + ", outside iface (" +
                      std::to_string(w_.iface.extent(1)) + " cells, " + std::to_string(w_.iface.extent(2)) +
                      " slots)");
            most = std::max(most, k);
          } else {
            leftout(zonetext(iz) + ": cell " + std::to_string(ic) + " of face " + std::to_string(f) +
                    " is outside mfpc (" + std::to_string(w_.mfpc.extent(1)) + " cells)");
          }
        } else if (ic < 0) {
          ++nbf;
          if (within(w_.ibf, nbf))
            w_.ibf(nbf) = static_cast<int>(f);
          else
            leftout(zonetext(iz) + ": boundary face " + std::to_string(nbf) + " (face " + std::to_string(f) +
                    ") is outside ibf (" + std::to_string(w_.ibf.extent(1)) + ")");
          // The first two nodes of the face, and the third in three dimensions (never a fourth).
          for (int j = 1; j <= (threed ? 3 : 2); ++j) {
            const int n = ifnode(j, f);
            if (within(w_.ipf, n))
              w_.ipf(n) = -1;
            else
              leftout(zonetext(iz) + ": node " + std::to_string(n) + " of boundary face " +
                      std::to_string(f) + " is outside ipf (" + std::to_string(w_.ipf.extent(1)) + " nodes)");
          }
        }
        ifcell(s, f) = 0;
      }
    }
    cst_(4) = most;
    cst_(2) = nbf;
    say(record("done with face/cell relationships"));

    if (threed) {
      // Cell types by the number of faces found, in the now cleared ifcell: row 1 holds a type code
      // by cell (1 tetrahedron, 2 prism), row 2 a node-use code by node (1 tetrahedra only,
      // 2 prisms only, 3 both).
      int tets = 0, prisms = 0, tetnodes = 0, prismnodes = 0;
      for (index_t ic = 1; ic <= ncellsz(iz); ++ic) {
        if (!within(w_.mfpc, ic)) {
          leftout(zonetext(iz) + ": cell " + std::to_string(ic) + " is outside mfpc (" +
                  std::to_string(w_.mfpc.extent(1)) + " cells) and is not classified");
          continue;
        }
        const int m = w_.mfpc(ic);
        if (m < 4 || m > 6) continue;  // neither a tetrahedron nor a prism
        const int type = m == 4 ? 1 : 2;
        if (m == 4)
          ++tets;
        else
          ++prisms;  // a six-face cell is counted as a prism on purpose
        if (within(ifcell, 1, ic))
          ifcell(1, ic) = type;
        else
          leftout(zonetext(iz) + ": cell " + std::to_string(ic) +
                  " has no room for its type code (ifcell has " + std::to_string(ifcell.extent(2)) +
                  " columns)");
        const int visited = m == 4 ? 4 : 5;  // a six-face cell: its first five faces only
        for (int k = 1; k <= visited; ++k) {
          const int f = cellface(w_.iface, ic, k, iz);
          if (!within(npf, f)) {
            leftout(zonetext(iz) + " cell " + std::to_string(ic) + ": face " + std::to_string(f) +
                    " is outside npf (" + std::to_string(npf.extent(1)) + " faces)");
            continue;
          }
          // The face's npf nodes, as far as ifnode holds them.
          int np = npf(f);
          if (np > 0 && !faceknown(ifnode, f, np, iz, ic))
            np = within(ifnode, 1, f) ? static_cast<int>(std::min<index_t>(np, ifnode.extent(1))) : 0;
          for (int j = 1; j <= np; ++j) {
            const int n = ifnode(j, f);
            if (!within(ifcell, 2, n)) {
              leftout(zonetext(iz) + ": node " + std::to_string(n) +
                      " has no room for its node-use code (ifcell has " + std::to_string(ifcell.extent(2)) +
                      " columns)");
              continue;
            }
            int& use = ifcell(2, n);
            if (m == 4) {
              if (use == 0) {
                use = 1;
                ++tetnodes;
              }
            } else {
              if (use == 0) {
                use = 2;
                ++prismnodes;
              }
              // Five faces: a node already used by a tetrahedron becomes shared and is counted again.
              // Six faces: it keeps code 1 and is not counted (kept on purpose).
              if (m == 5 && use == 1) {
                use = 3;
                ++prismnodes;
              }
            }
          }
        }
      }
      cst_(5) = tets;
      cst_(6) = prisms;
      cst_(7) = tetnodes;
      cst_(8) = prismnodes;
      say("");
      say(record("total number of tetrahedra,pts: ", cst_(5), cst_(7)));
      if (cst_(6) > 0) say(record("total number of prisms,pts: ", cst_(6), cst_(8)));
    }

    writer(iz, ndim, mfpcz, nptsz, ncellsz, w_.ipf, x, qnode, ifnode, w_.iface, npf, ifcell, w_.ibf);
  }
  w_.mfpc.deallocate();  // ibf, ipf and iface stay allocated
}

// ---- zone writer and body surface ------------------------------------------------------------

void tecplotexport::writer(int iz, int ndim, const farray<int, 1>& mfpcz, const farray<int, 1>& nptsz,
                           const farray<int, 1>& ncellsz, farray<int, 1>& ipf, const farray<double, 2>& x,
                           const farray<double, 2>& qnode, const farray<int, 2>& ifnode,
                           const farray<int, 2>& iface, const farray<int, 1>& npf, farray<int, 2>& ifcell,
                           const farray<int, 1>& ibf) {
  allocateipbf(detail::sum(nptsz));
  farray<int, 1>& ipbf = w_.ipbf;

  if (!within(mfpcz, iz) || !within(nptsz, iz) || !within(ncellsz, iz)) {
    leftout(zonetext(iz) + " is outside mfpcz, nptsz or ncellsz and is not written");
    return;
  }
  io::unit& u = file_;

  if (iz == 1) {
    io::listwrite(u, "TITLE = \"TAVREN Unstructured Grid Result\" ");
    if (ndim == 3)
      io::listwrite(u, "VARIABLES = \"X\",\"Y\",\"Z\",\"RHO\",\"U\",\"V\",\"W\",\"P\",\"FREE\"");
    else
      io::listwrite(u, "VARIABLES = \"X\",\"Y\",\"RHO\",\"U\",\"V\",\"W\",\"P\",\"FREE\"");
  }
  say("");
  say(texti3("writing info for zone: ", iz));

  if (ndim == 2) {
    if (formt_(4) == 1) {
      if (mfpcz(iz) == 3) io::linewrite(u, zoneheader("Zone ", iz, nptsz(iz), ncellsz(iz), "TRIANGLE"));
      if (mfpcz(iz) == 4) io::linewrite(u, zoneheader("Zone ", iz, nptsz(iz), ncellsz(iz), "QUADRILATERAL"));
    }
    // The boundary list is built whatever formt(4) says; only the records depend on it.
    cst_(1) = 0;
    for (index_t n = 1; n <= nptsz(iz); ++n) {
      if (!within(ipf, n))
        leftout(zonetext(iz) + ": node " + std::to_string(n) + " is outside ipf (" +
                std::to_string(ipf.extent(1)) + " nodes)");
      else if (ipf(n) < 0)
        collectboundary(ipbf, n, iz);
      if (formt_(4) == 1) noderecord(x, qnode, ndim, npix_, n, iz);
    }
    if (formt_(4) == 1) say(record("done writing title and node info......."));
    say(record("NDOTS", mfpcz(iz)));
    if (mfpcz(iz) == 4) quapts(iz, ncellsz, iface, ifnode);
    if (mfpcz(iz) == 3) tripts(iz, ncellsz, iface, ifnode);
  } else if (ndim == 3) {
    tetpts(iz, ndim, ncellsz, iface, ifnode, ipf, ipbf, x, qnode, nptsz, ifcell);
    if (cst_(3) == 4) prsmpts(iz, ndim, ncellsz, iface, ifnode, ipf, ipbf, x, qnode, npf, nptsz, ifcell);
  }

  if (formt_(5) < 2) return;

  // The body surface: the boundary nodes collected above, numbered from 1, and in three
  // dimensions the boundary faces over them. Its header and records depend on formt(5) only.
  say("");
  say(record("writing info for body surfaces......."));
  say(record(" # of boundary faces: ", cst_(2)));
  say(record(" # of boundary nodes for those faces: ", cst_(1)));
  if (ndim != 3) {
    io::listwrite(u, "ZONE  T= \"Body ", iz, "\" F=POINT, I= ", cst_(1));
  } else if (mfpcz(iz) == 4) {
    io::listwrite(u, "ZONE  T= \"Body ", iz, "\"  N= ", cst_(1), " , E= ", cst_(2), " ,",
                  " F=FEPOINT, ET=QUADRILATERAL");
  } else if (mfpcz(iz) == 3) {
    io::listwrite(u, "ZONE  T= \"Body ", iz, "\"  N= ", cst_(1), " , E= ", cst_(2), " ,",
                  " F=FEPOINT, ET=TRIANGLE");
  }
  for (index_t k = 1; k <= cst_(1); ++k) {
    if (!within(ipbf, k)) {
      leftout(zonetext(iz) + ": boundary node " + std::to_string(k) + " is outside ipbf (" +
              std::to_string(ipbf.extent(1)) + ")");
      continue;
    }
    const int n = ipbf(k);
    if (within(ipf, n))
      ipf(n) = static_cast<int>(k);
    else
      leftout(zonetext(iz) + ": boundary node " + std::to_string(n) + " is outside ipf (" +
              std::to_string(ipf.extent(1)) + " nodes)");
    noderecord(x, qnode, ndim, npix_, n, iz);
  }
  if (ndim == 3) {
    // Three node numbers for every boundary face, quadrilaterals included.
    for (index_t j = 1; j <= cst_(2); ++j) {
      if (!within(ibf, j)) {
        leftout(zonetext(iz) + ": boundary face " + std::to_string(j) + " is outside ibf (" +
                std::to_string(ibf.extent(1)) + ")");
        continue;
      }
      const int f = ibf(j);
      if (!faceknown(ifnode, f, 3, iz, 0)) continue;
      io::listwrite(u, renumbered(ipf, ifnode(1, f), iz), renumbered(ipf, ifnode(2, f), iz),
                    renumbered(ipf, ifnode(3, f), iz));
    }
  }
  say(record("done writing info for body surfaces......"));
}

// ---- quadrilaterals and triangles ----------------------------------------------------------------

void tecplotexport::quapts(int iz, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
                           const farray<int, 2>& ifnode) {
  if (formt_(4) == 1) say(record("writing cell/node connectivity info for quads"));
  const int ncells = zonecount(ncellsz, iz, "ncellsz");
  for (index_t ic = 1; ic <= ncells; ++ic) {
    if (!cellknown(iface, ic, 4, iz)) continue;
    // The first edge gives na and nb; nc is the node joined to nb by another edge, nd the node
    // joined to na. A face that ifnode does not hold contributes no nodes.
    const int f1 = cellface(iface, ic, 1, iz);
    int na = 0, nb = 0;
    if (faceknown(ifnode, f1, 2, iz, ic)) na = ifnode(1, f1), nb = ifnode(2, f1);
    int nc = 0, nd = 0;
    for (int k = 2; k <= 4; ++k) {
      const int f = cellface(iface, ic, k, iz);
      if (!faceknown(ifnode, f, 2, iz, ic)) continue;
      const int e1 = ifnode(1, f), e2 = ifnode(2, f);
      if (e1 == na) nd = e2;
      if (e2 == na) nd = e1;
      if (e1 == nb) nc = e2;
      if (e2 == nb) nc = e1;
    }
    if (nc == 0) unorderable(" error: in subroutine tripts: ifc3.eq.0 ", iz, ic);  // tripts, also here
    if (formt_(4) == 1) {
      std::string line;
      for (int v : {na, nb, nc, nd}) {
        line += ' ';
        io::editi(line, 6, v);
      }
      io::linewrite(file_, line);
    }
  }
  if (formt_(4) == 1) say(record("done writing quad cell/node info......."));
}

void tecplotexport::tripts(int iz, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
                           const farray<int, 2>& ifnode) {
  if (formt_(4) == 1) say(record("writing cell/node connectivity info for triangles"));
  const int ncells = zonecount(ncellsz, iz, "ncellsz");
  for (index_t ic = 1; ic <= ncells; ++ic) {
    if (!cellknown(iface, ic, 3, iz)) continue;
    const int f1 = cellface(iface, ic, 1, iz);
    int na = 0, nb = 0;
    if (faceknown(ifnode, f1, 2, iz, ic)) na = ifnode(1, f1), nb = ifnode(2, f1);
    int nc = 0;  // the first node of the other edges that is neither na nor nb
    for (int k = 2; k <= 3; ++k) {
      const int f = cellface(iface, ic, k, iz);
      if (!faceknown(ifnode, f, 2, iz, ic)) continue;
      for (int j = 1; j <= 2; ++j) {
        const int n = ifnode(j, f);
        if (nc == 0 && n != na && n != nb) nc = n;
      }
    }
    if (nc == 0) unorderable(" error: in subroutine tripts: ifc3.eq.0 ", iz, ic);
    if (formt_(4) == 1) io::listwrite(file_, na, nb, nc);
  }
  if (formt_(4) == 1) say(record("done writing tri cell/node info......."));
}

// ---- tetrahedra and prisms -------------------------------------------------------------------------

// Whether cell ic carries type code `code` (1 tetrahedron, 2 prism) in row 1 of ifcell.
bool tecplotexport::oftype(const farray<int, 2>& ifcell, index_t ic, int code, int iz) {
  if (within(ifcell, 1, ic)) return ifcell(1, ic) == code;
  leftout(zonetext(iz) + ": cell " + std::to_string(ic) + " has no type code (ifcell has " +
          std::to_string(ifcell.extent(2)) + " columns)");
  return false;
}

// The nodes of a Tet-Zone (codes 1 and 3) or Prism-Zone (codes 2 and 3): boundary nodes not yet
// renumbered join ipbf, each node gets its number in the zone, and its record is written. Returns
// how many nodes were counted.
int tecplotexport::elementzonenodes(int iz, int ndim, int code, const farray<int, 1>& nptsz,
                                    const farray<int, 2>& ifcell, farray<int, 1>& ipf, farray<int, 1>& ipbf,
                                    const farray<double, 2>& x, const farray<double, 2>& qnode) {
  cst_(1) = 0;
  int counted = 0;
  const int nn = zonecount(nptsz, iz, "nptsz");
  for (index_t n = 1; n <= nn; ++n) {
    if (!within(ifcell, 2, n)) {
      leftout(zonetext(iz) + ": node " + std::to_string(n) + " has no node-use code (ifcell has " +
              std::to_string(ifcell.extent(2)) + " columns)");
      continue;
    }
    const int use = ifcell(2, n);
    if (use != code && use != 3) continue;
    const bool inipf = within(ipf, n);
    if (!inipf)
      leftout(zonetext(iz) + ": node " + std::to_string(n) + " is outside ipf (" +
              std::to_string(ipf.extent(1)) + " nodes) and is not renumbered");
    if (inipf && ipf(n) < 0) collectboundary(ipbf, n, iz);
    ++counted;
    if (inipf) ipf(n) = counted;
    // numrstrtvar values, not npixvar: the element zones carry the restart count.
    if (formt_(4) == 1) noderecord(x, qnode, ndim, nrst_, n, iz);
  }
  return counted;
}

void tecplotexport::tetpts(int iz, int ndim, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
                           const farray<int, 2>& ifnode, farray<int, 1>& ipf, farray<int, 1>& ipbf,
                           const farray<double, 2>& x, const farray<double, 2>& qnode,
                           const farray<int, 1>& nptsz, const farray<int, 2>& ifcell) {
  if (formt_(4) == 1) {
    io::linewrite(file_, zoneheader("Tet-Zone ", iz, cst_(7), cst_(5), "TETRAHEDRON"));
    say(record("writing node & connectivity info for tetrahedra"));
  }
  const int counted = elementzonenodes(iz, ndim, 1, nptsz, ifcell, ipf, ipbf, x, qnode);
  if (formt_(4) == 1) say(record("done writing tet node info......."));
  say(record(" number of nodes (known,counted): ", cst_(7), counted));  // only reported

  int tets = 0;
  const int ncells = zonecount(ncellsz, iz, "ncellsz");
  for (index_t ic = 1; ic <= ncells; ++ic) {
    if (!oftype(ifcell, ic, 1, iz)) continue;
    ++tets;
    if (!cellknown(iface, ic, 4, iz)) continue;
    // The first face gives three corners; the fourth is a node of the other faces that is none of
    // them (the last one found).
    const int f1 = cellface(iface, ic, 1, iz);
    int na = 0, nb = 0, nc = 0;
    if (faceknown(ifnode, f1, 3, iz, ic)) na = ifnode(1, f1), nb = ifnode(2, f1), nc = ifnode(3, f1);
    int nd = 0;
    for (int k = 2; k <= 4; ++k) {
      const int f = cellface(iface, ic, k, iz);
      if (!faceknown(ifnode, f, 3, iz, ic)) continue;
      for (int j = 1; j <= 3; ++j) {
        const int n = ifnode(j, f);
        if (n != na && n != nb && n != nc) nd = n;
      }
    }
    if (nd == 0) unorderable(" error: in subroutine tetpts: ifc4.eq.0 ", iz, ic);
    if (formt_(4) == 1)
      io::listwrite(file_, renumbered(ipf, na, iz), renumbered(ipf, nb, iz), renumbered(ipf, nc, iz),
                    renumbered(ipf, nd, iz));
  }
  if (formt_(4) == 1) say(record("done writing tet connectivity info......"));
  say(record(" number of tets (known,counted):  ", cst_(5), tets));
}

void tecplotexport::prsmpts(int iz, int ndim, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
                            const farray<int, 2>& ifnode, farray<int, 1>& ipf, farray<int, 1>& ipbf,
                            const farray<double, 2>& x, const farray<double, 2>& qnode,
                            const farray<int, 1>& npf, const farray<int, 1>& nptsz,
                            const farray<int, 2>& ifcell) {
  if (formt_(4) == 1) {
    io::linewrite(file_, zoneheader("Prism-Zone ", iz, cst_(8), cst_(6), "BRICK"));
    say(record("writing node & connectivity info for prisms"));
  }
  // const(1) starts again: the body surface gets the boundary nodes collected here, and a node
  // that tetpts renumbered (positive ipf) is not collected again.
  const int counted = elementzonenodes(iz, ndim, 2, nptsz, ifcell, ipf, ipbf, x, qnode);
  if (formt_(4) == 1) say(record("done writing prism node info......."));
  say(record(" number of nodes (known,counted): ", cst_(8), counted));

  auto& nfscr = w_.nfscr;
  auto& npscr = w_.npscr;
  auto& itmp = w_.itmp;
  int visited = 0;
  const int ncells = zonecount(ncellsz, iz, "ncellsz");
  for (index_t ic = 1; ic <= ncells; ++ic) {
    if (!oftype(ifcell, ic, 2, iz)) continue;
    ++visited;
    if (!cellknown(iface, ic, 5, iz)) continue;

    // Sort the five faces: triangles (+face) fill npscr 1..3 and 4..6, quadrilaterals are -face.
    // A slot whose face is unknown keeps its previous value, as npscr does for a missing triangle.
    int triangles = 0;
    for (int k = 1; k <= 5; ++k) {
      const int f = cellface(iface, ic, k, iz);
      if (!within(npf, f)) {
        leftout(zonetext(iz) + " cell " + std::to_string(ic) + ": face " + std::to_string(f) +
                " is outside npf (" + std::to_string(npf.extent(1)) + " faces)");
        continue;
      }
      if (npf(f) == 3) {
        nfscr(k) = f;
        if (triangles < 2) {
          if (faceknown(ifnode, f, 3, iz, ic))
            for (int j = 1; j <= 3; ++j) npscr(3 * triangles + j) = ifnode(j, f);
        } else {
          leftout(zonetext(iz) + " cell " + std::to_string(ic) + ": triangular face " + std::to_string(f) +
                  " is a third triangle, with no room in npscr");
        }
        ++triangles;
      } else {
        nfscr(k) = -f;
      }
    }

    // The first quadrilateral face, p1..p4 in face order (0 when the cell has none).
    int quad = 0;
    for (int k = 1; k <= 5 && quad == 0; ++k)
      if (nfscr(k) < 0) quad = -nfscr(k);
    std::array<int, 4> p{};
    if (faceknown(ifnode, quad, 4, iz, ic))
      for (int j = 0; j < 4; ++j) p[static_cast<std::size_t>(j)] = ifnode(j + 1, quad);
    int pos1 = 0, pos2 = 0;  // positions of p1 and p2 among the triangles' nodes (last match)
    for (int i = 1; i <= 6; ++i) {
      if (npscr(i) == p[0]) pos1 = i;
      if (npscr(i) == p[1]) pos2 = i;
    }
    const bool sametriangle = (pos1 >= 1 && pos1 <= 3 && pos2 >= 1 && pos2 <= 3) || (pos1 >= 4 && pos2 >= 4);
    // Edge A = (a1, a2) and edge B = (b1, b2) are the quadrilateral's triangle edges; a1-b1 and
    // a2-b2 join the triangles.
    const int a1 = p[0];
    const int a2 = sametriangle ? p[1] : p[3];
    const int b2 = p[2];
    const int b1 = sametriangle ? p[3] : p[1];

    // The apexes: the third corner of the triangle that holds edge A, and of the one that holds B.
    int apexa = 0, apexb = 0;
    for (int t = 0; t < 2; ++t) {
      for (int k = 1; k <= 3; ++k) {
        const int c1 = npscr(3 * t + k);
        const int c2 = npscr(3 * t + k % 3 + 1);
        const int c3 = npscr(3 * t + (k + 1) % 3 + 1);
        if ((c1 == a1 && c2 == a2) || (c1 == a2 && c2 == a1)) apexa = c3;
        if ((c1 == b1 && c2 == b2) || (c1 == b2 && c2 == b1)) apexb = c3;
      }
    }

    // Brick corners 1 = 2 and 3 = 4 collapse onto the apex edge; 5-6-7-8 is the quadrilateral.
    const int corners[8] = {apexa, apexa, apexb, apexb, a1, a2, b2, b1};
    for (int i = 0; i < 8; ++i) itmp(static_cast<std::size_t>(i) + 1) = renumbered(ipf, corners[i], iz);
    if (formt_(4) == 1) io::listwrite(file_, io::items(itmp.data(), 8));
  }
  if (formt_(4) == 1) say(record("done writing prism connectivity info......"));
  say(record(" number of prisms (known,counted):", cst_(6), visited));
}

// ---- the module's state -----------------------------------------------------------------------------

void resettecplot() {
  work = tecplotsaved{};
}

tecplotarrays tecplotwork() {
  return {work.mfpc, work.ibf, work.ipf, work.iface, work.ipbf};
}

std::int64_t tecplotleftouts() {
  return work.leftouts;
}

}  // namespace detail
}  // namespace mod_zelmgrid
