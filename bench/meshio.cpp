// The meshio baseline: the grid's cells by their nodes, and the node values, handed to
// bench/meshio_path.py as raw arrays; it times meshio writing them and reports one row per format.
#include <filesystem>
#include <sstream>

#include "baselines.hpp"

namespace zelmbench {
namespace {

namespace fs = std::filesystem;

// meshio wants cells by their nodes; the grid knows them only through faces. Nodes get numbers over
// the whole grid, from 0.
struct cellnodes {
  std::vector<std::int32_t> tets, wedges, tris, quads;
};

cellnodes nodesofcells(const zelmgen::grid& g) {
  cellnodes out;
  index_t f0 = 0, n0 = 0;
  for (int k = 1; k <= g.nzones; ++k) {
    const int nc = g.ncellsz(k);
    std::vector<int> count(static_cast<std::size_t>(nc) + 1, 0);
    for (index_t f = f0 + 1; f <= f0 + g.nfacesz(k); ++f)
      for (int s = 1; s <= 2; ++s)
        if (g.ifcell(s, f) > 0) ++count[static_cast<std::size_t>(g.ifcell(s, f))];
    std::vector<int> start(static_cast<std::size_t>(nc) + 2, 0);
    for (int c = 1; c <= nc; ++c)
      start[static_cast<std::size_t>(c) + 1] =
          start[static_cast<std::size_t>(c)] + count[static_cast<std::size_t>(c)];
    std::vector<index_t> faces(static_cast<std::size_t>(start[static_cast<std::size_t>(nc) + 1]));
    std::vector<int> fill(start.begin(), start.end());
    for (index_t f = f0 + 1; f <= f0 + g.nfacesz(k); ++f)
      for (int s = 1; s <= 2; ++s)
        if (g.ifcell(s, f) > 0)
          faces[static_cast<std::size_t>(fill[static_cast<std::size_t>(g.ifcell(s, f))]++)] = f;
    auto node = [&](index_t f, int j) { return g.ifnode(j, f); };
    auto global = [&](int n) { return static_cast<std::int32_t>(n0 + n - 1); };
    for (int c = 1; c <= nc; ++c) {
      const index_t* cf = faces.data() + start[static_cast<std::size_t>(c)];
      const int m = count[static_cast<std::size_t>(c)];
      if (g.ndim == 3 && m == 4) {
        const int a = node(cf[0], 1), b = node(cf[0], 2), cc = node(cf[0], 3);
        int d = 0;
        for (int j = 1; j <= 3; ++j) {
          const int n = node(cf[1], j);
          if (n != a && n != b && n != cc) d = n;
        }
        for (int n : {a, b, cc, d}) out.tets.push_back(global(n));
      } else if (g.ndim == 3 && m == 5) {
        index_t t[2] = {0, 0};
        int nt = 0;
        for (int i = 0; i < 5; ++i)
          if (g.npf(cf[i]) == 3 && nt < 2) t[nt++] = cf[i];
        if (nt < 2) continue;
        int low[3], high[3];
        for (int j = 0; j < 3; ++j) {
          low[j] = node(t[0], j + 1);
          high[j] = 0;
          for (int i = 0; i < 5; ++i) {
            if (g.npf(cf[i]) != 4) continue;
            for (int e = 1; e <= 4; ++e) {
              const int p = node(cf[i], e), r = node(cf[i], e % 4 + 1);
              const int other = p == low[j] ? r : r == low[j] ? p : 0;
              if (other != 0 && (other == node(t[1], 1) || other == node(t[1], 2) || other == node(t[1], 3)))
                high[j] = other;
            }
          }
        }
        for (int n : low) out.wedges.push_back(global(n));
        for (int n : high) out.wedges.push_back(global(n));
      } else if (g.ndim == 2 && (m == 3 || m == 4)) {
        const int a = node(cf[0], 1), b = node(cf[0], 2);
        int c3 = 0, d = 0;
        for (int i = 1; i < m; ++i) {
          const int e1 = node(cf[i], 1), e2 = node(cf[i], 2);
          if (e1 == b) c3 = e2;
          if (e2 == b) c3 = e1;
          if (e1 == a) d = e2;
          if (e2 == a) d = e1;
        }
        if (m == 3) {
          for (int n : {a, b, c3}) out.tris.push_back(global(n));
        } else {
          for (int n : {a, b, c3, d}) out.quads.push_back(global(n));
        }
      }
    }
    f0 += g.nfacesz(k);
    n0 += g.nptsz(k);
  }
  return out;
}

template <class T>
void writearray(const std::string& p, const T* a, std::size_t n) {
  std::FILE* f = std::fopen(p.c_str(), "wb");
  if (f == nullptr || (n > 0 && std::fwrite(a, sizeof(T), n, f) != n)) die("cannot write " + p);
  std::fclose(f);
}

}  // namespace

void addmeshio(bench& b, data& d) {
  if (d.opt.meshio.empty() || d.opt.mruns == 0) return;
  if (!d.opt.only.empty() && std::string("meshio").find(d.opt.only) == std::string::npos) return;
  const auto& g = d.g;
  const cellnodes c = nodesofcells(g);
  std::vector<double> pts(static_cast<std::size_t>(3 * d.nnodes), 0.0);
  for (index_t n = 1; n <= d.nnodes; ++n)
    for (int i = 1; i <= g.ndim; ++i) pts[static_cast<std::size_t>(3 * (n - 1) + i - 1)] = g.x(i, n);
  std::vector<double> pd(static_cast<std::size_t>(6 * d.nnodes));
  for (int v = 1; v <= 6; ++v)
    for (index_t n = 1; n <= d.nnodes; ++n)
      pd[static_cast<std::size_t>((v - 1) * d.nnodes + n - 1)] = d.pix(v, n);
  const std::string md = d.path("meshio");
  fs::create_directories(md);
  writearray(md + "/points.f64", pts.data(), pts.size());
  writearray(md + "/pointdata.f64", pd.data(), pd.size());
  writearray(md + "/tetra.i32", c.tets.data(), c.tets.size());
  writearray(md + "/wedge.i32", c.wedges.data(), c.wedges.size());
  writearray(md + "/triangle.i32", c.tris.data(), c.tris.size());
  writearray(md + "/quad.i32", c.quads.data(), c.quads.size());
  std::printf("%-40s", "meshio (Tecplot ASCII, VTU)");
  std::fflush(stdout);
  int status = 0;
  const std::string out = runprogram(
      {d.opt.python, d.opt.meshio, md, std::to_string(d.nnodes), std::to_string(d.opt.mruns)}, status);
  if (status != 0) {
    std::printf(" FAILED (status %d)\n%s\n", status, out.c_str());
    return;
  }
  std::istringstream in(out);
  std::string line;
  std::string summary;
  while (std::getline(in, line)) {
    std::istringstream ls(line);
    std::string tag, what;
    double wall = 0, cpu = 0;
    std::int64_t bytes = 0, peakkb = 0;
    if (!(ls >> tag >> what >> wall >> cpu >> bytes >> peakkb) || tag != "RESULT") continue;
    row* r = nullptr;
    for (auto& x : b.rows)
      if (x.name == "meshio/" + what) r = &x;
    if (r == nullptr) {
      row nr;
      nr.name = "meshio/" + what;
      nr.impl = "meshio";
      nr.enc = "-";
      b.rows.push_back(nr);
      r = &b.rows.back();
    }
    sample s;
    s.wall = wall;
    s.cpu = cpu;
    s.peakkb = peakkb;
    s.ok = 1;
    r->samples.push_back(s);
    r->bytes = bytes;
  }
  for (const auto& r : b.rows)
    if (r.impl == "meshio") {
      std::vector<double> w;
      for (const auto& s : r.samples) w.push_back(s.wall);
      summary += " " + r.name.substr(7) + " " + std::to_string(median(w)).substr(0, 6) + " s";
    }
  std::printf("%s\n", summary.c_str());
}

}  // namespace zelmbench
