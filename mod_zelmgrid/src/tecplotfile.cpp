// zelm::writetecplot: the Tecplot export run on a fresh state of its own for each call.
//
// Before anything is allocated for them, the zones' counts are checked against what the grid's
// arrays hold and against what its faces can make: a zone cannot border more cells than twice its
// faces, nor a cell have more faces than that, and the work arrays (4 bytes a cell for each face
// slot, and a few more a cell, node and face) must stay within 64 MiB plus 16 times the grid's own
// arrays. So a grid of a few bytes cannot make the export spend gigabytes or loop for ever.
#include <algorithm>
#include <string>

#include "internal.hpp"
#include "tecplot.hpp"
#include "zelmgrid/tecplot.hpp"

namespace zelm {

namespace io = mod_zelmgrid::io;

namespace {

[[noreturn]] void refuse(const std::string& why) {
  throw error("Tecplot export: " + why);
}

template <class T, int R, class... N>
void allocate(farray<T, R>& a, const char* what, N... n) {
  if (a.allocate(n...) != 0) refuse(std::string("cannot allocate ") + what + ": out of memory");
}

// Everything one call owns: the shared blocks, the saved arrays and a standalone unit, which throws
// where a numbered unit would end the run.
struct freshstate {
  fortran::fixed<int, 8> blockconst;
  fortran::fixed<int, 5> blockformt;
  mod_zelmgrid::detail::tecplotsaved arrays;
  io::unit output{-1};
};

class typedexport final : private freshstate, public mod_zelmgrid::detail::tecplotexport {
 public:
  // zone: the grid's number of the file's zone 1 (for messages when one zone is exported).
  typedexport(const messagesink& messages, int zone)
      : tecplotexport(blockconst, blockformt, arrays, output, tecplotvalues, tecplotvalues),
        messages_(messages),
        zone_(zone) {}

  io::unit& file() { return output; }

  // How many references were left out; when more than were reported, one line says how many.
  std::int64_t finish() {
    if (arrays.leftouts > leftoutmessages)
      report("zelmgrid: Tecplot export: " + std::to_string(arrays.leftouts) +
             " references outside the arrays were left out in all");
    return arrays.leftouts;
  }

 protected:
  void say(const std::string& line) override {
    if (messages_) messages_(line);
  }
  void report(const std::string& line) override { say(line); }
  void workallocated(int status, index_t ncells) override {
    if (status != 0)
      refuse("cannot allocate the work arrays for " + std::to_string(ncells) + " cells: out of memory");
  }
  void allocateipbf(index_t nodes) override {
    if (!arrays.ipbf.allocated()) allocate(arrays.ipbf, "the boundary-node list", nodes);
  }
  [[noreturn]] void stopped(const char* message, int iz, index_t ic) override {
    std::string m = message;
    m = m.substr(m.find_first_not_of(' '));
    while (m.back() == ' ') m.pop_back();
    refuse("zone " + std::to_string(zone_ > 0 ? zone_ : iz) + " cell " + std::to_string(ic) +
           ": the cell's nodes cannot be ordered (" + m + ")");
  }

 private:
  const messagesink& messages_;
  int zone_;
};

// The zones to export, checked; and the sizes the export's arrays take for them.
struct extent {
  int first = 0, last = -1;  // indices into g.zones
  index_t lastnode = 0;      // the highest node column of x a zone reads
  index_t lastface = 0;      // the highest face a zone scans
  index_t nodes = 0, cells = 0;
  int slots = 0;  // largest mfpcz
};

extent checkzones(const grid& g, const farray<double, 2>* values, int zone) {
  if (g.ndim != 2 && g.ndim != 3)
    refuse("the export takes 2D or 3D grids; this grid has ndim " + std::to_string(g.ndim));
  const auto nz = static_cast<int>(g.zones.size());
  if (zone < 0 || zone > nz)
    refuse("zone " + std::to_string(zone) + " asked for, but the grid has " + std::to_string(nz) +
           " zone(s)");
  extent e;
  e.first = zone > 0 ? zone - 1 : 0;
  e.last = zone > 0 ? zone - 1 : nz - 1;
  index_t node0 = 0, face0 = 0;
  for (int k = 0; k < nz; ++k) {
    const zonecounts& z = g.zones[static_cast<std::size_t>(k)];
    if (k >= e.first && k <= e.last) {
      const std::string name = "zone " + std::to_string(k + 1);
      if (z.nodes < 0 || z.faces < 0 || z.cells < 0 || z.mnpf < 0 || z.mfpc < 0)
        refuse(name + " has a negative count (nodes " + std::to_string(z.nodes) + ", faces " +
               std::to_string(z.faces) + ", cells " + std::to_string(z.cells) + ", mnpfz " +
               std::to_string(z.mnpf) + ", mfpcz " + std::to_string(z.mfpc) + ")");
      const index_t sides = 2 * static_cast<index_t>(z.faces);  // each face borders at most two cells
      if (z.cells > sides)
        refuse(name + " claims " + std::to_string(z.cells) + " cells, but its " + std::to_string(z.faces) +
               " faces border at most " + std::to_string(sides));
      if (z.cells > 0 && z.mfpc > sides)
        refuse(name + " claims cells of up to " + std::to_string(z.mfpc) + " faces (mfpcz), but it has " +
               std::to_string(z.faces) + " faces");
      // One zone alone reads its own nodes; every zone together reads from the first column of x.
      e.lastnode = std::max(e.lastnode, (zone > 0 ? node0 : 0) + z.nodes);
      e.lastface = std::max(e.lastface, face0 + z.faces);
      e.nodes += z.nodes;
      e.cells += z.cells;
      e.slots = std::max(e.slots, z.mfpc);
    }
    node0 += z.nodes;
    face0 += z.faces;
  }

  if (e.lastnode > 0 && (g.x.extent(1) < g.ndim || g.x.extent(2) < e.lastnode))
    refuse("the zones read " + std::to_string(g.ndim) + " coordinates of nodes up to " +
           std::to_string(e.lastnode) + ", but x holds " + std::to_string(g.x.extent(1)) + " by " +
           std::to_string(g.x.extent(2)));
  if (values != nullptr && (values->extent(1) < tecplotvalues || values->extent(2) < e.lastnode))
    refuse("the node values hold " + std::to_string(values->extent(1)) + " variables of " +
           std::to_string(values->extent(2)) + " nodes; the export writes " + std::to_string(tecplotvalues) +
           " of nodes up to " + std::to_string(e.lastnode));
  const int nodeslots = g.ndim == 3 ? 3 : 2;
  if (e.lastface > 0 &&
      (g.npf.extent(1) < e.lastface || g.ifnode.extent(2) < e.lastface || g.ifnode.extent(1) < nodeslots ||
       g.ifcell.extent(1) < 2 || g.ifcell.extent(2) < e.lastface))
    refuse("the zones scan faces up to " + std::to_string(e.lastface) +
           ", but npf, ifnode or ifcell hold fewer (" + std::to_string(g.npf.extent(1)) + ", " +
           std::to_string(g.ifnode.extent(2)) + " with " + std::to_string(g.ifnode.extent(1)) +
           " node slots, " + std::to_string(g.ifcell.extent(2)) + ")");

  // mfpc, ibf (at most two a face), ipf, iface and ipbf, in 4-byte integers; in floating point, where
  // a hostile product cannot wrap.
  const double workbytes =
      4.0 * (static_cast<double>(e.cells) * (1.0 + e.slots) + 2.0 * static_cast<double>(g.ifcell.extent(2)) +
             2.0 * static_cast<double>(e.nodes));
  const double gridbytes = 8.0 * static_cast<double>(g.x.size() + (values ? values->size() : 0)) +
                           4.0 * static_cast<double>(g.npf.size() + g.ifnode.size() + g.ifcell.size());
  const double allowed = 64.0 * 1024 * 1024 + 16.0 * gridbytes;
  if (workbytes > allowed)
    refuse("the work arrays for " + std::to_string(e.cells) + " cells of up to " + std::to_string(e.slots) +
           " faces would take " + std::to_string(static_cast<long long>(workbytes)) +
           " bytes, more than the 64 MiB and 16 times the grid's " +
           std::to_string(static_cast<long long>(gridbytes)) + " bytes that an export may take");
  return e;
}

}  // namespace

messagesink messagesto(std::FILE* f) {
  if (f == nullptr) return {};
  return [f](std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), f);
    std::fputc('\n', f);
    std::fflush(f);
  };
}

std::int64_t writetecplot(const std::string& file, const grid& g, const farray<double, 2>* values,
                          const tecplotoptions& options) {
  const extent e = checkzones(g, values, options.zone);
  const bool one = options.zone > 0;
  const int nzones = e.last - e.first + 1;

  // The arguments of writetecplotfile: the counts of the zones exported, one zone's nodes and faces
  // copied out of the grid, and always a copy of ifcell, which the export consumes.
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz;
  for (auto* a : {&nptsz, &nfacesz, &ncellsz, &mnpfz, &mfpcz}) allocate(*a, "the zone counts", nzones);
  index_t node0 = 0, face0 = 0, lastface = 0;
  for (int k = 0; k < e.first; ++k) {
    node0 += g.zones[static_cast<std::size_t>(k)].nodes;
    face0 += g.zones[static_cast<std::size_t>(k)].faces;
  }
  for (int iz = 1; iz <= nzones; ++iz) {
    const zonecounts& z = g.zones[static_cast<std::size_t>(e.first + iz - 1)];
    lastface += z.faces;
    nptsz(iz) = z.nodes, ncellsz(iz) = z.cells, mnpfz(iz) = z.mnpf, mfpcz(iz) = z.mfpc;
    nfacesz(iz) = static_cast<int>(one ? z.faces : lastface);  // the highest face the zone scans
  }

  const index_t nodes = one ? e.lastnode - node0 : e.lastnode;
  const index_t faces = one ? e.lastface - face0 : g.ifcell.extent(2);
  farray<double, 2> xone, qnode;
  farray<int, 1> npfone;
  farray<int, 2> ifnodeone, ifcell;
  const index_t slots = g.ifnode.extent(1);
  allocate(ifcell, "a copy of ifcell", 2, faces);
  for (index_t f = 1; f <= faces; ++f)
    ifcell(1, f) = g.ifcell(1, face0 + f), ifcell(2, f) = g.ifcell(2, face0 + f);
  if (one) {
    allocate(xone, "a copy of the zone's coordinates", g.ndim, nodes);
    for (index_t n = 1; n <= nodes; ++n)
      for (int d = 1; d <= g.ndim; ++d) xone(d, n) = g.x(d, node0 + n);
    allocate(npfone, "a copy of the zone's faces", faces);
    allocate(ifnodeone, "a copy of the zone's faces", slots, faces);
    for (index_t f = 1; f <= faces; ++f) {
      npfone(f) = g.npf(face0 + f);
      for (index_t s = 1; s <= slots; ++s) ifnodeone(s, f) = g.ifnode(s, face0 + f);
    }
  }
  if (one || values == nullptr) {
    allocate(qnode, "the node values", tecplotvalues, nodes);
    for (index_t n = 1; n <= nodes; ++n)
      for (int v = 1; v <= tecplotvalues; ++v)
        qnode(v, n) = values != nullptr ? (*values)(v, node0 + n) : 0.0;
  }

  typedexport run(options.messages, options.zone);
  run.start(mnpfz);
  // An open, write or close that fails throws the unit's I/O error.
  run.file().openfile(file, io::form::formatted, true);
  run.file().beginwrite();  // the file holds this export alone, even one without zones
  run.zones(g.ndim, nzones, one ? xone : g.x, nptsz, nfacesz, ncellsz, mfpcz, one ? npfone : g.npf,
            one ? ifnodeone : g.ifnode, ifcell, qnode.allocated() ? qnode : *values);
  run.file().closefile();
  return run.finish();
}

}  // namespace zelm
