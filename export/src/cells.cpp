// Cells rebuilt from the faces of a grid file. A face record names its nodes and the two cells on
// its sides; a cell is only the set of faces that name it. Each cell's faces are checked to close
// (every edge shared by exactly two faces, one surface), oriented consistently and outward (the
// side a face names the cell on gives the first guess, the sign of the enclosed volume the last
// word, since files do not agree on a convention), and matched against VTK's linear shapes.
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <numeric>
#include <string>

#include "zelmgrid/export.hpp"

namespace zelm {

namespace {

constexpr int reportedcells = 8;  // cells left out that the report names

std::string str(std::int64_t v) {
  return std::to_string(v);
}

// Zone starts of nodes, faces and cells in the grid's arrays.
struct layout {
  std::vector<std::int64_t> node0, face0, cell0;  // nzones + 1 entries each
  std::int64_t nodes = 0, faces = 0, cells = 0;

  static int zoneof(const std::vector<std::int64_t>& starts, std::int64_t i) {
    return static_cast<int>(std::upper_bound(starts.begin(), starts.end(), i) - starts.begin()) - 1;
  }
  int zoneofcell(std::int64_t c) const { return zoneof(cell0, c); }
  int zoneofface(std::int64_t f) const { return zoneof(face0, f); }
};

layout checkcounts(const grid& g) {
  if (g.ndim != 2 && g.ndim != 3)
    throw error("the export takes 2D or 3D grids; this grid has ndim " + std::to_string(g.ndim));
  layout l;
  l.node0.push_back(0), l.face0.push_back(0), l.cell0.push_back(0);
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    const auto& z = g.zones[k];
    if (z.nodes < 0 || z.faces < 0 || z.cells < 0)
      throw error("zone " + std::to_string(k + 1) + " has a negative count");
    l.nodes += z.nodes, l.faces += z.faces, l.cells += z.cells;
    l.node0.push_back(l.nodes), l.face0.push_back(l.faces), l.cell0.push_back(l.cells);
  }
  if (g.x.extent(1) != g.ndim || g.x.extent(2) != l.nodes)
    throw error("the coordinates hold " + str(g.x.extent(2)) + " nodes; the zones count " + str(l.nodes));
  if (g.npf.extent(1) != l.faces || g.ifnode.extent(2) != l.faces || g.ifcell.extent(2) != l.faces ||
      g.ifcell.extent(1) != 2)
    throw error("the face arrays hold " + str(g.npf.extent(1)) + " faces; the zones count " + str(l.faces));
  // Every cell needs a face; a count beyond two per face cannot be true and would only cost memory.
  if (l.cells > 2 * l.faces)
    throw error("the zones count " + str(l.cells) + " cells, more than the " + str(l.faces) +
                " faces can bound");
  return l;
}

// Scores each numbering by how many references of zones 2 .. n fall where it expects them.
numbering detectnumbering(const grid& g, const layout& l, std::string& evidence) {
  if (g.zones.size() <= 1) {
    evidence = "one zone: numbers within the zone and across the grid are the same";
    return numbering::withinzone;
  }
  std::int64_t within = 0, across = 0, refs = 0;
  const std::int64_t width = g.ifnode.extent(1);
  for (std::size_t k = 1; k < g.zones.size(); ++k) {
    const std::int64_t nn = g.zones[k].nodes, nc = g.zones[k].cells;
    for (std::int64_t f = l.face0[k]; f < l.face0[k + 1]; ++f) {
      const std::int64_t n = std::clamp<std::int64_t>(g.npf.data()[f], 0, width);
      for (std::int64_t i = 0; i < n; ++i) {
        const std::int64_t v = g.ifnode.data()[f * width + i];
        within += v >= 1 && v <= nn;
        across += v > l.node0[k] && v <= l.node0[k] + nn;
        ++refs;
      }
      for (int s = 0; s < 2; ++s) {
        const std::int64_t c = g.ifcell.data()[f * 2 + s];
        if (c <= 0) continue;
        within += c <= nc;
        across += c > l.cell0[k] && c <= l.cell0[k] + nc;
        ++refs;
      }
    }
  }
  const numbering n = across > within ? numbering::acrossgrid : numbering::withinzone;
  evidence = "of " + str(refs) + " node and cell numbers in the faces of zones 2.." +
             std::to_string(g.zones.size()) + ", " + str(within) + " fit numbering within each zone and " +
             str(across) + " numbering across the grid";
  return n;
}

struct vec3 {
  double x = 0, y = 0, z = 0;
};
vec3 operator-(vec3 a, vec3 b) {
  return {a.x - b.x, a.y - b.y, a.z - b.z};
}
vec3 cross(vec3 a, vec3 b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
double dot(vec3 a, vec3 b) {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}

// VTK's faces of each recognised solid, by point position in the cell.
struct shape {
  vtktype type;
  int points;
  std::vector<std::vector<int>> faces;
};
const shape tetra{vtk_tetra, 4, {{0, 1, 3}, {1, 2, 3}, {2, 0, 3}, {0, 2, 1}}};
const shape pyramid{vtk_pyramid, 5, {{0, 3, 2, 1}, {0, 1, 4}, {1, 2, 4}, {2, 3, 4}, {3, 0, 4}}};
const shape wedge{vtk_wedge, 6, {{0, 1, 2}, {3, 5, 4}, {0, 3, 4, 1}, {1, 4, 5, 2}, {2, 5, 3, 0}}};
const shape hexahedron{
    vtk_hexahedron, 8, {{0, 4, 7, 3}, {1, 2, 6, 5}, {0, 1, 5, 4}, {3, 7, 6, 2}, {0, 3, 2, 1}, {4, 5, 6, 7}}};

// A face of at most four nodes as a cyclic sequence written from its smallest node in the direction
// of the smaller neighbour, padded with -1: the same polygon compares equal whatever its start and
// direction.
using smallface = std::array<std::int64_t, 4>;
smallface canonical(const std::int64_t* f, std::size_t n) {
  smallface c{-1, -1, -1, -1};
  const std::size_t m = static_cast<std::size_t>(std::min_element(f, f + n) - f);
  const bool back = n > 2 && f[(m + n - 1) % n] < f[(m + 1) % n];
  for (std::size_t i = 0; i < n; ++i) c[i] = f[(m + (back ? n - i : i)) % n];
  return c;
}

// Builds the cells of one grid; one instance holds the reusable work space of a cell.
class builder {
 public:
  builder(const grid& g, const layout& l, numbering num, bool strict, mesh& m)
      : g_(g), l_(l), num_(num), strict_(strict), m_(m), width_(g.ifnode.extent(1)) {}

  void run();

 private:
  struct halfedge {
    std::int64_t lo, hi;
    std::int32_t face;
    bool forward;  // walked lo -> hi by the face as first oriented
  };

  int zoneofface(std::int64_t f) const { return l_.zoneofface(f); }
  std::int64_t facenode(std::int64_t f, std::int64_t i) const { return g_.ifnode.data()[f * width_ + i]; }
  std::string nodename(std::int64_t v) const;  // a grid node as the files number it
  void resolvefaces();
  void leaveout(std::int64_t cell, const std::string& why);
  bool buildcell(std::int64_t cell, std::string& why);
  bool buildpolygon(std::string& why);
  bool buildsolid(std::string& why);
  bool matches(const shape& s, const std::array<std::int64_t, 8>& p) const;
  std::int64_t point(piece& pc, std::int64_t v);
  void addcell(piece& pc, std::int64_t cell);
  void emit(piece& pc, std::int64_t cell);
  void buildboundaries();

  const grid& g_;
  const layout& l_;
  numbering num_;
  bool strict_;
  mesh& m_;
  std::int64_t width_;

  std::vector<std::int64_t> facestart_, faceentry_;  // cell -> its faces (face * 2 + side)
  std::vector<std::uint8_t> facebad_;                // a face with a node that does not exist
  std::vector<std::int64_t> local_;                  // grid node -> point of the current piece

  // The cell being built: its faces oriented by the side they name it on, then outward.
  std::vector<std::int64_t> cfaces_, cstart_;  // nodes (grid numbers), start of each face
  std::vector<std::int32_t> cface_;            // the grid face of each
  std::vector<std::uint8_t> cside_, cflip_;
  std::vector<halfedge> edges_;
  std::vector<std::int32_t> adjstart_, adj_, queue_;
  std::vector<std::uint8_t> seen_;
  std::vector<std::int64_t> cnodes_;
  std::vector<std::pair<std::int64_t, std::int32_t>> ends_;  // (node, edge) of a polygon
  // What the cell becomes.
  vtktype ctype_ = vtk_polyhedron;
  std::vector<std::int64_t> cconn_;
};

std::string builder::nodename(std::int64_t v) const {
  if (num_ == numbering::acrossgrid) return str(v + 1);
  return str(v - l_.node0[static_cast<std::size_t>(layout::zoneof(l_.node0, v))] + 1);
}

// Turns the face records' numbers into grid indices and links every cell to its faces.
void builder::resolvefaces() {
  const std::int64_t nf = l_.faces;
  m_.side1.assign(static_cast<std::size_t>(nf), -1);
  m_.side2.assign(static_cast<std::size_t>(nf), -1);
  m_.code.assign(static_cast<std::size_t>(nf), 0);
  m_.outward.assign(static_cast<std::size_t>(nf), 0);
  facebad_.assign(static_cast<std::size_t>(nf), 0);
  facestart_.assign(static_cast<std::size_t>(l_.cells + 1), 0);
  std::int64_t outofrange = 0;
  std::string firstoutofrange;
  const bool within = num_ == numbering::withinzone;
  for (std::size_t k = 0; k < g_.zones.size(); ++k) {
    const std::int64_t nodecount = within ? g_.zones[k].nodes : l_.nodes;
    const std::int64_t cellbase = within ? l_.cell0[k] : 0, cellcount = within ? g_.zones[k].cells : l_.cells;
    for (std::int64_t f = l_.face0[k]; f < l_.face0[k + 1]; ++f) {
      const std::int64_t n = g_.npf.data()[f];
      bool bad = n < 2 || n > width_;
      for (std::int64_t i = 0; !bad && i < n; ++i) {
        const std::int64_t v = facenode(f, i);
        bad = v < 1 || v > nodecount;
      }
      facebad_[static_cast<std::size_t>(f)] = bad;
      for (int s = 0; s < 2; ++s) {
        const std::int64_t c = g_.ifcell.data()[f * 2 + s];
        if (c < 0 && m_.code[static_cast<std::size_t>(f)] == 0)
          m_.code[static_cast<std::size_t>(f)] = static_cast<int>(c);
        if (c <= 0) continue;
        if (c > cellcount) {
          if (outofrange++ == 0)
            firstoutofrange = "zone " + std::to_string(k + 1) + " face " + str(f - l_.face0[k] + 1) +
                              " names cell " + str(c) + " of " + str(cellcount);
          continue;
        }
        (s == 0 ? m_.side1 : m_.side2)[static_cast<std::size_t>(f)] = cellbase + c - 1;
        ++facestart_[static_cast<std::size_t>(cellbase + c)];
      }
    }
  }
  if (outofrange > 0) {
    if (strict_) throw error("a face names a cell that does not exist: " + firstoutofrange);
    m_.notes.push_back(str(outofrange) + " face side(s) name a cell that does not exist (first: " +
                       firstoutofrange + "); those sides are left without a cell");
  }
  std::partial_sum(facestart_.begin(), facestart_.end(), facestart_.begin());
  faceentry_.assign(static_cast<std::size_t>(facestart_.back()), 0);
  std::vector<std::int64_t> fill(facestart_.begin(), facestart_.end() - 1);
  for (std::int64_t f = 0; f < nf; ++f) {
    const std::int64_t sides[2] = {m_.side1[static_cast<std::size_t>(f)],
                                   m_.side2[static_cast<std::size_t>(f)]};
    for (int s = 0; s < 2; ++s)
      if (sides[s] >= 0)
        faceentry_[static_cast<std::size_t>(fill[static_cast<std::size_t>(sides[s])]++)] = f * 2 + s;
  }
}

void builder::leaveout(std::int64_t cell, const std::string& why) {
  const int k = l_.zoneofcell(cell);
  const std::int64_t number =
      num_ == numbering::withinzone ? cell - l_.cell0[static_cast<std::size_t>(k)] + 1 : cell + 1;
  if (strict_)
    throw error("zone " + std::to_string(k + 1) + " cell " + str(number) + " cannot be exported: " + why);
  ++m_.leftout;
  if (m_.firstleftout.size() < reportedcells) m_.firstleftout.push_back({k + 1, number, why});
}

// Gathers the cell's faces, each oriented as the side it names the cell on suggests (side 1 as
// stored, side 2 reversed), then builds a polygon (2D) or a solid (3D).
bool builder::buildcell(std::int64_t cell, std::string& why) {
  cfaces_.clear(), cstart_.clear(), cface_.clear(), cside_.clear();
  const std::int64_t b = facestart_[static_cast<std::size_t>(cell)],
                     e = facestart_[static_cast<std::size_t>(cell + 1)];
  const std::int64_t minfaces = g_.ndim == 2 ? 3 : 4;
  if (e - b < minfaces) {
    why = e == b ? "no face names it" : "only " + str(e - b) + " face(s) name it: it is open";
    return false;
  }
  for (std::int64_t i = b; i < e; ++i) {
    const std::int64_t f = faceentry_[static_cast<std::size_t>(i)] / 2;
    const int s = static_cast<int>(faceentry_[static_cast<std::size_t>(i)] % 2);
    const std::int64_t n = g_.npf.data()[f];
    const int k = zoneofface(f);
    const auto facename = [&] { return "face " + str(f - l_.face0[static_cast<std::size_t>(k)] + 1); };
    if (facebad_[static_cast<std::size_t>(f)]) {
      why = facename() + " names a node that does not exist";
      return false;
    }
    if (g_.ndim == 2 ? n != 2 : n < 3) {
      why = facename() + " has " + str(n) + " node(s)";
      return false;
    }
    if (i > b && cface_.back() == f) {
      why = facename() + " names it on both sides";
      return false;
    }
    cstart_.push_back(static_cast<std::int64_t>(cfaces_.size()));
    cface_.push_back(static_cast<std::int32_t>(f));
    cside_.push_back(static_cast<std::uint8_t>(s));
    const std::int64_t base = num_ == numbering::withinzone ? l_.node0[static_cast<std::size_t>(k)] : 0;
    for (std::int64_t j = 0; j < n; ++j) cfaces_.push_back(base + facenode(f, s == 0 ? j : n - 1 - j) - 1);
  }
  cstart_.push_back(static_cast<std::int64_t>(cfaces_.size()));
  cflip_.assign(cface_.size(), 0);
  return g_.ndim == 2 ? buildpolygon(why) : buildsolid(why);
}

double coord(const grid& g, std::int64_t v, int d) {
  return d < g.ndim ? g.x.data()[v * g.ndim + d] : 0.0;
}

// 2D: the edges must form one loop; it is walked counter-clockwise.
bool builder::buildpolygon(std::string& why) {
  const std::size_t ne = cface_.size();
  // Each node must end exactly two edges: sorted (node, edge) ends come in pairs.
  ends_.clear();
  for (std::size_t j = 0; j < 2 * ne; ++j) ends_.push_back({cfaces_[j], static_cast<std::int32_t>(j / 2)});
  std::sort(ends_.begin(), ends_.end());
  for (std::size_t i = 0; i < ends_.size(); i += 2) {
    const bool two = i + 1 < ends_.size() && ends_[i + 1].first == ends_[i].first;
    if (!two || (i + 2 < ends_.size() && ends_[i + 2].first == ends_[i].first)) {
      why = "its edges do not close around it (node " + nodename(ends_[i].first) + " ends " +
            (two ? "more than two" : "only one") + " of them)";
      return false;
    }
  }
  // Walk the loop from edge 0: at each node the other edge ending there leads on.
  const auto other = [&](std::int64_t node, std::int32_t edge) {
    const auto it =
        std::lower_bound(ends_.begin(), ends_.end(), std::pair<std::int64_t, std::int32_t>{node, -1});
    return it->second == edge ? (it + 1)->second : it->second;
  };
  std::vector<std::uint8_t>& reversed = cflip_;  // walked against its first orientation
  cconn_.assign(1, cfaces_[0]);
  std::int64_t at = cfaces_[1];
  std::int32_t edge = 0;
  for (std::size_t step = 1; step < ne; ++step) {
    if (at == cconn_.front()) break;
    cconn_.push_back(at);
    edge = other(at, edge);
    reversed[static_cast<std::size_t>(edge)] = cfaces_[2 * static_cast<std::size_t>(edge)] != at;
    at = cfaces_[2 * static_cast<std::size_t>(edge) + (reversed[static_cast<std::size_t>(edge)] ? 0 : 1)];
  }
  if (at != cconn_.front() || cconn_.size() != ne) {
    why = "its edges form more than one loop";
    return false;
  }
  double area = 0, lo[2] = {1e300, 1e300}, hi[2] = {-1e300, -1e300};
  for (std::size_t i = 0; i < cconn_.size(); ++i) {
    const std::int64_t a = cconn_[i], c = cconn_[(i + 1) % cconn_.size()];
    area += coord(g_, a, 0) * coord(g_, c, 1) - coord(g_, c, 0) * coord(g_, a, 1);
    for (int d = 0; d < 2; ++d)
      lo[d] = std::min(lo[d], coord(g_, a, d)), hi[d] = std::max(hi[d], coord(g_, a, d));
  }
  const double size = std::max(hi[0] - lo[0], hi[1] - lo[1]);
  if (!(std::abs(area) > 1e-12 * size * size)) {
    why = "it has no area";
    return false;
  }
  // Counter-clockwise is out; a clockwise walk turns every edge round.
  if (area < 0) {
    std::reverse(cconn_.begin() + 1, cconn_.end());
    for (auto& r : reversed) r ^= 1;
  }
  ctype_ = ne == 3 ? vtk_triangle : ne == 4 ? vtk_quad : vtk_polygon;
  return true;
}

// 3D: the faces must close one surface; they are oriented alike (across each shared edge the two
// faces walk it in opposite directions) and then outward by the sign of the enclosed volume.
bool builder::buildsolid(std::string& why) {
  const std::size_t nf = cface_.size();
  edges_.clear();
  for (std::size_t i = 0; i < nf; ++i) {
    const std::int64_t b = cstart_[i], n = cstart_[i + 1] - b;
    for (std::int64_t j = 0; j < n; ++j) {
      const std::int64_t a = cfaces_[static_cast<std::size_t>(b + j)];
      const std::int64_t c = cfaces_[static_cast<std::size_t>(b + (j + 1) % n)];
      if (a == c) {
        why = "face " + str(cface_[i] - l_.face0[static_cast<std::size_t>(zoneofface(cface_[i]))] + 1) +
              " repeats node " + nodename(a);
        return false;
      }
      edges_.push_back({std::min(a, c), std::max(a, c), static_cast<std::int32_t>(i), a < c});
    }
  }
  std::sort(edges_.begin(), edges_.end(), [](const halfedge& x, const halfedge& y) {
    return x.lo != y.lo ? x.lo < y.lo : x.hi != y.hi ? x.hi < y.hi : x.face < y.face;
  });
  adjstart_.assign(nf + 1, 0);
  for (std::size_t i = 0; i < edges_.size(); i += 2) {
    const bool pair =
        i + 1 < edges_.size() && edges_[i + 1].lo == edges_[i].lo && edges_[i + 1].hi == edges_[i].hi;
    const bool more =
        pair && i + 2 < edges_.size() && edges_[i + 2].lo == edges_[i].lo && edges_[i + 2].hi == edges_[i].hi;
    if (!pair || more || edges_[i].face == edges_[i + 1].face) {
      why = "it is open: edge " + nodename(edges_[i].lo) + "-" + nodename(edges_[i].hi) + " bounds " +
            (!pair  ? "one face"
             : more ? "more than two faces"
                    : "one face twice");
      return false;
    }
    ++adjstart_[static_cast<std::size_t>(edges_[i].face) + 1];
    ++adjstart_[static_cast<std::size_t>(edges_[i + 1].face) + 1];
  }
  std::partial_sum(adjstart_.begin(), adjstart_.end(), adjstart_.begin());
  adj_.assign(edges_.size(), 0);  // neighbour * 2 + (1 when both walk the shared edge alike)
  {
    std::vector<std::int32_t>& fill = queue_;
    fill.assign(adjstart_.begin(), adjstart_.end() - 1);
    for (std::size_t i = 0; i < edges_.size(); i += 2) {
      const int same = edges_[i].forward == edges_[i + 1].forward;
      adj_[static_cast<std::size_t>(fill[static_cast<std::size_t>(edges_[i].face)]++)] =
          edges_[i + 1].face * 2 + same;
      adj_[static_cast<std::size_t>(fill[static_cast<std::size_t>(edges_[i + 1].face)]++)] =
          edges_[i].face * 2 + same;
    }
  }
  // Spread one orientation from face 0 across shared edges.
  std::vector<std::uint8_t>& seen = seen_;
  seen.assign(nf, 0);
  queue_.assign(1, 0);
  seen[0] = 1;
  for (std::size_t q = 0; q < queue_.size(); ++q) {
    const std::int32_t i = queue_[q];
    for (std::int32_t k = adjstart_[static_cast<std::size_t>(i)];
         k < adjstart_[static_cast<std::size_t>(i) + 1]; ++k) {
      const std::int32_t j = adj_[static_cast<std::size_t>(k)] / 2;
      const std::uint8_t flip = cflip_[static_cast<std::size_t>(i)] ^
                                static_cast<std::uint8_t>(adj_[static_cast<std::size_t>(k)] % 2);
      if (!seen[static_cast<std::size_t>(j)]) {
        seen[static_cast<std::size_t>(j)] = 1;
        cflip_[static_cast<std::size_t>(j)] = flip;
        queue_.push_back(j);
      } else if (cflip_[static_cast<std::size_t>(j)] != flip) {
        why = "its faces cannot be oriented alike (the surface is twisted)";
        return false;
      }
    }
  }
  if (queue_.size() != nf) {
    why = "its faces form more than one closed surface";
    return false;
  }
  // Volume by the divergence theorem, each face fanned from its centre.
  vec3 ref{coord(g_, cfaces_[0], 0), coord(g_, cfaces_[0], 1), coord(g_, cfaces_[0], 2)};
  vec3 lo{1e300, 1e300, 1e300}, hi{-1e300, -1e300, -1e300};
  double volume = 0;
  for (std::size_t i = 0; i < nf; ++i) {
    const std::int64_t b = cstart_[i], n = cstart_[i + 1] - b;
    vec3 centre;
    for (std::int64_t j = 0; j < n; ++j) {
      const std::int64_t v = cfaces_[static_cast<std::size_t>(b + j)];
      const vec3 p{coord(g_, v, 0), coord(g_, v, 1), coord(g_, v, 2)};
      const double dn = static_cast<double>(n);
      centre = {centre.x + p.x / dn, centre.y + p.y / dn, centre.z + p.z / dn};
      lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
      hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
    }
    double v = 0;
    for (std::int64_t j = 0; j < n; ++j) {
      const std::int64_t a = cfaces_[static_cast<std::size_t>(b + j)],
                         c = cfaces_[static_cast<std::size_t>(b + (j + 1) % n)];
      const vec3 pa{coord(g_, a, 0), coord(g_, a, 1), coord(g_, a, 2)};
      const vec3 pc{coord(g_, c, 0), coord(g_, c, 1), coord(g_, c, 2)};
      v += dot(pa - ref, cross(pc - ref, centre - ref));
    }
    volume += cflip_[i] ? -v : v;
  }
  const double size = std::max({hi.x - lo.x, hi.y - lo.y, hi.z - lo.z});
  if (!(std::abs(volume) > 1e-12 * size * size * size)) {
    why = "it encloses no volume";
    return false;
  }
  if (volume < 0)
    for (auto& f : cflip_) f ^= 1;
  // Orient the face node lists for good.
  for (std::size_t i = 0; i < nf; ++i)
    if (cflip_[i]) std::reverse(cfaces_.begin() + cstart_[i], cfaces_.begin() + cstart_[i + 1]);

  cnodes_.assign(cfaces_.begin(), cfaces_.end());
  std::sort(cnodes_.begin(), cnodes_.end());
  cnodes_.erase(std::unique(cnodes_.begin(), cnodes_.end()), cnodes_.end());
  int tris = 0, quads = 0;
  for (std::size_t i = 0; i < nf; ++i) {
    const std::int64_t n = cstart_[i + 1] - cstart_[i];
    tris += n == 3, quads += n == 4;
  }
  const auto face = [&](std::size_t i, int j) { return cfaces_[static_cast<std::size_t>(cstart_[i] + j)]; };
  // The node joined to v by an edge of the cell that is not in the face `notin` (-1 when none).
  const auto across = [&](std::int64_t v, std::size_t notin) {
    const std::int64_t b = cstart_[notin], e = cstart_[notin + 1];
    for (const auto& h : edges_) {
      if (h.lo != v && h.hi != v) continue;
      const std::int64_t w = h.lo == v ? h.hi : h.lo;
      if (std::find(cfaces_.begin() + b, cfaces_.begin() + e, w) == cfaces_.begin() + e) return w;
    }
    return std::int64_t{-1};
  };
  std::array<std::int64_t, 8> p{};
  const shape* s = nullptr;
  const std::size_t first = [&] {  // the first triangle (tetrahedron, wedge) or quadrilateral
    const std::int64_t want = (nf == 5 && tris == 4) || nf == 6 ? 4 : 3;
    for (std::size_t i = 0; i < nf; ++i)
      if (cstart_[i + 1] - cstart_[i] == want) return i;
    return std::size_t{0};
  }();
  if (nf == 4 && tris == 4 && cnodes_.size() == 4) {
    p = {face(first, 0), face(first, 2), face(first, 1)};
    for (auto v : cnodes_)
      if (v != p[0] && v != p[1] && v != p[2]) p[3] = v;
    s = &tetra;
  } else if (nf == 5 && tris == 4 && quads == 1 && cnodes_.size() == 5) {
    p = {face(first, 0), face(first, 3), face(first, 2), face(first, 1)};
    for (auto v : cnodes_)
      if (v != p[0] && v != p[1] && v != p[2] && v != p[3]) p[4] = v;
    s = &pyramid;
  } else if (nf == 5 && tris == 2 && quads == 3 && cnodes_.size() == 6) {
    p = {face(first, 0), face(first, 1), face(first, 2)};
    for (int j = 0; j < 3; ++j)
      p[static_cast<std::size_t>(j + 3)] = across(p[static_cast<std::size_t>(j)], first);
    s = &wedge;
  } else if (nf == 6 && quads == 6 && cnodes_.size() == 8) {
    p = {face(first, 0), face(first, 3), face(first, 2), face(first, 1)};
    for (int j = 0; j < 4; ++j)
      p[static_cast<std::size_t>(j + 4)] = across(p[static_cast<std::size_t>(j)], first);
    s = &hexahedron;
  }
  if (s != nullptr && matches(*s, p)) {
    ctype_ = s->type;
    cconn_.assign(p.begin(), p.begin() + s->points);
  } else {
    ctype_ = vtk_polyhedron;
    cconn_.assign(cnodes_.begin(), cnodes_.end());
  }
  return true;
}

// Whether the points in VTK's order make exactly the cell's faces.
bool builder::matches(const shape& s, const std::array<std::int64_t, 8>& p) const {
  if (std::find(p.begin(), p.begin() + s.points, std::int64_t{-1}) != p.begin() + s.points) return false;
  std::array<smallface, 6> want, have;
  const std::size_t nf = s.faces.size();
  for (std::size_t i = 0; i < nf; ++i) {
    std::int64_t v[4];
    for (std::size_t j = 0; j < s.faces[i].size(); ++j) v[j] = p[static_cast<std::size_t>(s.faces[i][j])];
    want[i] = canonical(v, s.faces[i].size());
    have[i] = canonical(&cfaces_[static_cast<std::size_t>(cstart_[i])],
                        static_cast<std::size_t>(cstart_[i + 1] - cstart_[i]));
  }
  std::sort(want.begin(), want.begin() + static_cast<std::ptrdiff_t>(nf));
  std::sort(have.begin(), have.begin() + static_cast<std::ptrdiff_t>(nf));
  return std::equal(want.begin(), want.begin() + static_cast<std::ptrdiff_t>(nf), have.begin());
}

std::int64_t builder::point(piece& pc, std::int64_t v) {
  std::int64_t& l = local_[static_cast<std::size_t>(v)];
  if (l < 0) {
    l = static_cast<std::int64_t>(pc.nodes.size());
    pc.nodes.push_back(v);
  }
  return l;
}

// Appends the cell in cconn_ and ctype_ to the piece, its grid nodes mapped to the piece's points.
void builder::addcell(piece& pc, std::int64_t cell) {
  for (auto v : cconn_) pc.connectivity.push_back(point(pc, v));
  pc.offsets.push_back(static_cast<std::int64_t>(pc.connectivity.size()));
  pc.types.push_back(ctype_);
  pc.cells.push_back(cell);
}

// Appends the built cell, with its faces when it is a polyhedron.
void builder::emit(piece& pc, std::int64_t cell) {
  addcell(pc, cell);
  if (ctype_ == vtk_polyhedron) {
    if (pc.faceoffsets.size() + 1 < pc.types.size()) pc.faceoffsets.resize(pc.types.size() - 1, -1);
    pc.faces.push_back(static_cast<std::int64_t>(cface_.size()));
    for (std::size_t i = 0; i + 1 < cstart_.size(); ++i) {
      pc.faces.push_back(cstart_[i + 1] - cstart_[i]);
      for (std::int64_t j = cstart_[i]; j < cstart_[i + 1]; ++j)
        pc.faces.push_back(point(pc, cfaces_[static_cast<std::size_t>(j)]));
    }
    pc.faceoffsets.push_back(static_cast<std::int64_t>(pc.faces.size()));
  } else if (!pc.faceoffsets.empty()) {
    pc.faceoffsets.push_back(-1);
  }
  // Which way round each face points out of this cell.
  for (std::size_t i = 0; i < cface_.size(); ++i) {
    const int s = cside_[i];
    const bool storedout = (s == 0) != (cflip_[i] != 0);
    m_.outward[static_cast<std::size_t>(cface_[i])] |=
        static_cast<std::uint8_t>((storedout ? 1 : 0) << s | 4 << s);
  }
}

void builder::run() {
  resolvefaces();
  local_.assign(static_cast<std::size_t>(l_.nodes), -1);
  for (std::size_t k = 0; k < g_.zones.size(); ++k) {
    piece pc;
    pc.name = "zone " + std::to_string(k + 1);
    std::string why;
    for (std::int64_t c = l_.cell0[k]; c < l_.cell0[k + 1]; ++c) {
      if (buildcell(c, why))
        emit(pc, c);
      else
        leaveout(c, why);
    }
    if (!pc.faceoffsets.empty()) pc.faceoffsets.resize(pc.types.size(), -1);
    for (auto v : pc.nodes) local_[static_cast<std::size_t>(v)] = -1;
    m_.zones.push_back(std::move(pc));
  }
  buildboundaries();
}

// One surface per boundary code from the faces that carry it, oriented out of the domain where the
// cell inside is known. Faces are bucketed by code first, so that each patch numbers its own points.
void builder::buildboundaries() {
  constexpr std::size_t mostpatches = 1000;
  std::map<int, std::size_t, std::greater<int>> index;
  for (auto c : m_.code)
    if (c < 0 && index.emplace(c, 0).second && index.size() > mostpatches)
      throw error("the grid's faces carry more than " + std::to_string(mostpatches) + " boundary codes");
  std::vector<std::int64_t> start(index.size() + 1, 0), order;
  for (auto& [c, i] : index) {
    i = m_.boundaries.size();
    m_.boundaries.push_back({});
    m_.boundaries.back().name = "boundary " + std::to_string(c);
    m_.codes.push_back(c);
  }
  for (auto c : m_.code)
    if (c < 0) ++start[index[c] + 1];
  std::partial_sum(start.begin(), start.end(), start.begin());
  order.resize(static_cast<std::size_t>(start.back()));
  {
    std::vector<std::int64_t> fill(start.begin(), start.end() - 1);
    for (std::int64_t f = 0; f < l_.faces; ++f)
      if (m_.code[static_cast<std::size_t>(f)] < 0)
        order[static_cast<std::size_t>(fill[index[m_.code[static_cast<std::size_t>(f)]]]++)] = f;
  }
  std::int64_t skipped = 0;
  for (std::size_t p = 0; p < m_.boundaries.size(); ++p) {
    piece& pc = m_.boundaries[p];
    for (std::int64_t i = start[p]; i < start[p + 1]; ++i) {
      const std::int64_t f = order[static_cast<std::size_t>(i)];
      const std::int64_t n = g_.npf.data()[f];
      if (facebad_[static_cast<std::size_t>(f)] || n < (g_.ndim == 2 ? 2 : 3)) {
        ++skipped;
        continue;
      }
      const int s = m_.side1[static_cast<std::size_t>(f)] >= 0 ? 0 : 1;
      const std::uint8_t o = m_.outward[static_cast<std::size_t>(f)];
      const bool reverse = (o >> (2 + s) & 1) && !(o >> s & 1);
      const std::int64_t base =
          num_ == numbering::withinzone ? l_.node0[static_cast<std::size_t>(zoneofface(f))] : 0;
      cconn_.clear();
      for (std::int64_t j = 0; j < n; ++j) cconn_.push_back(base + facenode(f, reverse ? n - 1 - j : j) - 1);
      ctype_ = g_.ndim == 2 ? vtk_line : n == 3 ? vtk_triangle : n == 4 ? vtk_quad : vtk_polygon;
      addcell(pc, s == 0 ? m_.side1[static_cast<std::size_t>(f)] : m_.side2[static_cast<std::size_t>(f)]);
    }
    for (auto v : pc.nodes) local_[static_cast<std::size_t>(v)] = -1;
  }
  if (skipped > 0)
    m_.notes.push_back(str(skipped) + " boundary face(s) with nodes that do not exist are left out");
}

}  // namespace

const char* numberingname(numbering n) {
  return n == numbering::withinzone ? "within each zone" : "across the grid";
}

mesh buildmesh(const grid& g, bool strict) {
  const layout l = checkcounts(g);
  mesh m;
  m.ndim = g.ndim;
  m.cellcount = l.cells;
  m.nodestart = l.node0;
  m.facestart = l.face0;
  m.num = detectnumbering(g, l, m.numberingevidence);
  builder(g, l, m.num, strict, m).run();
  return m;
}

std::vector<std::string> mesh::report() const {
  std::vector<std::string> lines;
  lines.push_back(std::string("node and cell numbers count ") + numberingname(num) + " (" +
                  numberingevidence + ")");
  const std::pair<vtktype, const char*> names[] = {
      {vtk_triangle, "triangles"},   {vtk_quad, "quadrilaterals"},  {vtk_polygon, "polygons"},
      {vtk_tetra, "tetrahedra"},     {vtk_pyramid, "pyramids"},     {vtk_wedge, "wedges"},
      {vtk_hexahedron, "hexahedra"}, {vtk_polyhedron, "polyhedra"}, {vtk_line, "edges"}};
  const auto describe = [&](const piece& pc, const char* what) {
    std::string s = pc.name + ": " + str(static_cast<std::int64_t>(pc.nodes.size())) + " points, " +
                    str(static_cast<std::int64_t>(pc.types.size())) + " " + what;
    std::string kinds;
    for (const auto& [t, name] : names) {
      const auto n = std::count(pc.types.begin(), pc.types.end(), t);
      if (n > 0) kinds += (kinds.empty() ? "" : ", ") + str(n) + " " + name;
    }
    return kinds.empty() ? s : s + " (" + kinds + ")";
  };
  for (const auto& z : zones) lines.push_back(describe(z, "cells"));
  for (const auto& b : boundaries) lines.push_back(describe(b, "faces"));
  for (const auto& n : notes) lines.push_back(n);
  if (leftout > 0) {
    std::string s = str(leftout) + " cell(s) left out, open or degenerate:";
    for (const auto& p : firstleftout)
      s += " zone " + std::to_string(p.zone) + " cell " + str(p.cell) + " (" + p.why + ");";
    if (leftout > static_cast<std::int64_t>(firstleftout.size())) s += " ...";
    lines.push_back(s);
  }
  return lines;
}

}  // namespace zelm
