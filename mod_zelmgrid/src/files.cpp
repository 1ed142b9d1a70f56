// Typed, zone-exact access to the three file kinds, over standalone units and the record layouts
// the routines use. Every call owns its unit, its buffer and its error text.
#include "zelmgrid/files.hpp"

#include <algorithm>
#include <string>

#include "layouts.hpp"
#include "records.hpp"

namespace zelm {

namespace io = mod_zelmgrid::io;
namespace layout = mod_zelmgrid::layout;
using io::rstat;

namespace {

// Products of counts from a file, which may exceed 64 bits.
__extension__ using big = __int128;

io::form formof(encoding e) {
  return e == encoding::formatted ? io::form::formatted
         : e == encoding::binary  ? io::form::binary
                                  : io::form::unformatted;
}

// Counts with thousands separated, for messages about counts a reader takes in at a glance.
std::string num(big v) {
  std::string s = std::to_string(static_cast<long long>(v < 0 ? -v : v));
  for (int i = static_cast<int>(s.size()) - 3; i > 0; i -= 3) s.insert(static_cast<std::size_t>(i), ",");
  return (v < 0 ? "-" : "") + s;
}

// One file of the typed interface: its unit, its encoding, and the checks that counts read from it
// are what it can hold. Reals are held as 8-byte values; on disk they are `wide` (8 bytes) or not,
// and in text they are read and written with 17 or 9 significant digits alike.
class typedfile {
 public:
  typedfile(const std::string& name, format f, bool create)
      : text(f.enc == encoding::formatted), wide(f.dblprec), framed(f.enc == encoding::unformatted) {
    u.openfile(name, formof(f.enc), create);
    if (!create) size = u.remaining();
  }

  io::unit u{-1};
  const bool text, wide, framed;
  std::int64_t size = 0;  // of a file opened for reading

  // Values in the file's width; header reals keep all their digits in text.
  io::reals values(double* p, index_t n, index_t stride = 1) const { return {p, n, stride, !wide}; }
  io::creals values(const double* p, index_t n, index_t stride = 1) const { return {p, n, stride, !wide}; }
  io::reals header(double& d) const { return {&d, 1, 1, !text && !wide}; }
  io::creals header(const double& d) const { return {&d, 1, 1, !text && !wide}; }
  std::int64_t realbytes() const { return text ? 2 : wide ? 8 : 4; }  // least bytes of one value
  std::int64_t markers() const { return framed ? 8 : 0; }

  template <class... Items>
  void read(Items&&... its) {
    check(io::read(u, text, its...));
  }
  template <class... Items>
  void write(const Items&... its) {
    io::write(u, text, its...);
  }
  void check(rstat st) const {
    if (st != rstat::ok) u.throwreaderror();
  }
  [[noreturn]] void invalid(const std::string& why) {
    io::detail::setreaderror(u, rstat::error, u.position(), why);
    u.throwreaderror();
  }

  // Counts are proven before memory is spent on them: `records` more records of at least `least`
  // bytes each must fit in what is left of the file (a text record takes a line of two
  // characters, the last one one), and the arrays they fill may take at most 64 MiB and 16 bytes
  // for each byte of the file.
  void prove(const std::string& what, big records, std::int64_t least, big arraybytes) {
    const big left = u.remaining();
    if (records > 0 && records * least > left + (text ? 1 : 0))
      invalid(what + " claim " + num(records) + " records of at least " + num(least) + " bytes; the " +
              num(left) + " bytes left in the file hold at most " +
              num(least > 0 ? (left + (text ? 1 : 0)) / least : 0) +
              ": the file is shorter than its counts say (truncated, or the counts are wrong)");
    const big budget = (big{64} << 20) + 16 * static_cast<big>(size);
    if (arraybytes > budget)
      invalid(what + " ask for " + num(arraybytes) + " bytes of arrays; a file of " + num(size) +
              " bytes may take at most " + num(budget));
  }
  template <class T, int R, class... N>
  void allocate(farray<T, R>& a, const char* what, N... n) {
    if (a.allocate(n...) != 0) invalid(std::string("cannot allocate ") + what + ": out of memory");
  }
  void nomore(const char* after) {
    if (!text && u.remaining() > 0) invalid(num(u.remaining()) + " bytes follow the last " + after);
  }
};

index_t total(const std::vector<int>& counts) {
  index_t t = 0;
  for (int c : counts) {
    if (c < 0) throw error("negative count " + std::to_string(c) + " in the zone counts");
    t += c;
  }
  return t;
}

// The values of one variable, zone after zone, row `v` of `a`: one record a zone.
void readvariable(typedfile& tf, farray<double, 2>& a, index_t v, const std::vector<int>& perzone) {
  index_t at = 0;
  for (std::size_t z = 0; z < perzone.size(); ++z) {
    tf.u.context = {"variable", v, "zone", static_cast<index_t>(z + 1)};
    const index_t n = perzone[z];
    tf.read(tf.values(n > 0 ? &a(v, at + 1) : a.data(), n, a.extent(1)));
    at += n;
  }
}
void writevariable(typedfile& tf, const farray<double, 2>& a, index_t v, const std::vector<int>& perzone) {
  index_t at = 0;
  for (const int n : perzone) {
    tf.write(tf.values(n > 0 ? &a(v, at + 1) : a.data(), n, a.extent(1)));
    at += n;
  }
}

}  // namespace

const char* encodingname(encoding e) {
  return io::formname(formof(e));
}

index_t grid::totalnodes() const {
  index_t t = 0;
  for (const auto& z : zones) t += z.nodes;
  return t;
}
index_t grid::totalfaces() const {
  index_t t = 0;
  for (const auto& z : zones) t += z.faces;
  return t;
}
index_t grid::totalcells() const {
  index_t t = 0;
  for (const auto& z : zones) t += z.cells;
  return t;
}
std::vector<int> grid::nodesperzone() const {
  std::vector<int> v;
  for (const auto& z : zones) v.push_back(z.nodes);
  return v;
}
std::vector<int> grid::cellsperzone() const {
  std::vector<int> v;
  for (const auto& z : zones) v.push_back(z.cells);
  return v;
}

// ---- grid -------------------------------------------------------------------------------------

namespace {

// The header and the zone counts. All counts are read as one statement: text written one zone a
// line and text written as one record both read, since a statement reads on across lines.
grid readcounts(typedfile& tf) {
  grid g;
  int nzones = 0;
  tf.u.context = {"grid header"};
  tf.check(io::readwith(tf.u, tf.text, [&](auto& s) { layout::gridheader(s, g.ndim, nzones, g.aux); }));
  if (g.ndim < 0 || g.ndim > 3) tf.invalid("ndim = " + std::to_string(g.ndim) + " is not 0 to 3");
  if (nzones < 0) tf.invalid("nzones = " + std::to_string(nzones) + " is negative");
  tf.u.context = {"zone counts"};
  tf.prove("the " + num(nzones) + " zones' counts", tf.text ? 0 : 1, 20LL * nzones,
           static_cast<big>(nzones) * sizeof(zonecounts));
  g.zones.resize(static_cast<std::size_t>(nzones));
  tf.check(io::readwith(tf.u, tf.text, [&](auto& s) {
    for (auto& z : g.zones) layout::zonecounts(s, z.nodes, z.faces, z.cells, z.mnpf, z.mfpc);
  }));
  for (const auto& z : g.zones)
    if (z.nodes < 0 || z.faces < 0 || z.cells < 0) tf.invalid("negative count in the zone counts");
  return g;
}

}  // namespace

grid readgridheader(const std::string& file, format f) {
  typedfile tf(file, f, false);
  return readcounts(tf);
}

grid readgrid(const std::string& file, format f) {
  typedfile tf(file, f, false);
  grid g = readcounts(tf);
  int width = 0;
  for (const auto& z : g.zones) width = std::max(width, z.mnpf);
  const index_t nodes = g.totalnodes(), faces = g.totalfaces();
  // A node record of a binary file without coordinates takes no bytes: nothing to read or store.
  const std::int64_t noderecord = tf.text ? (g.ndim > 0 ? 2 : 1) : tf.markers() + g.ndim * (tf.wide ? 8 : 4);
  const std::int64_t facerecord = tf.text ? 2 : tf.markers() + 12;
  tf.prove("the zone counts' " + num(nodes) + " nodes", nodes, noderecord, 0);
  tf.prove("the zone counts' " + num(faces) + " faces", faces, facerecord,
           static_cast<big>(nodes) * g.ndim * 8 + static_cast<big>(faces) * (12 + 4 * width));
  tf.allocate(g.x, "the coordinates", g.ndim, nodes);
  tf.allocate(g.npf, "the face node counts", faces);
  tf.allocate(g.ifnode, "the face nodes", width, faces);
  tf.allocate(g.ifcell, "the face cells", 2, faces);
  index_t node = 0, face = 0;
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    const auto& z = g.zones[k];
    const auto zone = static_cast<index_t>(k + 1);
    index_t i = noderecord == 0 ? z.nodes : 0;
    if (!tf.text && tf.wide) i = io::readfixed(tf.u, g.x.data() + node * g.ndim, g.ndim, g.ndim, i, z.nodes);
    for (; i < z.nodes; ++i) {
      tf.u.context = {"zone", zone, "node", i + 1};
      tf.read(tf.values(g.x.data() + (node + i) * g.ndim, g.ndim));
    }
    node += z.nodes;
    index_t j = tf.text ? face
                        : io::readfaces(tf.u, g.npf.data(), g.ifnode.data(), width, g.ifcell.data(), 2,
                                        face + 1, face + z.faces + 1) -
                              1;
    for (; j < face + z.faces; ++j) {
      tf.u.context = {"zone", zone, "face", j - face + 1};
      const io::lazyseq<int> nodelist{g.ifnode.data() + j * width, &g.npf(j + 1), width};
      tf.check(io::readwith(tf.u, tf.text, [&](auto& s) {
        layout::face(s, g.npf(j + 1), nodelist, g.ifcell(1, j + 1), g.ifcell(2, j + 1));
      }));
    }
    face += z.faces;
  }
  tf.nomore("zone");
  return g;
}

void writegrid(const std::string& file, format f, const grid& g) {
  const index_t width = g.ifnode.extent(1);
  for (index_t fc = 1; fc <= g.totalfaces(); ++fc)
    if (g.npf(fc) > width) throw error("face " + std::to_string(fc) + " has more nodes than ifnode holds");
  typedfile tf(file, f, true);
  const int nzones = static_cast<int>(g.zones.size());
  io::writewith(tf.u, tf.text, [&](auto& s) { layout::gridheader(s, g.ndim, nzones, g.aux); });
  // The zones' counts: one record, and in text one line a zone, which every reader of the family
  // takes (a reader of one zone a statement as well as one that reads all in one).
  const auto counts = [&](auto& s, const zonecounts& z) {
    layout::zonecounts(s, z.nodes, z.faces, z.cells, z.mnpf, z.mfpc);
  };
  if (tf.text)
    for (const auto& z : g.zones) io::writewith(tf.u, true, [&](auto& s) { counts(s, z); });
  else
    io::writewith(tf.u, false, [&](auto& s) {
      for (const auto& z : g.zones) counts(s, z);
    });
  const index_t rows = g.x.extent(1);
  index_t node = 0, face = 1;
  for (const auto& z : g.zones) {
    if (!tf.text && tf.wide)
      io::writefixed(tf.u, g.x.data() + node * rows, rows, g.ndim, z.nodes);
    else
      for (index_t i = 0; i < z.nodes; ++i) tf.write(tf.values(g.x.data() + (node + i) * rows, g.ndim));
    node += z.nodes;
    for (index_t i = 0; i < z.faces; ++i, ++face) {
      const int* nodes = g.ifnode.data() + (face - 1) * width;
      if (tf.text)
        io::writewith(tf.u, true, [&](auto& s) {
          layout::face(s, g.npf(face), io::items(nodes, g.npf(face)), g.ifcell(1, face), g.ifcell(2, face));
        });
      else
        io::writeface(tf.u, g.npf(face), nodes, &g.ifcell(1, face));
    }
  }
  tf.u.closefile();
}

// ---- restart ----------------------------------------------------------------------------------

restart readrestart(const std::string& file, format f, const std::vector<int>& cellsperzone, int nvar) {
  typedfile tf(file, f, false);
  const index_t ncells = total(cellsperzone);
  restart r;
  io::reals h[6] = {tf.header(r.dtime), tf.header(r.dgamma), tf.header(r.drgas),
                    tf.header(r.dr0),   tf.header(r.drm0),   tf.header(r.dp0)};
  tf.check(layout::readrestartheader(tf.u, tf.text, h[0], r.lastcyc, r.rstype, h[1], h[2], h[3], h[4], h[5]));
  nvar = std::max(nvar, 0);
  tf.u.context = {"variable", 1};
  const big records = static_cast<big>(nvar) * static_cast<big>(cellsperzone.size());
  tf.prove("the grid's " + num(ncells) + " cells and " + num(nvar) + " variables", tf.text ? 0 : records,
           tf.markers(), static_cast<big>(nvar) * ncells * 8);
  if (!tf.text)
    tf.prove("the values of " + num(nvar) + " variables", static_cast<big>(nvar) * ncells, tf.realbytes(), 0);
  tf.allocate(r.q, "the solution", nvar, ncells);
  for (int v = 1; v <= nvar; ++v) readvariable(tf, r.q, v, cellsperzone);
  tf.nomore("variable");
  return r;
}

void writerestart(const std::string& file, format f, const restart& r, const std::vector<int>& cellsperzone) {
  const index_t ncells = total(cellsperzone);
  if (r.q.extent(2) < ncells) throw error("the solution holds fewer cells than the zones");
  typedfile tf(file, f, true);
  const io::creals h[6] = {tf.header(r.dtime), tf.header(r.dgamma), tf.header(r.drgas),
                           tf.header(r.dr0),   tf.header(r.drm0),   tf.header(r.dp0)};
  layout::writerestartheader(tf.u, tf.text, h[0], r.lastcyc, r.rstype, h[1], h[2], h[3], h[4], h[5]);
  for (index_t v = 1; v <= r.q.extent(1); ++v) writevariable(tf, r.q, v, cellsperzone);
  tf.u.closefile();
}

// ---- pix --------------------------------------------------------------------------------------

pix readpix(const std::string& file, format f, const std::vector<int>& nodesperzone) {
  typedfile tf(file, f, false);
  const index_t nnodes = total(nodesperzone);
  pix p;
  io::reals h[6] = {tf.header(p.dvar), tf.header(p.dgamma), tf.header(p.drgas),
                    tf.header(p.dr0),  tf.header(p.drm0),   tf.header(p.dp0)};
  fortran::char25 t;
  tf.check(layout::readpixheader(tf.u, tf.text, h, t));
  p.text = std::string(t.view());
  const auto zones = static_cast<big>(nodesperzone.size());
  tf.u.context = {"variable", 1};
  tf.prove("the grid's " + num(nnodes) + " nodes", tf.text ? 0 : 6 * zones, tf.markers(),
           static_cast<big>(6) * nnodes * 8);
  if (!tf.text)
    tf.prove("the values of the six fixed variables", 6 * static_cast<big>(nnodes), tf.realbytes(), 0);
  farray<double, 2> fixed;
  tf.allocate(fixed, "the node values", 6, nnodes);
  for (int v = 1; v <= 6; ++v) readvariable(tf, fixed, v, nodesperzone);
  // The free-variable count is optional: a file that ends after the fixed variables has none, and
  // one whose count record cannot be read is taken as ending there, as the routine takes it.
  const bool more = tf.text ? [&] {
    while (tf.u.fill(1)) {  // only blanks may follow a file without free variables
      const char c = *tf.u.rp();
      if (c != ' ' && c != '\n' && c != '\r' && c != '\t') return true;
      tf.u.consume(1);
    }
    return false;
  }()
                            : tf.u.remaining() > 0;
  int nfree = 0;
  tf.u.context = {"free-variable count"};
  p.hasfreecount = more && io::read(tf.u, tf.text, nfree) == rstat::ok;
  if (!p.hasfreecount) {
    p.values = std::move(fixed);
    return p;
  }
  if (nfree < 0) tf.invalid("negative free-variable count " + std::to_string(nfree));
  tf.prove("the free-variable count", nfree, tf.text ? 1 : 25 + tf.markers(),
           (6 + static_cast<big>(nfree)) * nnodes * 8);
  for (int k = 1; k <= nfree; ++k) {
    tf.u.context = {"label", k};
    tf.check(io::readtext(tf.u, tf.text, t));
    p.labels.emplace_back(t.view());
  }
  tf.u.context = {"variable", 7};
  if (!tf.text)
    tf.prove("the values of " + num(nfree) + " free variables", static_cast<big>(nfree) * nnodes,
             tf.realbytes(), 0);
  tf.allocate(p.values, "the node values", 6 + nfree, nnodes);
  for (index_t n = 1; n <= nnodes; ++n)
    for (index_t v = 1; v <= 6; ++v) p.values(v, n) = fixed(v, n);
  fixed.deallocate();
  for (int v = 7; v <= 6 + nfree; ++v) readvariable(tf, p.values, v, nodesperzone);
  tf.nomore("variable");
  return p;
}

void writepix(const std::string& file, format f, const pix& p, const std::vector<int>& nodesperzone) {
  const index_t nnodes = total(nodesperzone);
  const auto nvar = static_cast<index_t>(6 + p.labels.size());
  if (p.values.extent(1) < nvar || p.values.extent(2) < nnodes)
    throw error("the node values hold fewer variables or nodes than the file needs");
  typedfile tf(file, f, true);
  const io::creals h[6] = {tf.header(p.dvar), tf.header(p.dgamma), tf.header(p.drgas),
                           tf.header(p.dr0),  tf.header(p.drm0),   tf.header(p.dp0)};
  layout::writepixheader(tf.u, tf.text, h, fortran::char25(p.text));
  for (index_t v = 1; v <= 6; ++v) writevariable(tf, p.values, v, nodesperzone);
  if (!p.labels.empty() || p.hasfreecount) {
    tf.write(static_cast<int>(p.labels.size()));
    for (const auto& l : p.labels) io::writetext(tf.u, tf.text, fortran::char25(l));
    for (index_t v = 7; v <= nvar; ++v) writevariable(tf, p.values, v, nodesperzone);
  }
  tf.u.closefile();
}

}  // namespace zelm
