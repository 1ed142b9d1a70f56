// The checks of a grid: its records, its numbering, each zone's topology and geometry.
#include <algorithm>
#include <cstring>
#include <map>
#include <numbers>

#include "geometry.hpp"
#include "internal.hpp"

namespace zelm::check {

namespace detail {

std::string num(std::int64_t v) {
  std::string s = std::to_string(v < 0 ? -v : v);
  for (int i = static_cast<int>(s.size()) - 3; i > 0; i -= 3) s.insert(static_cast<std::size_t>(i), ",");
  return (v < 0 ? "-" : "") + s;
}

}  // namespace detail

namespace {

using namespace detail;

std::string str(std::int64_t v) {
  return std::to_string(v);
}

std::string faceat(const zone& z, index_t f) {
  return "face " + str(f + 1) + " (cells " + str(z.rawcell(f, 0)) + ", " + str(z.rawcell(f, 1)) + ")";
}

// Faces with the same nodes in any order: sorted node lists compared through a hash.
void duplicates(const zone& z, const std::vector<char>& counted, check& c) {
  std::vector<std::pair<std::uint64_t, index_t>> keys;
  keys.reserve(static_cast<std::size_t>(z.z.faces));
  std::vector<int> a, b;
  const auto sorted = [&](index_t f, std::vector<int>& v) {
    v.resize(static_cast<std::size_t>(z.slots(f)));
    for (int i = 0; i < z.slots(f); ++i) v[static_cast<std::size_t>(i)] = z.rawnode(f, i);
    std::sort(v.begin(), v.end());
  };
  for (index_t f = 0; f < z.z.faces; ++f) {
    if (!counted[static_cast<std::size_t>(f)]) continue;
    sorted(f, a);
    std::uint64_t h = 1469598103934665603ULL;  // FNV-1a over the sorted numbers
    for (int v : a) h = (h ^ static_cast<std::uint32_t>(v)) * 1099511628211ULL;
    keys.emplace_back(h, f);
  }
  std::sort(keys.begin(), keys.end());
  for (std::size_t i = 1; i < keys.size(); ++i) {
    if (keys[i].first != keys[i - 1].first) continue;
    // Compare with every earlier face of the same hash, so that a collision hides nothing.
    sorted(keys[i].second, a);
    for (std::size_t j = i; j-- > 0 && keys[j].first == keys[i].first;) {
      sorted(keys[j].second, b);
      if (a == b) {
        fail(c, "face " + str(keys[i].second + 1) + " has the nodes of face " + str(keys[j].second + 1));
        break;
      }
    }
  }
}

// Topology of one zone; facevalid and cellvalid say what geometry can use.
void topology(const zone& z, section& s, std::vector<char>& facevalid, std::vector<char>& cellvalid,
              std::map<int, boundary>& codes) {
  const int ndim = z.g->ndim, minnodes = ndim == 2 ? 2 : 3;
  check counts{"face node counts from " + str(minnodes) + " to mnpfz (" + str(z.z.mnpf) + ")"};
  check nodes{"node numbers in range (1 to " + str(z.z.nodes) +
              (z.nodebase ? " after " + str(z.nodebase) : "") + ")"};
  check repeated{"no node repeated in a face"};
  check dup{"no two faces with the same nodes"};
  check unused{"every node on a face"};
  check cells{"cell numbers in range (1 to " + str(z.z.cells) +
              (z.cellbase ? " after " + str(z.cellbase) : "") + ")"};
  check nocell{"a cell on at least one side of every face"};
  check same{"different cells on the two sides of a face"};
  check faceless{"every cell has faces"};
  check few{"every cell has at least " + str(ndim + 1) + " faces"};
  check many{"at most mfpcz (" + str(z.z.mfpc) + ") faces per cell"};
  const auto nf = static_cast<std::size_t>(z.z.faces), nc = static_cast<std::size_t>(z.z.cells);
  std::vector<char> used(static_cast<std::size_t>(z.z.nodes), 0), counted(nf, 0);
  std::vector<int> faces(nc, 0);
  for (index_t f = 0; f < z.z.faces; ++f) {
    const int n = z.npf(f), slots = z.slots(f);
    if (n < minnodes || n > z.z.mnpf) fail(counts, "face " + str(f + 1) + ": " + str(n) + " nodes");
    bool inrange = true, repeats = false;
    for (int i = 0; i < slots; ++i) {
      const index_t l = z.node(f, i);
      if (l >= 0)
        used[static_cast<std::size_t>(l)] = 1;
      else if (inrange)
        inrange = false, fail(nodes, "face " + str(f + 1) + ": node " + str(z.rawnode(f, i)));
      for (int j = 0; j < i && !repeats; ++j) repeats = z.rawnode(f, j) == z.rawnode(f, i);
    }
    if (repeats) fail(repeated, "face " + str(f + 1));
    counted[static_cast<std::size_t>(f)] = n >= minnodes && inrange;
    const int c1 = z.rawcell(f, 0), c2 = z.rawcell(f, 1);
    for (int side = 0; side < 2; ++side) {
      const int v = z.rawcell(f, side);
      if (v <= 0) {
        ++codes[v].faces;
      } else if (const index_t c = z.cell(f, side); c >= 0) {
        ++faces[static_cast<std::size_t>(c)];
      } else {
        fail(cells, faceat(z, f));
      }
    }
    if (c1 <= 0 && c2 <= 0) fail(nocell, faceat(z, f));
    if (c1 > 0 && c1 == c2) fail(same, faceat(z, f));
  }
  duplicates(z, counted, dup);
  for (std::size_t i = 0; i < used.size(); ++i)
    if (!used[i]) fail(unused, "node " + str(static_cast<std::int64_t>(i) + 1 + z.nodebase));
  for (std::size_t c = 0; c < nc; ++c) {
    const std::string at = "cell " + str(static_cast<std::int64_t>(c) + 1 + z.cellbase);
    if (faces[c] == 0)
      fail(faceless, at);
    else if (faces[c] <= ndim)
      fail(few, at + ": " + str(faces[c]) + " faces");
    if (faces[c] > z.z.mfpc) fail(many, at + ": " + str(faces[c]) + " faces");
  }
  validity(z, facevalid, cellvalid);
  for (auto* c : {&counts, &nodes, &repeated, &dup, &unused, &cells, &nocell, &same, &faceless, &few, &many})
    s.checks.push_back(std::move(*c));
}

void geometrychecks(const zone& z, section& s, const std::vector<char>& facevalid,
                    const std::vector<char>& cellvalid, std::map<int, boundary>& codes) {
  const int ndim = z.g->ndim;
  const char* volume = ndim == 2 ? "area" : "volume";
  const auto geo = geometry(z, facevalid, cellvalid);
  const auto nf = static_cast<std::size_t>(z.z.faces), nc = static_cast<std::size_t>(z.z.cells);
  const auto cellname = [&](std::int64_t c) { return "cell " + str(c + 1 + z.cellbase); };
  const auto facename = [&](std::int64_t f) { return "face " + str(f + 1); };

  check zero{std::string("every face has a non-zero ") + (ndim == 2 ? "length" : "area")};
  check oriented{"faces oriented consistently"};
  for (std::size_t f = 0; f < nf; ++f) {
    if (!facevalid[f]) continue;
    const double a = norm(geo.area[f]);
    if (a == 0) fail(zero, faceat(z, static_cast<index_t>(f)));
    for (int side = 0; side < 2; ++side)
      if (z.rawcell(static_cast<index_t>(f), side) <= 0)
        codes[z.rawcell(static_cast<index_t>(f), side)].area += a;
    if (geo.vote[f] * geo.sense < 0) fail(oriented, faceat(z, static_cast<index_t>(f)) + " is reversed");
  }
  oriented.note = geo.sense > 0 ? "area vectors point from side 1 to side 2 (out of the cell in ifcell(1,f))"
                                : "area vectors point from side 2 to side 1 (out of the cell in ifcell(2,f))";

  check closed{"cells closed"}, positive{std::string("cell ") + volume + "s positive"};
  accumulator volumes{std::string("cell ") + volume};
  for (std::size_t c = 0; c < nc; ++c) {
    if (!cellvalid[c]) continue;
    const double gap = norm(geo.closure[c]);
    if (gap > 1e-6 * geo.closuresize[c])
      fail(closed, cellname(static_cast<std::int64_t>(c)) + ": open by " +
                       std::to_string(gap / geo.closuresize[c]) + " of its face " +
                       (ndim == 2 ? "lengths" : "areas"));
    if (!(geo.volume[c] > 0))
      fail(positive,
           cellname(static_cast<std::int64_t>(c)) + ": " + volume + " " + std::to_string(geo.volume[c]));
    volumes.add(geo.volume[c], static_cast<std::int64_t>(c));
  }

  // Quality of the faces between and beside cells that geometry could measure.
  accumulator ratio{"neighbour " + std::string(volume) + " ratio"}, angle{"non-orthogonality (degrees)"},
      skew{"skewness"};
  check severe{"non-orthogonality at most 70 degrees"}, wrongway{"non-orthogonality below 90 degrees"},
      skewed{"skewness at most 4"};
  severe.warning = true;
  for (std::size_t f = 0; f < nf; ++f) {
    if (!facevalid[f] || norm(geo.area[f]) == 0) continue;
    const index_t c1 = z.cell(static_cast<index_t>(f), 0), c2 = z.cell(static_cast<index_t>(f), 1);
    const bool v1 = c1 >= 0 && cellvalid[static_cast<std::size_t>(c1)];
    const bool v2 = c2 >= 0 && cellvalid[static_cast<std::size_t>(c2)];
    if (!v1 && !v2) continue;
    // From the cell the face points out of, to the other side.
    const bool fromfirst = v1 && (!v2 || geo.outward[f] > 0);
    const index_t own = fromfirst ? c1 : c2, other = fromfirst ? c2 : c1;
    const vec area = static_cast<double>(fromfirst ? geo.outward[f] : -geo.outward[f]) * geo.area[f];
    const vec co = geo.cellcentre[static_cast<std::size_t>(own)];
    const vec toface = geo.centre[f] - co;
    vec d;
    if (v1 && v2) {
      d = geo.cellcentre[static_cast<std::size_t>(other)] - co;
      const double cosine = dot(area, d) / (norm(area) * norm(d));
      const double deg = std::acos(std::clamp(cosine, -1.0, 1.0)) * 180.0 / std::numbers::pi;
      angle.add(deg, static_cast<std::int64_t>(f));
      if (deg > 70)
        fail(severe, facename(static_cast<std::int64_t>(f)) + ": " + std::to_string(deg) + " degrees");
      if (deg >= 90)
        fail(wrongway, facename(static_cast<std::int64_t>(f)) + ": " + std::to_string(deg) + " degrees");
      const double a = geo.volume[static_cast<std::size_t>(c1)], b = geo.volume[static_cast<std::size_t>(c2)];
      if (a > 0 && b > 0) ratio.add(std::max(a, b) / std::min(a, b), static_cast<std::int64_t>(f));
    } else {
      const vec n = (1.0 / norm(area)) * area;
      d = dot(n, toface) * n;
    }
    const double along = dot(area, d);
    if (along == 0) continue;
    const vec sv = toface - (dot(area, toface) / along) * d;
    const double svn = norm(sv);
    double reach = 0.2 * norm(d);
    if (svn > 0)
      for (int i = 0; i < z.slots(static_cast<index_t>(f)); ++i)
        reach = std::max(
            reach, std::abs(dot((1.0 / svn) * sv, z.x(z.node(static_cast<index_t>(f), i)) - geo.centre[f])));
    const double k = reach > 0 ? svn / reach : 0.0;
    skew.add(k, static_cast<std::int64_t>(f));
    if (k > 4) fail(skewed, facename(static_cast<std::int64_t>(f)) + ": " + std::to_string(k));
  }
  for (auto* c : {&zero, &oriented, &closed, &positive, &wrongway, &severe, &skewed})
    s.checks.push_back(std::move(*c));
  s.ranges.push_back(volumes.result(cellname));
  s.ranges.push_back(ratio.result(facename));
  s.ranges.push_back(angle.result(facename));
  s.ranges.push_back(skew.result(facename));
}

}  // namespace

report checkgrid(const grid& g) {
  report r;
  section file{"file"};
  check read{"every record read"};
  read.note = "ndim " + str(g.ndim) + ", " + num(static_cast<std::int64_t>(g.zones.size())) + " zone(s), " +
              num(g.totalnodes()) + " nodes, " + num(g.totalfaces()) + " faces, " + num(g.totalcells()) +
              " cells";
  file.checks.push_back(read);
  check dims{"ndim is 2 or 3 (what the geometry needs)"};
  if (g.ndim != 2 && g.ndim != 3) fail(dims, "ndim " + str(g.ndim));
  file.checks.push_back(dims);
  const numbering nb = zonesof(g);
  check numbers{"node and cell numbers"};
  const auto convention = [&](bool across) { return across ? "across the grid" : "within a zone"; };
  numbers.note = g.zones.size() <= 1 ? "one zone: numbering within a zone and across the grid are the same"
                                     : std::string("nodes counted ") + convention(nb.nodesacross) +
                                           ", cells counted " + convention(nb.cellsacross);
  file.checks.push_back(numbers);
  r.sections.push_back(std::move(file));
  for (const auto& z : nb.zones) {
    section s{"zone " + str(static_cast<std::int64_t>(z.k) + 1) + ": " + num(z.z.nodes) + " nodes, " +
              num(z.z.faces) + " faces, " + num(z.z.cells) + " cells"};
    std::vector<char> facevalid, cellvalid;
    std::map<int, boundary> codes;
    topology(z, s, facevalid, cellvalid, codes);
    if (g.ndim == 2 || g.ndim == 3) geometrychecks(z, s, facevalid, cellvalid, codes);
    for (auto& [code, b] : codes) {
      b.code = code;
      s.boundaries.push_back(b);
    }
    r.sections.push_back(std::move(s));
  }
  return r;
}

section unreadable(const std::string& why, std::int64_t filesize, const grid* header) {
  section s{"file"};
  check read{"every record read"};
  std::string where = why;
  // The reader names the statement it was in: "(zone K face I)" or "(zone K node I)". With the
  // header's counts that says how far the file goes.
  const auto truncated = why.find("truncated") != std::string::npos ||
                         why.find("ends inside") != std::string::npos ||
                         why.find("end of file") != std::string::npos;
  long zonenumber = 0, item = 0;
  char what[8] = {};
  const auto at = why.find("(zone ");
  if (header && at != std::string::npos &&
      std::sscanf(why.c_str() + at, "(zone %ld %7s %ld)", &zonenumber, what, &item) == 3 && zonenumber >= 1 &&
      static_cast<std::size_t>(zonenumber) <= header->zones.size()) {
    const auto& z = header->zones[static_cast<std::size_t>(zonenumber - 1)];
    const bool faces = std::strcmp(what, "face") == 0;
    const std::int64_t total = faces ? z.faces : z.nodes;
    where += "; " + num(item - 1) + " of " + num(total) + " " + (faces ? "faces" : "nodes") + " of zone " +
             str(zonenumber) + " read";
  }
  if (truncated) where += "; the file ends at byte " + num(filesize);
  fail(read, where);
  s.checks.push_back(std::move(read));
  return s;
}

}  // namespace zelm::check
