#include "geometry.hpp"

#include <limits>

#include "internal.hpp"

namespace zelm::check::detail {

namespace {

struct extent {
  int lo = std::numeric_limits<int>::max(), hi = std::numeric_limits<int>::min();
  void add(int v) { lo = std::min(lo, v), hi = std::max(hi, v); }
  bool empty() const { return lo > hi; }
  bool within(index_t base, index_t count) const { return empty() || (lo > base && hi <= base + count); }
};

// The average of a face's nodes; its area vector and centroid from the triangles it makes with it.
void face(const zone& z, index_t f, vec& area, vec& centre) {
  const int n = z.slots(f);
  if (z.g->ndim == 2) {  // an edge: first node to last
    const vec a = z.x(z.node(f, 0)), b = z.x(z.node(f, n - 1));
    area = {b[1] - a[1], a[0] - b[0], 0.0};
    centre = 0.5 * (a + b);
    return;
  }
  vec m{};
  for (int i = 0; i < n; ++i) m = m + z.x(z.node(f, i));
  m = (1.0 / n) * m;
  area = {}, centre = {};
  double weight = 0;
  vec p = z.x(z.node(f, n - 1)) - m;
  for (int i = 0; i < n; ++i) {
    const vec q = z.x(z.node(f, i)) - m;
    const vec t = 0.5 * cross(p, q);
    const double w = norm(t);
    area = area + t;
    centre = centre + (w / 3.0) * (p + q);
    weight += w;
    p = q;
  }
  centre = weight > 0 ? m + (1.0 / weight) * centre : m;
}

}  // namespace

numbering zonesof(const grid& g) {
  numbering nb;
  std::vector<extent> nodes(g.zones.size()), cells(g.zones.size());
  int width = static_cast<int>(g.ifnode.extent(1));
  index_t n0 = 0, f0 = 0;
  for (std::size_t k = 0; k < g.zones.size(); ++k) {
    zone z;
    z.g = &g, z.k = k, z.z = g.zones[k], z.n0 = n0, z.f0 = f0, z.width = width;
    for (index_t f = 0; f < z.z.faces; ++f) {
      for (int i = 0; i < z.slots(f); ++i) nodes[k].add(z.rawnode(f, i));
      for (int s = 0; s < 2; ++s)
        if (z.rawcell(f, s) > 0) cells[k].add(z.rawcell(f, s));
    }
    nb.zones.push_back(z);
    n0 += z.z.nodes, f0 += z.z.faces;
  }
  // A convention fits when every zone's numbers fall in its range; within a zone wins a tie.
  const auto fits = [&](const std::vector<extent>& e, bool across, int zonecounts::*count) {
    int n = 0;
    index_t base = 0;
    for (std::size_t k = 0; k < e.size(); ++k) {
      n += e[k].within(across ? base : 0, g.zones[k].*count);
      base += g.zones[k].*count;
    }
    return n;
  };
  nb.nodesacross = fits(nodes, true, &zonecounts::nodes) > fits(nodes, false, &zonecounts::nodes);
  nb.cellsacross = fits(cells, true, &zonecounts::cells) > fits(cells, false, &zonecounts::cells);
  index_t nb0 = 0, cb0 = 0;
  for (auto& z : nb.zones) {
    z.nodebase = nb.nodesacross ? nb0 : 0;
    z.cellbase = nb.cellsacross ? cb0 : 0;
    nb0 += z.z.nodes, cb0 += z.z.cells;
  }
  return nb;
}

void validity(const zone& z, std::vector<char>& facevalid, std::vector<char>& cellvalid) {
  const int minnodes = z.g->ndim == 2 ? 2 : 3;
  facevalid.assign(static_cast<std::size_t>(z.z.faces), 0);
  std::vector<int> faces(static_cast<std::size_t>(z.z.cells), 0);
  std::vector<char> broken(static_cast<std::size_t>(z.z.cells), 0);
  for (index_t f = 0; f < z.z.faces; ++f) {
    const int n = z.npf(f);
    bool ok = n >= minnodes && n <= z.width;
    for (int i = 0; ok && i < n; ++i) ok = z.node(f, i) >= 0;
    facevalid[static_cast<std::size_t>(f)] = ok;
    for (int s = 0; s < 2; ++s)
      if (const index_t c = z.cell(f, s); c >= 0) {
        ++faces[static_cast<std::size_t>(c)];
        if (!ok) broken[static_cast<std::size_t>(c)] = 1;
      }
  }
  cellvalid.assign(static_cast<std::size_t>(z.z.cells), 0);
  for (std::size_t c = 0; c < cellvalid.size(); ++c) cellvalid[c] = !broken[c] && faces[c] > z.g->ndim;
}

zonegeometry geometry(const zone& z, const std::vector<char>& facevalid, const std::vector<char>& cellvalid) {
  const auto nf = static_cast<std::size_t>(z.z.faces), nc = static_cast<std::size_t>(z.z.cells);
  const double dim = z.g->ndim;
  zonegeometry r;
  r.area.assign(nf, vec{}), r.centre.assign(nf, vec{});
  r.outward.assign(nf, 0), r.vote.assign(nf, 0);
  std::vector<vec> estimate(nc, vec{});
  std::vector<int> count(nc, 0);
  for (std::size_t f = 0; f < nf; ++f) {
    if (!facevalid[f]) continue;
    face(z, static_cast<index_t>(f), r.area[f], r.centre[f]);
    for (int s = 0; s < 2; ++s)
      if (const index_t c = z.cell(static_cast<index_t>(f), s); c >= 0) {
        estimate[static_cast<std::size_t>(c)] = estimate[static_cast<std::size_t>(c)] + r.centre[f];
        ++count[static_cast<std::size_t>(c)];
      }
  }
  for (std::size_t c = 0; c < nc; ++c)
    estimate[c] = count[c] > 0 ? (1.0 / count[c]) * estimate[c] : vec{NAN, NAN, NAN};
  // What each cell says of each face's area vector, and the sense most faces follow.
  std::int64_t forward = 0, backward = 0;
  for (std::size_t f = 0; f < nf; ++f) {
    if (!facevalid[f]) continue;
    int v = 0;
    for (int s = 0; s < 2; ++s) {
      const index_t c = z.cell(static_cast<index_t>(f), s);
      if (c < 0 || !cellvalid[static_cast<std::size_t>(c)]) continue;
      const double d = dot(r.area[f], r.centre[f] - estimate[static_cast<std::size_t>(c)]);
      if (d != 0) v += (d > 0) == (s == 0) ? 1 : -1;
    }
    r.vote[f] = static_cast<signed char>(v);
    forward += v > 0, backward += v < 0;
  }
  r.sense = forward >= backward ? 1 : -1;
  for (std::size_t f = 0; f < nf; ++f)
    r.outward[f] = static_cast<signed char>(r.vote[f] * r.sense < 0 ? -r.sense : r.sense);
  // Closure, volume and centroid from the pyramids on the faces.
  r.closure.assign(nc, vec{}), r.closuresize.assign(nc, 0.0), r.volume.assign(nc, 0.0);
  std::vector<double> weight(nc, 0.0);
  r.cellcentre.assign(nc, vec{});
  for (std::size_t f = 0; f < nf; ++f) {
    if (!facevalid[f]) continue;
    for (int s = 0; s < 2; ++s) {
      const index_t c = z.cell(static_cast<index_t>(f), s);
      if (c < 0) continue;
      const auto i = static_cast<std::size_t>(c);
      const vec out = static_cast<double>(s == 0 ? r.outward[f] : -r.outward[f]) * r.area[f];
      r.closure[i] = r.closure[i] + out;
      r.closuresize[i] += norm(out);
      const double pyramid = dot(r.centre[f] - estimate[i], out) / dim;
      weight[i] += pyramid;
      r.cellcentre[i] =
          r.cellcentre[i] + pyramid * ((dim / (dim + 1)) * r.centre[f] + (1 / (dim + 1)) * estimate[i]);
      // The volume takes every face in the grid's sense, reversed or not: a cell turned inside
      // out by a node pushed through it has a negative volume.
      r.volume[i] += r.outward[f] == r.sense ? pyramid : -pyramid;
    }
  }
  for (std::size_t c = 0; c < nc; ++c)
    r.cellcentre[c] = cellvalid[c] && weight[c] > 0 ? (1.0 / weight[c]) * r.cellcentre[c] : estimate[c];
  return r;
}

std::vector<double> cellcentres(const grid& g) {
  std::vector<double> out;
  if (g.ndim != 2 && g.ndim != 3)
    return std::vector<double>(static_cast<std::size_t>(3 * g.totalcells()), NAN);
  for (const auto& z : zonesof(g).zones) {
    std::vector<char> facevalid, cellvalid;
    validity(z, facevalid, cellvalid);
    const auto geo = geometry(z, facevalid, cellvalid);
    for (const auto& c : geo.cellcentre) out.insert(out.end(), c.begin(), c.end());
  }
  return out;
}

}  // namespace zelm::check::detail
