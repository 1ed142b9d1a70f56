// Grids for the Tecplot export tests, the expected text of its records, and the VTK reader check.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "testsupport.hpp"

namespace tt {

using fortran::farray;

// A face: its nodes (zone numbering) and the two cells beside it (> 0 a cell, < 0 boundary, 0 none).
struct face {
  std::vector<int> nodes;
  int c1 = 0, c2 = 0;
};

struct zone {
  std::vector<std::array<double, 3>> points;  // coordinates of the zone's nodes 1, 2, ...
  std::vector<face> faces;
  int ncells = 0;
  int mfpc = 0;  // mfpcz of the zone
  int mnpf = 0;  // mnpfz of the zone; 0: the largest face's node count
};

// The arrays that writetecplotfile takes, zones stacked one after the other as the grid reader
// returns them: coordinates and faces of zone 2 follow those of zone 1.
struct grid {
  int ndim = 0, nzones = 0;
  farray<double, 2> x, qnode;
  farray<int, 1> nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf;
  farray<int, 2> ifnode, ifcell;

  void write(const fortran::char40& name) {
    mod_zelmgrid::writetecplotfile(name, ndim, nzones, x, nptsz, nfacesz, ncellsz, mnpfz, mfpcz, npf, ifnode,
                                   ifcell, qnode);
  }
};

// The solution value that the tests store for variable v of node n (exact in binary).
inline double qvalue(int v, int n) {
  return 10.0 * v + 0.25 * n;
}

// Builds the arrays. nfacesz(iz) is the highest face number of zone iz (cumulative) unless
// perzonefaces is set; qnode gets `nvals` values per node.
inline grid build(int ndim, const std::vector<zone>& zones, int nvals = 6, bool perzonefaces = false) {
  grid g;
  g.ndim = ndim;
  g.nzones = static_cast<int>(zones.size());
  int nn = 0, nf = 0, width = 1;
  for (const auto& z : zones) {
    nn += static_cast<int>(z.points.size());
    nf += static_cast<int>(z.faces.size());
    for (const auto& f : z.faces) width = std::max(width, static_cast<int>(f.nodes.size()));
    width = std::max(width, z.mnpf);
  }
  width = std::max(width, ndim == 3 ? 3 : 2);
  for (auto* a : {&g.nptsz, &g.nfacesz, &g.ncellsz, &g.mnpfz, &g.mfpcz}) a->allocate(g.nzones);
  g.x.allocate(ndim, nn);
  g.qnode.allocate(nvals, nn);
  g.npf.allocate(nf);
  g.ifnode.allocate(width, nf);
  g.ifcell.allocate(2, nf);
  int node = 0, f = 0;
  for (int k = 1; k <= g.nzones; ++k) {
    const auto& z = zones[static_cast<std::size_t>(k - 1)];
    g.nptsz(k) = static_cast<int>(z.points.size());
    g.nfacesz(k) = perzonefaces ? static_cast<int>(z.faces.size()) : f + static_cast<int>(z.faces.size());
    g.ncellsz(k) = z.ncells;
    int mnpf = 0;
    for (const auto& fc : z.faces) mnpf = std::max(mnpf, static_cast<int>(fc.nodes.size()));
    g.mnpfz(k) = z.mnpf != 0 ? z.mnpf : mnpf;
    g.mfpcz(k) = z.mfpc;
    for (const auto& p : z.points) {
      ++node;
      for (int d = 1; d <= ndim; ++d) g.x(d, node) = p[static_cast<std::size_t>(d - 1)];
      for (int v = 1; v <= nvals; ++v) g.qnode(v, node) = qvalue(v, node);
    }
    for (const auto& fc : z.faces) {
      ++f;
      g.npf(f) = static_cast<int>(fc.nodes.size());
      for (int i = 1; i <= width; ++i)
        g.ifnode(i, f) = i <= g.npf(f) ? fc.nodes[static_cast<std::size_t>(i - 1)] : 0;
      g.ifcell(1, f) = fc.c1;
      g.ifcell(2, f) = fc.c2;
    }
  }
  return g;
}

// ---- grids -------------------------------------------------------------------------------------

// Two unit squares side by side: nodes 1 2 3 along y = 0, 4 5 6 along y = 1; cell 1 = 1 2 5 4,
// cell 2 = 2 3 6 5; the edges listed as they bound the cells, the shared edge 2-5 last.
inline zone quadstrip() {
  zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {0, 1, 0}, {1, 1, 0}, {2, 1, 0}};
  z.faces = {{{1, 2}, 1, -1}, {{2, 3}, 2, -1}, {{3, 6}, 2, -1}, {{6, 5}, 2, -1},
             {{5, 4}, 1, -1}, {{4, 1}, 1, -1}, {{2, 5}, 1, 2}};
  z.ncells = 2;
  z.mfpc = 4;
  return z;
}

// A unit square cut into four triangles around its centre, node 5 (not on the boundary).
inline zone trianglefan() {
  zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0.5, 0.5, 0}};
  z.faces = {{{1, 2}, 1, -1}, {{2, 3}, 2, -1}, {{3, 4}, 3, -1}, {{4, 1}, 4, -1},
             {{1, 5}, 1, 4},  {{2, 5}, 2, 1},  {{3, 5}, 3, 2},  {{4, 5}, 4, 3}};
  z.ncells = 4;
  z.mfpc = 3;
  return z;
}

// A tetrahedron cut into four around its centroid, node 5.
inline zone tetstar() {
  zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0.25, 0.25, 0.25}};
  // Cells: 1 = 1 2 3 5, 2 = 1 2 4 5, 3 = 1 3 4 5, 4 = 2 3 4 5.
  z.faces = {{{1, 2, 3}, 1, -1}, {{1, 2, 4}, 2, -1}, {{1, 3, 4}, 3, -1}, {{2, 3, 4}, 4, -1},
             {{1, 2, 5}, 1, 2},  {{1, 3, 5}, 1, 3},  {{2, 3, 5}, 1, 4},  {{1, 4, 5}, 2, 3},
             {{2, 4, 5}, 2, 4},  {{3, 4, 5}, 3, 4}};
  z.ncells = 4;
  z.mfpc = 4;
  return z;
}

// A triangular prism (cell 2: bottom 1 2 3 at z = 0, top 4 5 6 at z = 1) with a tetrahedron
// (cell 1) on its top face, apex node 7.
inline zone prismwithtet() {
  zone z;
  z.points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {0.25, 0.25, 2}};
  z.faces = {{{1, 2, 3}, 2, -1}, {{1, 2, 5, 4}, 2, -1}, {{2, 3, 6, 5}, 2, -1}, {{3, 1, 4, 6}, 2, -1},
             {{4, 5, 6}, 1, 2},  {{4, 5, 7}, 1, -1},    {{5, 6, 7}, 1, -1},    {{6, 4, 7}, 1, -1}};
  z.ncells = 2;
  z.mfpc = 5;
  return z;
}

// ---- expected text -----------------------------------------------------------------------------

// A list-directed record of 8-byte reals: one line, each value a blank and its 25-column field.
inline std::vector<std::string> realrecord(const std::vector<double>& v) {
  std::string line;
  for (double x : v) line += zt::listreal(x);
  return {line};
}

// A list-directed record of integers: one line, each in 12 columns (a blank, then 11).
inline std::vector<std::string> intrecord(const std::vector<int>& v) {
  std::string line;
  for (int x : v) {
    char b[24];
    std::snprintf(b, sizeof b, " %11d", x);
    line += b;
  }
  return {line};
}

// The node record of node n of g: coordinates, then `nvals` solution values.
inline std::vector<std::string> noderecord(const grid& g, int n, int nvals) {
  std::vector<double> v;
  for (int d = 1; d <= g.ndim; ++d) v.push_back(g.x(d, n));
  for (int k = 1; k <= nvals; ++k) v.push_back(g.qnode(k, n));
  return realrecord(v);
}

inline void append(std::vector<std::string>& to, const std::vector<std::string>& more) {
  to.insert(to.end(), more.begin(), more.end());
}

// ---- a small JSON reader for the checker's output ----------------------------------------------

struct json {
  enum class kind { null, boolean, number, string, array, object } k = kind::null;
  bool b = false;
  double num = 0;
  std::string str;
  std::vector<json> arr;
  std::vector<std::pair<std::string, json>> obj;

  const json& operator[](const std::string& key) const {
    for (const auto& [name, v] : obj)
      if (name == key) return v;
    throw std::runtime_error("no key " + key);
  }
  const json& operator[](std::size_t i) const { return arr.at(i); }
  std::size_t size() const { return k == kind::array ? arr.size() : obj.size(); }
  int integer() const { return static_cast<int>(num); }
  std::vector<int> ints() const {
    std::vector<int> v;
    for (const auto& e : arr) v.push_back(e.integer());
    return v;
  }
  std::vector<std::string> strings() const {
    std::vector<std::string> v;
    for (const auto& e : arr) v.push_back(e.str);
    return v;
  }

  static json parse(const std::string& text) {
    std::size_t p = 0;
    json v = value(text, p);
    skip(text, p);
    if (p != text.size()) throw std::runtime_error("trailing text in JSON");
    return v;
  }

 private:
  static void skip(const std::string& t, std::size_t& p) {
    while (p < t.size() && (t[p] == ' ' || t[p] == '\n' || t[p] == '\r' || t[p] == '\t')) ++p;
  }
  static std::string stringat(const std::string& t, std::size_t& p) {
    std::string s;
    ++p;  // opening quote
    while (p < t.size() && t[p] != '"') {
      if (t[p] == '\\') {
        ++p;
        const char c = t.at(p);
        if (c == 'n')
          s += '\n';
        else if (c == 't')
          s += '\t';
        else if (c == 'u') {
          s += static_cast<char>(std::stoi(t.substr(p + 1, 4), nullptr, 16));
          p += 4;
        } else
          s += c;
      } else {
        s += t[p];
      }
      ++p;
    }
    if (p >= t.size()) throw std::runtime_error("unterminated JSON string");
    ++p;
    return s;
  }
  static json value(const std::string& t, std::size_t& p) {
    skip(t, p);
    if (p >= t.size()) throw std::runtime_error("JSON ends early");
    json v;
    const char c = t[p];
    if (c == '{') {
      v.k = kind::object;
      ++p;
      skip(t, p);
      if (t.at(p) == '}') return ++p, v;
      for (;;) {
        skip(t, p);
        std::string key = stringat(t, p);
        skip(t, p);
        if (t.at(p) != ':') throw std::runtime_error("expected : in JSON");
        ++p;
        v.obj.emplace_back(key, value(t, p));
        skip(t, p);
        if (t.at(p) == ',') {
          ++p;
          continue;
        }
        if (t.at(p) != '}') throw std::runtime_error("expected } in JSON");
        ++p;
        return v;
      }
    }
    if (c == '[') {
      v.k = kind::array;
      ++p;
      skip(t, p);
      if (t.at(p) == ']') return ++p, v;
      for (;;) {
        v.arr.push_back(value(t, p));
        skip(t, p);
        if (t.at(p) == ',') {
          ++p;
          continue;
        }
        if (t.at(p) != ']') throw std::runtime_error("expected ] in JSON");
        ++p;
        return v;
      }
    }
    if (c == '"') {
      v.k = kind::string;
      v.str = stringat(t, p);
      return v;
    }
    if (t.compare(p, 4, "true") == 0) return p += 4, v.k = kind::boolean, v.b = true, v;
    if (t.compare(p, 5, "false") == 0) return p += 5, v.k = kind::boolean, v;
    if (t.compare(p, 4, "null") == 0) return p += 4, v;
    std::size_t used = 0;
    v.k = kind::number;
    v.num = std::stod(t.substr(p, 40), &used);
    p += used;
    return v;
  }
};

// ---- the VTK reader ----------------------------------------------------------------------------

inline const char* python = "/usr/bin/python3";

// Whether Debian's VTK can be imported.
inline bool vtkavailable() {
  static const int ok = [] {
    const std::string cmd = std::string(python) + " -c 'import vtk' >/dev/null 2>&1";
    return std::system(cmd.c_str()) == 0 ? 1 : 0;
  }();
  return ok == 1;
}

struct vtkrun {
  int status = -1;  // the checker's exit status; 124 when it was still running at the time limit
  std::string output;
};

// Runs tests/python/tecplot_vtk.py on a file, for at most `seconds`.
inline vtkrun runvtk(const std::string& file, int seconds) {
  const std::string cmd = "timeout " + std::to_string(seconds) + " " + python + " " + ZELM_SOURCE_DIR +
                          "/tests/python/tecplot_vtk.py '" + file + "' 2>&1";
  FILE* p = ::popen(cmd.c_str(), "r");
  if (p == nullptr) throw std::runtime_error("cannot run " + cmd);
  vtkrun r;
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
  const int status = ::pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}

// The checker's JSON report on a file.
inline json readwithvtk(const std::string& file) {
  const vtkrun r = runvtk(file, 120);
  if (r.status != 0)
    throw std::runtime_error("the VTK checker failed (" + std::to_string(r.status) + "):\n" + r.output);
  return json::parse(r.output);
}

}  // namespace tt
