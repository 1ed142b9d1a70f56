// Clean Tecplot ASCII: one zone per grid zone and one per boundary patch, each with its own nodes
// and block packing. Grid zones are FEPOLYHEDRON (3D) or FEPOLYGON (2D) zones over the grid's own
// faces, each face once with the cells on its two sides; a face's nodes are written so that it
// points out of its left cell (in 2D the left cell lies to the left of the edge's first-to-second
// node direction), and a face with a cell on one side only has that cell on the left. Boundary
// patches are FEPOLYGON zones whose elements are the boundary faces, each given by its own edges (a
// boundary edge of a 2D grid as the two-edge polygon going there and back).
#include <algorithm>
#include <cstring>

#include "writing.hpp"

namespace zelm {

namespace {

using detail::array;
using detail::outfile;

// Values of one array in block order: component `c` of each tuple, ten to a line.
void block(outfile& out, const array& a, int c, std::vector<char>& scratch) {
  a.fill(scratch);
  const std::int64_t n = a.tuples;
  for (std::int64_t i = 0; i < n; ++i) {
    const std::size_t at = static_cast<std::size_t>(i * a.components + c);
    const char sep = i % 10 == 9 || i + 1 == n ? '\n' : ' ';
    if (a.type == array::real32) {
      float v;
      std::memcpy(&v, scratch.data() + at * 4, 4);
      out.number(v, sep);
    } else {
      double v;
      std::memcpy(&v, scratch.data() + at * 8, 8);
      out.number(v, sep);
    }
  }
}

// A grid face as one zone writes it: nodes turned out of the left cell, cells numbered in the zone.
struct zoneface {
  std::int64_t face, left, right;
  bool reversed;
};

class tecwriter {
 public:
  tecwriter(outfile& out, const mesh& m, const exportdata& d) : out_(out), m_(m), d_(d), g_(*d.g) {}

  void header();
  void volumezones();
  void boundaryzone(const piece& pc);

 private:
  void zoneheader(const piece& pc, const char* type, std::int64_t faces, std::int64_t facenodes);
  void values(const piece& pc);
  std::int64_t facenode(std::int64_t f, std::int64_t j) const;

  outfile& out_;
  const mesh& m_;
  const exportdata& d_;
  const grid& g_;
  std::vector<char> scratch_;
};

void tecwriter::header() {
  std::string title = d_.title;
  for (char& c : title)
    if (c == '"') c = '\'';
  out_.put("TITLE = \"" + title + "\"\nVARIABLES = \"X\" \"Y\"" + (m_.ndim == 3 ? " \"Z\"" : ""));
  const piece none;
  const auto data = detail::dataof(none, d_);
  for (const auto& a : data.points) out_.put(" \"" + a.name + "\"");
  for (const auto& a : data.cells) out_.put(" \"" + a.name + "\"");
  out_.put("\n");
  for (const auto& v : detail::fieldvalues(d_)) {
    out_.put("DATASETAUXDATA " + v.name + " = \"");
    detail::fieldnumber(out_, v, '"');
    out_.put("\n");
  }
  if (d_.p != nullptr) {
    std::string text = d_.p->text;
    for (char& c : text)
      if (c == '"' || c < ' ') c = '\'';
    text.erase(text.find_last_not_of(' ') + 1);
    out_.put("DATASETAUXDATA pix_text = \"" + text + "\"\n");
  }
}

void tecwriter::zoneheader(const piece& pc, const char* type, std::int64_t faces, std::int64_t facenodes) {
  out_.put("ZONE T=\"" + pc.name + "\", ZONETYPE=" + type + ", NODES=" + std::to_string(pc.nodes.size()) +
           ", ELEMENTS=" + std::to_string(pc.types.size()) + ", FACES=" + std::to_string(faces));
  if (facenodes >= 0) out_.put(", TOTALNUMFACENODES=" + std::to_string(facenodes));
  out_.put(", NUMCONNECTEDBOUNDARYFACES=0, TOTALNUMBOUNDARYCONNECTIONS=0, DATAPACKING=BLOCK");
  const auto data = detail::dataof(pc, d_);
  if (!data.cells.empty()) {
    const std::size_t first = static_cast<std::size_t>(m_.ndim) + data.points.size() + 1;
    const std::size_t last = first + data.cells.size() - 1;
    out_.put(", VARLOCATION=([" + std::to_string(first) + (last > first ? "-" + std::to_string(last) : "") +
             "]=CELLCENTERED)");
  }
  out_.put("\n");
}

void tecwriter::values(const piece& pc) {
  const array xyz = detail::coordinates(pc, d_);
  for (int c = 0; c < m_.ndim; ++c) block(out_, xyz, c, scratch_);
  const auto data = detail::dataof(pc, d_);
  for (const auto& a : data.points) block(out_, a, 0, scratch_);
  for (const auto& a : data.cells) block(out_, a, 0, scratch_);
  std::vector<char>().swap(scratch_);
}

std::int64_t tecwriter::facenode(std::int64_t f, std::int64_t j) const {
  const auto& s = m_.facestart;
  const std::int64_t base =
      m_.num == numbering::withinzone
          ? m_.nodestart[static_cast<std::size_t>(std::upper_bound(s.begin(), s.end(), f) - s.begin() - 1)]
          : 0;
  return base + g_.ifnode.data()[f * g_.ifnode.extent(1) + j] - 1;
}

// Every grid zone with its faces: faces are bucketed by the zones of the cells they bound, so that
// the whole takes one pass over the faces.
void tecwriter::volumezones() {
  const std::size_t nz = m_.zones.size();
  std::vector<std::int64_t> position(static_cast<std::size_t>(m_.cellcount), 0);  // in its piece, from 1
  std::vector<std::int32_t> zoneof(static_cast<std::size_t>(m_.cellcount), -1);
  for (std::size_t k = 0; k < nz; ++k)
    for (std::size_t i = 0; i < m_.zones[k].cells.size(); ++i) {
      position[static_cast<std::size_t>(m_.zones[k].cells[i])] = static_cast<std::int64_t>(i) + 1;
      zoneof[static_cast<std::size_t>(m_.zones[k].cells[i])] = static_cast<std::int32_t>(k);
    }
  const auto zones = [&](std::int64_t f) {
    const std::int64_t c1 = m_.side1[static_cast<std::size_t>(f)], c2 = m_.side2[static_cast<std::size_t>(f)];
    const std::int32_t z1 = c1 >= 0 ? zoneof[static_cast<std::size_t>(c1)] : -1;
    const std::int32_t z2 = c2 >= 0 ? zoneof[static_cast<std::size_t>(c2)] : -1;
    return std::pair{z1, z2 == z1 ? -1 : z2};
  };
  const std::int64_t nf = static_cast<std::int64_t>(m_.side1.size());
  std::vector<std::int64_t> start(nz + 1, 0), order;
  for (std::int64_t f = 0; f < nf; ++f) {
    const auto [z1, z2] = zones(f);
    if (z1 >= 0) ++start[static_cast<std::size_t>(z1) + 1];
    if (z2 >= 0) ++start[static_cast<std::size_t>(z2) + 1];
  }
  for (std::size_t k = 0; k < nz; ++k) start[k + 1] += start[k];
  order.resize(static_cast<std::size_t>(start[nz]));
  {
    std::vector<std::int64_t> fill(start.begin(), start.end() - 1);
    for (std::int64_t f = 0; f < nf; ++f) {
      const auto [z1, z2] = zones(f);
      if (z1 >= 0) order[static_cast<std::size_t>(fill[static_cast<std::size_t>(z1)]++)] = f;
      if (z2 >= 0) order[static_cast<std::size_t>(fill[static_cast<std::size_t>(z2)]++)] = f;
    }
  }
  std::vector<std::int64_t> local(g_.x.extent(2), -1);
  std::vector<zoneface> faces;
  for (std::size_t k = 0; k < nz; ++k) {
    const piece& pc = m_.zones[k];
    if (pc.types.empty()) continue;
    for (std::size_t i = 0; i < pc.nodes.size(); ++i)
      local[static_cast<std::size_t>(pc.nodes[i])] = static_cast<std::int64_t>(i) + 1;
    faces.clear();
    std::int64_t facenodes = 0;
    for (std::int64_t i = start[k]; i < start[k + 1]; ++i) {
      const std::int64_t f = order[static_cast<std::size_t>(i)];
      std::int64_t cell[2] = {m_.side1[static_cast<std::size_t>(f)], m_.side2[static_cast<std::size_t>(f)]};
      std::int64_t at[2] = {0, 0};
      for (int s = 0; s < 2; ++s)
        if (cell[s] >= 0 && zoneof[static_cast<std::size_t>(cell[s])] == static_cast<std::int32_t>(k))
          at[s] = position[static_cast<std::size_t>(cell[s])];
      const int left = at[0] != 0 ? 0 : 1;
      const bool storedout = m_.outward[static_cast<std::size_t>(f)] >> left & 1;
      faces.push_back({f, at[left], at[1 - left], !storedout});
      facenodes += g_.npf.data()[f];
    }
    zoneheader(pc, m_.ndim == 3 ? "FEPOLYHEDRON" : "FEPOLYGON", static_cast<std::int64_t>(faces.size()),
               m_.ndim == 3 ? facenodes : -1);
    values(pc);
    if (m_.ndim == 3) {
      for (std::size_t i = 0; i < faces.size(); ++i)
        out_.number(g_.npf.data()[faces[i].face], i % 10 == 9 || i + 1 == faces.size() ? '\n' : ' ');
    }
    for (const auto& zf : faces) {
      const std::int64_t n = g_.npf.data()[zf.face];
      for (std::int64_t j = 0; j < n; ++j)
        out_.number(local[static_cast<std::size_t>(facenode(zf.face, zf.reversed ? n - 1 - j : j))],
                    j + 1 == n ? '\n' : ' ');
    }
    for (std::size_t i = 0; i < faces.size(); ++i)
      out_.number(faces[i].left, i % 10 == 9 || i + 1 == faces.size() ? '\n' : ' ');
    for (std::size_t i = 0; i < faces.size(); ++i)
      out_.number(faces[i].right, i % 10 == 9 || i + 1 == faces.size() ? '\n' : ' ');
    for (auto v : pc.nodes) local[static_cast<std::size_t>(v)] = -1;
  }
}

void tecwriter::boundaryzone(const piece& pc) {
  if (pc.types.empty()) return;
  std::int64_t edges = 0;
  std::int64_t begin = 0;
  for (auto end : pc.offsets) {
    edges += end - begin == 2 ? 2 : end - begin;
    begin = end;
  }
  zoneheader(pc, "FEPOLYGON", edges, -1);
  values(pc);
  begin = 0;
  for (auto end : pc.offsets) {
    const std::int64_t n = end - begin;
    for (std::int64_t j = 0; j < (n == 2 ? 2 : n); ++j) {
      out_.number(pc.connectivity[static_cast<std::size_t>(begin + j % n)] + 1);
      out_.number(pc.connectivity[static_cast<std::size_t>(begin + (j + 1) % n)] + 1, '\n');
    }
    begin = end;
  }
  std::int64_t e = 0, written = 0;
  begin = 0;
  for (auto end : pc.offsets) {
    ++e;
    for (std::int64_t j = 0; j < (end - begin == 2 ? 2 : end - begin); ++j)
      out_.number(e, ++written % 10 == 0 ? '\n' : ' ');
    begin = end;
  }
  out_.put("\n");
  for (std::int64_t i = 0; i < edges; ++i) out_.number(0, i % 20 == 19 || i + 1 == edges ? '\n' : ' ');
}

}  // namespace

void writetecplot(const std::string& file, const mesh& m, const exportdata& d) {
  outfile out(file);
  tecwriter w(out, m, d);
  w.header();
  w.volumezones();
  for (const auto& b : m.boundaries) w.boundaryzone(b);
  out.close();
}

}  // namespace zelm
