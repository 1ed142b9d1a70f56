// The Tecplot export's one implementation, run on an explicit state, and the routines that
// writetecplotfile calls. Not part of the module's interface: the export is entered through
// writetecplotfile (the module's own state) or zelm::writetecplot (a fresh state per call).
#pragma once

#include <cstdint>
#include <string>

#include "records.hpp"
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

// The saved work arrays of the export and the scratch of prsmpts.
struct tecplotsaved {
  farray<int, 1> mfpc;        // faces found so far for each cell
  farray<int, 1> ibf;         // boundary faces of the current zone
  farray<int, 1> ipf;         // node flag (-1 on a boundary face), then the node's number in a zone written
  farray<int, 2> iface;       // iface(ic, k): the k-th face found for cell ic
  farray<int, 1> ipbf;        // writer: boundary nodes of the current zone
  std::int64_t leftouts = 0;  // references left out since the current call began
  // prsmpts: the five faces of a prism (triangles as +face, quadrilaterals as -face), the nodes of
  // its two triangles, and the brick written for it.
  fortran::fixed<int, 5> nfscr;
  fortran::fixed<int, 6> npscr;
  fortran::fixed<int, 8> itmp;
};

// One export: the shared blocks `const` and `formt`, the saved arrays, the Tecplot file, and how
// many solution values a node record carries (npixvar in the two-dimensional and body-surface
// records, numrstrtvar in the element zones). What differs between the module's export and a typed
// one (where messages go, how allocation failures and stops end) is left to the subclass.
class tecplotexport {
 public:
  tecplotexport(fortran::fixed<int, 8>& cst, fortran::fixed<int, 5>& formt, tecplotsaved& saved,
                io::unit& file, int npix, int nrst)
      : cst_(cst), formt_(formt), w_(saved), file_(file), npix_(npix), nrst_(nrst) {}
  virtual ~tecplotexport() = default;
  tecplotexport(const tecplotexport&) = delete;
  tecplotexport& operator=(const tecplotexport&) = delete;

  // The fixed switches, const(3) and the first message; then, with the file open, every zone.
  void start(const farray<int, 1>& mnpfz);
  void zones(int ndim, int nzones, const farray<double, 2>& x, const farray<int, 1>& nptsz,
             const farray<int, 1>& nfacesz, const farray<int, 1>& ncellsz, const farray<int, 1>& mfpcz,
             const farray<int, 1>& npf, const farray<int, 2>& ifnode, farray<int, 2>& ifcell,
             const farray<double, 2>& qnode);

  void writer(int iz, int ndim, const farray<int, 1>& mfpcz, const farray<int, 1>& nptsz,
              const farray<int, 1>& ncellsz, farray<int, 1>& ipf, const farray<double, 2>& x,
              const farray<double, 2>& qnode, const farray<int, 2>& ifnode, const farray<int, 2>& iface,
              const farray<int, 1>& npf, farray<int, 2>& ifcell, const farray<int, 1>& ibf);
  void quapts(int iz, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
              const farray<int, 2>& ifnode);
  void tripts(int iz, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
              const farray<int, 2>& ifnode);
  void tetpts(int iz, int ndim, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
              const farray<int, 2>& ifnode, farray<int, 1>& ipf, farray<int, 1>& ipbf,
              const farray<double, 2>& x, const farray<double, 2>& qnode, const farray<int, 1>& nptsz,
              const farray<int, 2>& ifcell);
  void prsmpts(int iz, int ndim, const farray<int, 1>& ncellsz, const farray<int, 2>& iface,
               const farray<int, 2>& ifnode, farray<int, 1>& ipf, farray<int, 1>& ipbf,
               const farray<double, 2>& x, const farray<double, 2>& qnode, const farray<int, 1>& npf,
               const farray<int, 1>& nptsz, const farray<int, 2>& ifcell);

  // At most this many references left out are reported one by one; one more line says that the
  // rest are not.
  static constexpr std::int64_t leftoutmessages = 20;

 protected:
  // A progress line (a list-directed or format-directed record of standard output, without its end
  // of line).
  virtual void say(const std::string& line) = 0;
  // A line about references left out (see tecplot.cpp).
  virtual void report(const std::string& line) = 0;
  // The status of the driver's chain of requests for mfpc, ibf, ipf and iface (ncells: mfpc's size).
  virtual void workallocated(int status, fortran::index_t ncells) = 0;
  // writer's request for ipbf, nodes long.
  virtual void allocateipbf(fortran::index_t nodes) = 0;
  // After the message of an element writer that cannot order the nodes of cell ic of zone iz.
  [[noreturn]] virtual void stopped(const char* message, int iz, fortran::index_t ic) = 0;

  tecplotsaved& saved() { return w_; }

 private:
  void leftout(const std::string& what);
  int zonecount(const farray<int, 1>& a, int iz, const char* name);
  int cellface(const farray<int, 2>& iface, fortran::index_t ic, int k, int iz);
  bool cellknown(const farray<int, 2>& iface, fortran::index_t ic, int slots, int iz);
  bool faceknown(const farray<int, 2>& ifnode, int f, int slots, int iz, fortran::index_t ic);
  int renumbered(const farray<int, 1>& ipf, int n, int iz);
  bool oftype(const farray<int, 2>& ifcell, fortran::index_t ic, int code, int iz);
  void collectboundary(farray<int, 1>& ipbf, fortran::index_t n, int iz);
  void noderecord(const farray<double, 2>& x, const farray<double, 2>& qnode, int ndim, int nvals,
                  fortran::index_t n, int iz);
  int elementzonenodes(int iz, int ndim, int code, const farray<int, 1>& nptsz, const farray<int, 2>& ifcell,
                       farray<int, 1>& ipf, farray<int, 1>& ipbf, const farray<double, 2>& x,
                       const farray<double, 2>& qnode);
  [[noreturn]] void unorderable(const char* message, int iz, fortran::index_t ic);

  fortran::fixed<int, 8>& cst_;
  fortran::fixed<int, 5>& formt_;
  tecplotsaved& w_;
  io::unit& file_;
  int npix_, nrst_;
};

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
std::int64_t tecplotleftouts();

}  // namespace detail
}  // namespace mod_zelmgrid
