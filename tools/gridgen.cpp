#include "gridgen.hpp"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <vector>

namespace zelmgen {

namespace {

// One cell's face before faces are matched: nodes in cyclic order and a key of the sorted nodes.
struct halfface {
  std::array<int, 4> key;
  std::array<int, 4> nodes;
  int n;
  int cell;
};

struct zonegrid {
  int ndim = 0;
  std::vector<float> x;                  // ndim per node
  std::vector<int> npf, ifnode, ifcell;  // ifnode: 4 slots per face
  int ncells = 0, mnpf = 0, mfpc = 0;
};

void addface(std::vector<halfface>& faces, int cell, std::initializer_list<int> nodes) {
  halfface h{};
  h.n = static_cast<int>(nodes.size());
  std::copy(nodes.begin(), nodes.end(), h.nodes.begin());
  h.key = {INT_MAX, INT_MAX, INT_MAX, INT_MAX};
  std::copy(nodes.begin(), nodes.end(), h.key.begin());
  std::sort(h.key.begin(), h.key.begin() + h.n);
  h.cell = cell;
  faces.push_back(h);
}

// Pairs equal faces of neighbouring cells; a face met once is a boundary face.
void matchfaces(std::vector<halfface>& faces, zonegrid& z) {
  std::sort(faces.begin(), faces.end(), [](const halfface& a, const halfface& b) {
    return a.key != b.key ? a.key < b.key : a.cell < b.cell;
  });
  for (std::size_t i = 0; i < faces.size();) {
    const bool pair = i + 1 < faces.size() && faces[i + 1].key == faces[i].key;
    const halfface& f = faces[i];
    z.npf.push_back(f.n);
    for (int k = 0; k < 4; ++k) z.ifnode.push_back(k < f.n ? f.nodes[k] : 0);
    z.ifcell.push_back(f.cell);
    z.ifcell.push_back(pair ? faces[i + 1].cell : -1);
    z.mnpf = std::max(z.mnpf, f.n);
    i += pair ? 2 : 1;
  }
}

// A prism with bottom (v0, v1, v2) and top (v3, v4, v5), v3 above v0, split into three tetrahedra
// whose diagonals on the quadrilateral faces start at the face's smallest node number, so that
// neighbouring prisms split their shared face the same way.
std::array<std::array<int, 4>, 3> splitprism(const std::array<int, 6>& v) {
  static constexpr int turn[6][6] = {{0, 1, 2, 3, 4, 5}, {1, 2, 0, 4, 5, 3}, {2, 0, 1, 5, 3, 4},
                                     {3, 5, 4, 0, 2, 1}, {4, 3, 5, 1, 0, 2}, {5, 4, 3, 2, 1, 0}};
  const int m = static_cast<int>(std::min_element(v.begin(), v.end()) - v.begin());
  std::array<int, 6> w{};
  for (int i = 0; i < 6; ++i) w[i] = v[turn[m][i]];
  if (std::min(w[1], w[5]) < std::min(w[2], w[4]))
    return {{{w[0], w[1], w[2], w[5]}, {w[0], w[1], w[5], w[4]}, {w[0], w[4], w[5], w[3]}}};
  return {{{w[0], w[1], w[2], w[4]}, {w[0], w[4], w[2], w[5]}, {w[0], w[4], w[5], w[3]}}};
}

// The sign of the volume of the tetrahedron t: positive when t[3] lies on the side of the triangle
// t[0] t[1] t[2] that its right-hand normal points to.
double handedness(const zonegrid& z, const std::array<int, 4>& t) {
  const auto at = [&](int node, int d) {
    return static_cast<double>(z.x[static_cast<std::size_t>(3 * (node - 1) + d)]);
  };
  double e[3][3];
  for (int k = 0; k < 3; ++k)
    for (int d = 0; d < 3; ++d) e[k][d] = at(t[static_cast<std::size_t>(k + 1)], d) - at(t[0], d);
  return e[0][0] * (e[1][1] * e[2][2] - e[1][2] * e[2][1]) -
         e[0][1] * (e[1][0] * e[2][2] - e[1][2] * e[2][0]) +
         e[0][2] * (e[1][0] * e[2][1] - e[1][1] * e[2][0]);
}

zonegrid tetprismzone(int nx, int ny, int nz, int prismlayers) {
  zonegrid z;
  z.ndim = 3;
  auto id = [&](int i, int j, int k) { return 1 + i + (nx + 1) * (j + (ny + 1) * k); };
  for (int k = 0; k <= nz; ++k)
    for (int j = 0; j <= ny; ++j)
      for (int i = 0; i <= nx; ++i) {
        // A smooth, mild shear keeps the cells valid and their faces non-planar enough to matter.
        const double s = 1.0 / std::max({nx, ny, nz, 1});
        const double xi = i * s, yj = j * s, zk = k * s;
        z.x.push_back(static_cast<float>(xi + 0.1 * s * std::sin(3.0 * yj)));
        z.x.push_back(static_cast<float>(yj + 0.1 * s * std::sin(2.0 * zk)));
        z.x.push_back(static_cast<float>(zk + 0.1 * s * std::sin(2.5 * xi)));
      }
  std::vector<halfface> faces;
  int cell = 0;
  bool prisms = false, tets = false;
  // Cells are numbered from the top layer down, so tetrahedra come before the prisms they share
  // nodes with: the Tecplot export marks a node as shared only when a tetrahedron claims it first.
  for (int k = nz - 1; k >= 0; --k)
    for (int j = 0; j < ny; ++j)
      for (int i = 0; i < nx; ++i) {
        const int a = id(i, j, k), b = id(i + 1, j, k), c = id(i + 1, j + 1, k), d = id(i, j + 1, k);
        const int e = id(i, j, k + 1), f = id(i + 1, j, k + 1), g = id(i + 1, j + 1, k + 1),
                  h = id(i, j + 1, k + 1);
        const std::array<int, 6> halves[2] = {{a, b, c, e, f, g}, {a, c, d, e, g, h}};
        for (const auto& p : halves) {
          if (k < prismlayers) {
            ++cell;
            prisms = true;
            addface(faces, cell, {p[0], p[2], p[1]});
            addface(faces, cell, {p[3], p[4], p[5]});
            addface(faces, cell, {p[0], p[1], p[4], p[3]});
            addface(faces, cell, {p[1], p[2], p[5], p[4]});
            addface(faces, cell, {p[2], p[0], p[3], p[5]});
          } else {
            for (auto t : splitprism(p)) {
              ++cell;
              tets = true;
              if (handedness(z, t) < 0) std::swap(t[1], t[2]);
              addface(faces, cell, {t[0], t[2], t[1]});
              addface(faces, cell, {t[0], t[1], t[3]});
              addface(faces, cell, {t[1], t[2], t[3]});
              addface(faces, cell, {t[2], t[0], t[3]});
            }
          }
        }
      }
  z.ncells = cell;
  z.mfpc = prisms ? 5 : (tets ? 4 : 0);
  matchfaces(faces, z);
  return z;
}

zonegrid quadtrizone(int nx, int ny, bool triangles) {
  zonegrid z;
  z.ndim = 2;
  auto id = [&](int i, int j) { return 1 + i + (nx + 1) * j; };
  const double s = 1.0 / std::max({nx, ny, 1});
  for (int j = 0; j <= ny; ++j)
    for (int i = 0; i <= nx; ++i) {
      z.x.push_back(static_cast<float>(i * s + 0.05 * s * std::sin(4.0 * j * s)));
      z.x.push_back(static_cast<float>(j * s));
    }
  std::vector<halfface> faces;
  int cell = 0;
  for (int j = 0; j < ny; ++j)
    for (int i = 0; i < nx; ++i) {
      const int a = id(i, j), b = id(i + 1, j), c = id(i + 1, j + 1), d = id(i, j + 1);
      if (triangles) {
        ++cell;
        addface(faces, cell, {a, b});
        addface(faces, cell, {b, c});
        addface(faces, cell, {c, a});
        ++cell;
        addface(faces, cell, {a, c});
        addface(faces, cell, {c, d});
        addface(faces, cell, {d, a});
      } else {
        ++cell;
        addface(faces, cell, {a, b});
        addface(faces, cell, {b, c});
        addface(faces, cell, {c, d});
        addface(faces, cell, {d, a});
      }
    }
  z.ncells = cell;
  z.mfpc = triangles ? 3 : 4;
  matchfaces(faces, z);
  return z;
}

// Zone k (k = 0, 1, ...) of the grid, from zone templates, each shifted by k along x.
grid assemble(const std::vector<const zonegrid*>& zones) {
  grid g;
  g.ndim = zones.front()->ndim;
  g.nzones = static_cast<int>(zones.size());
  index_t nodes = 0, faces = 0;
  int width = 0;
  for (const auto* z : zones) {
    nodes += static_cast<index_t>(z->x.size()) / g.ndim;
    faces += static_cast<index_t>(z->npf.size());
    width = std::max(width, z->mnpf);
  }
  for (auto* a : {&g.nptsz, &g.nfacesz, &g.ncellsz, &g.mnpfz, &g.mfpcz}) a->allocate(g.nzones);
  g.x.allocate(g.ndim, nodes);
  g.npf.allocate(faces);
  g.ifnode.allocate(width, faces);
  g.ifcell.allocate(2, faces);
  index_t n0 = 0, f0 = 0;
  for (int k = 0; k < g.nzones; ++k) {
    const zonegrid& z = *zones[static_cast<std::size_t>(k)];
    const auto nn = static_cast<index_t>(z.x.size()) / g.ndim;
    const auto nf = static_cast<index_t>(z.npf.size());
    g.nptsz(k + 1) = static_cast<int>(nn);
    g.nfacesz(k + 1) = static_cast<int>(nf);
    g.ncellsz(k + 1) = z.ncells;
    g.mnpfz(k + 1) = z.mnpf;
    g.mfpcz(k + 1) = z.mfpc;
    for (index_t i = 0; i < nn; ++i)
      for (int d = 0; d < g.ndim; ++d)
        g.x(d + 1, n0 + i + 1) =
            z.x[static_cast<std::size_t>(i * g.ndim + d)] + (d == 0 ? 1.25f * static_cast<float>(k) : 0.0f);
    for (index_t f = 0; f < nf; ++f) {
      const auto sf = static_cast<std::size_t>(f);
      g.npf(f0 + f + 1) = z.npf[sf];
      for (int s = 1; s <= width; ++s)
        g.ifnode(s, f0 + f + 1) = s <= 4 ? z.ifnode[sf * 4 + static_cast<std::size_t>(s - 1)] : 0;
      g.ifcell(1, f0 + f + 1) = z.ifcell[sf * 2];
      g.ifcell(2, f0 + f + 1) = z.ifcell[sf * 2 + 1];
    }
    n0 += nn;
    f0 += nf;
  }
  return g;
}

// The flow at a point: a vortex centred in the unit square, in a uniform stream along x.
std::array<double, 6> flow(double x, double y, double z) {
  const double dx = x - 0.5, dy = y - 0.5;
  const double r2 = dx * dx + dy * dy;
  const double swirl = std::exp(-r2 / 0.05);
  const double u = 1.0 - 2.0 * dy * swirl;
  const double v = 2.0 * dx * swirl;
  const double w = 0.1 * std::sin(3.14159265358979 * z);
  const double rho = 1.0 - 0.2 * swirl;
  const double p = 1.0 / 1.4 - 0.3 * swirl;
  return {rho, u, v, w, p, std::sqrt(u * u + v * v + w * w)};
}

}  // namespace

grid tetprism(int nx, int ny, int nz, int prismlayers, int nzones) {
  const zonegrid z = tetprismzone(nx, ny, nz, prismlayers);
  return assemble(std::vector<const zonegrid*>(static_cast<std::size_t>(std::max(nzones, 1)), &z));
}

grid quadtri(int nx, int ny, bool triangles, int nzones) {
  const zonegrid a = quadtrizone(nx, ny, triangles);
  const zonegrid b = quadtrizone(nx, ny, !triangles);
  std::vector<const zonegrid*> zones;
  for (int k = 0; k < std::max(nzones, 1); ++k) zones.push_back(k % 2 == 0 ? &a : &b);
  return assemble(zones);
}

farray<float, 2> nodesolution(const grid& g, int nfree) {
  farray<float, 2> pix;
  pix.allocate(6 + nfree, g.x.extent(2));
  for (index_t n = 1; n <= g.x.extent(2); ++n) {
    const double xx = std::fmod(g.x(1, n), 1.25), yy = g.x(2, n), zz = g.ndim > 2 ? g.x(3, n) : 0.0;
    const auto f = flow(xx, yy, zz);
    for (int v = 1; v <= 6 + nfree; ++v)
      pix(v, n) = static_cast<float>(v <= 6 ? f[static_cast<std::size_t>(v - 1)] : f[5] * v);
  }
  return pix;
}

farray<float, 2> cellsolution(const grid& g, int nvar) {
  index_t ncells = 0;
  for (int k = 1; k <= g.nzones; ++k) ncells += g.ncellsz(k);
  farray<float, 2> q;
  q.allocate(nvar, ncells);
  // The cell index stands in for its centre: a smooth function of the cell number.
  for (index_t c = 1; c <= ncells; ++c) {
    const double t = static_cast<double>(c) / static_cast<double>(std::max<index_t>(ncells, 1));
    const auto f = flow(t, 0.5 + 0.3 * std::sin(6.28318530718 * t), t);
    for (int v = 1; v <= nvar; ++v) q(v, c) = static_cast<float>(f[static_cast<std::size_t>((v - 1) % 6)]);
  }
  return q;
}

int edgeforcells(std::int64_t cells) {
  // Half the layers are prisms (2 per hexahedron), half tetrahedra (6 per hexahedron): 4 n^3 cells.
  return std::max(1, static_cast<int>(std::lround(std::cbrt(static_cast<double>(cells) / 4.0))));
}

zelm::grid typed(const grid& g) {
  zelm::grid t;
  t.ndim = g.ndim;
  t.aux = g.ngridaux;
  for (int k = 1; k <= g.nzones; ++k)
    t.zones.push_back({g.nptsz(k), g.nfacesz(k), g.ncellsz(k), g.mnpfz(k), g.mfpcz(k)});
  t.x.allocate(g.x.extent(1), g.x.extent(2));
  std::copy_n(g.x.data(), g.x.size(), t.x.data());
  t.npf.allocate(g.npf.extent(1));
  std::copy_n(g.npf.data(), g.npf.size(), t.npf.data());
  t.ifnode.allocate(g.ifnode.extent(1), g.ifnode.extent(2));
  std::copy_n(g.ifnode.data(), g.ifnode.size(), t.ifnode.data());
  t.ifcell.allocate(2, g.ifcell.extent(2));
  std::copy_n(g.ifcell.data(), g.ifcell.size(), t.ifcell.data());
  return t;
}

}  // namespace zelmgen
