// Comparisons of two files of one kind: structure exactly, values within a tolerance, and where
// the largest differences are.
#include <cmath>
#include <cstdio>
#include <functional>
#include <type_traits>

#include "internal.hpp"

namespace zelm::check {

using detail::fail;

double ulpdistance(double a, double b, bool dblprec) {
  if (a == b || (std::isnan(a) && std::isnan(b))) return 0;
  if (!std::isfinite(a) || !std::isfinite(b)) return INFINITY;
  const double m = std::min(std::abs(a), std::abs(b));
  const int mantissa = dblprec ? 52 : 23, lowest = dblprec ? -1074 : -149;
  int e = 0;
  std::frexp(m, &e);  // m = f x 2^e, 0.5 <= f < 1
  const double ulp = std::ldexp(1.0, std::max(e - 1 - mantissa, lowest));
  return std::abs(a - b) / ulp;
}

namespace {

std::string g(double v) {
  char b[32];
  std::snprintf(b, sizeof b, "%.9g", v);
  return b;
}

// What the comparison of one file pair needs to know besides the values.
struct context {
  tolerance t;
  bool dblprec = false;  // the coarser precision of the two files is 8-byte
  bool single[2] = {};   // a file of 4-byte reals: its values are floats (text read into doubles is rounded)
  std::vector<int> perzone;        // items per zone
  const char* item = "item";       // "node", "cell"
  const double* coords = nullptr;  // ndim values per item, or null
  int ndim = 0;

  double value(int which, double v) const {
    return single[which] ? static_cast<double>(static_cast<float>(v)) : v;
  }
  bool within(double a, double b) const {
    if (a == b || (std::isnan(a) && std::isnan(b))) return true;
    const double d = std::abs(a - b);
    return d <= t.atol + t.rtol * std::max(std::abs(a), std::abs(b)) || ulpdistance(a, b, dblprec) <= t.ulps;
  }
  std::string place(std::int64_t i) const {
    std::int64_t j = i;
    std::size_t k = 0;
    while (k + 1 < perzone.size() && j >= perzone[k]) j -= perzone[k++];
    std::string s = "zone " + std::to_string(k + 1) + " " + item + " " + std::to_string(j + 1);
    if (coords != nullptr) {
      s += " at (";
      for (int d = 0; d < ndim; ++d) s += (d ? ", " : "") + g(coords[i * ndim + d]);
      s += ")";
    }
    return s;
  }
};

// One quantity of both files, n items with a stride: a check and the largest differences.
void comparevalues(section& s, const std::string& name, const double* a, const double* b, index_t stride,
                   index_t n, const context& cx) {
  check c{name + " within tolerance"};
  detail::accumulator abs{name + ": absolute difference"}, rel{name + ": relative difference"},
      ulps{name + ": difference in ULPs"};
  for (index_t i = 0; i < n; ++i) {
    const double x = cx.value(0, a[i * stride]), y = cx.value(1, b[i * stride]);
    const double d = (x == y || (std::isnan(x) && std::isnan(y))) ? 0.0 : std::abs(x - y);
    const double scale = std::max(std::abs(x), std::abs(y));
    abs.add(std::isnan(d) ? INFINITY : d, i);
    rel.add(d == 0 ? 0.0 : scale > 0 ? d / scale : INFINITY, i);
    ulps.add(ulpdistance(x, y, cx.dblprec), i);
    if (!cx.within(x, y)) fail(c, cx.place(i) + ": " + g(x) + " vs " + g(y));
  }
  const auto where = [&](std::int64_t i) {
    return cx.place(i) + ": " + g(cx.value(0, a[i * stride])) + " vs " + g(cx.value(1, b[i * stride]));
  };
  c.note = "of " + detail::num(n);
  s.checks.push_back(std::move(c));
  for (auto* q : {&abs, &rel, &ulps}) {
    auto r = q->result(where);
    r.minwhere.clear();
    if (q->count < n) r.name += " (" + detail::num(n - q->count) + " not finite)";
    s.ranges.push_back(std::move(r));
  }
}

// Header values: reals within tolerance, other things exactly.
void same(section& s, const std::string& name, double a, double b, const context& cx) {
  check c{name + " equal"};
  a = cx.value(0, a), b = cx.value(1, b);
  if (!cx.within(a, b)) fail(c, g(a) + " vs " + g(b));
  s.checks.push_back(std::move(c));
}
template <class T>
void exact(section& s, const std::string& name, const T& a, const T& b,
           const std::function<std::string(const T&)>& show) {
  check c{name + " equal"};
  if (!(a == b)) fail(c, show(a) + " vs " + show(b));
  s.checks.push_back(std::move(c));
}
void exactint(section& s, const std::string& name, std::int64_t a, std::int64_t b) {
  exact<std::int64_t>(s, name, a, b, [](const std::int64_t& v) { return std::to_string(v); });
}
void exacttext(section& s, const std::string& name, const std::string& a, const std::string& b) {
  exact<std::string>(s, name, a, b, [](const std::string& v) { return "\"" + v + "\""; });
}

// The name of a reference value in the files' headers.
template <class File>
const char* headername(double File::*m) {
  if constexpr (std::is_same_v<File, pix>)
    if (m == &pix::dvar) return "dvar";
  return m == &File::dgamma  ? "dgamma"
         : m == &File::drgas ? "drgas"
         : m == &File::dr0   ? "dr0"
         : m == &File::drm0  ? "drm0"
                             : "dp0";
}

context contextof(tolerance t, side sa, side sb) {
  context cx;
  cx.t = t;
  cx.dblprec = sa.dblprec && sb.dblprec;
  cx.single[0] = !sa.dblprec, cx.single[1] = !sb.dblprec;
  return cx;
}

// The variables of two solutions, (variables, items), compared one by one.
void comparerows(report& r, const farray<double, 2>& a, const farray<double, 2>& b, const context& cx,
                 const std::vector<std::string>& names) {
  section s{"values"};
  const index_t nvar = std::min(a.extent(1), b.extent(1));
  if (a.extent(2) != b.extent(2)) return;
  for (index_t v = 1; v <= nvar; ++v) {
    const auto i = static_cast<std::size_t>(v - 1);
    const std::string name = "variable " + std::to_string(v) +
                             (i < names.size() && !names[i].empty() ? " (" + names[i] + ")" : "");
    comparevalues(s, name, a.data() + (v - 1), b.data() + (v - 1), a.extent(1), a.extent(2), cx);
  }
  r.sections.push_back(std::move(s));
}

}  // namespace

report diffgrids(const grid& a, side sa, const grid& b, side sb, tolerance t) {
  report r;
  context cx = contextof(t, sa, sb);
  section h{"header"};
  exactint(h, "ndim", a.ndim, b.ndim);
  exactint(h, "number of zones", static_cast<std::int64_t>(a.zones.size()),
           static_cast<std::int64_t>(b.zones.size()));
  exactint(h, "auxiliary value", a.aux, b.aux);
  bool alike = a.ndim == b.ndim && a.zones.size() == b.zones.size();
  for (std::size_t k = 0; alike && k < a.zones.size(); ++k) {
    const auto &p = a.zones[k], &q = b.zones[k];
    const auto counts = [](const zonecounts& z) {
      return std::to_string(z.nodes) + " nodes, " + std::to_string(z.faces) + " faces, " +
             std::to_string(z.cells) + " cells, mnpfz " + std::to_string(z.mnpf) + ", mfpcz " +
             std::to_string(z.mfpc);
    };
    exacttext(h, "zone " + std::to_string(k + 1) + " counts", counts(p), counts(q));
    alike = alike && p.nodes == q.nodes && p.faces == q.faces && p.cells == q.cells;
  }
  r.sections.push_back(std::move(h));
  if (!alike) return r;  // nothing further lines up

  section x{"coordinates"};
  cx.perzone = a.nodesperzone();
  cx.item = "node";
  cx.coords = a.x.data();
  cx.ndim = a.ndim;
  static const char* axis[] = {"x", "y", "z"};
  for (int d = 0; d < a.ndim; ++d)
    comparevalues(x, d < 3 ? axis[d] : "coordinate " + std::to_string(d + 1), a.x.data() + d, b.x.data() + d,
                  a.ndim, a.totalnodes(), cx);
  r.sections.push_back(std::move(x));

  section c{"connectivity"};
  check faces{"faces equal, face for face (node count, nodes, cells)"};
  const index_t wa = a.ifnode.extent(1), wb = b.ifnode.extent(1);
  index_t f = 0;
  for (std::size_t k = 0; k < a.zones.size(); ++k)
    for (index_t i = 0; i < a.zones[k].faces; ++i, ++f) {
      const int n = a.npf(f + 1);
      bool eq = n == b.npf(f + 1) && a.ifcell(1, f + 1) == b.ifcell(1, f + 1) &&
                a.ifcell(2, f + 1) == b.ifcell(2, f + 1);
      for (index_t j = 1; eq && j <= std::min<index_t>({n, wa, wb}); ++j)
        eq = a.ifnode(j, f + 1) == b.ifnode(j, f + 1);
      if (eq) continue;
      const auto show = [&](const grid& gr) {
        std::string s = std::to_string(gr.npf(f + 1)) + ":";
        for (index_t j = 1; j <= std::min<index_t>(gr.npf(f + 1), gr.ifnode.extent(1)); ++j)
          s += " " + std::to_string(gr.ifnode(j, f + 1));
        return s + " | " + std::to_string(gr.ifcell(1, f + 1)) + " " + std::to_string(gr.ifcell(2, f + 1));
      };
      fail(faces, "zone " + std::to_string(k + 1) + " face " + std::to_string(i + 1) + ": " + show(a) +
                      " vs " + show(b));
    }
  faces.note = "of " + detail::num(f);
  c.checks.push_back(std::move(faces));
  r.sections.push_back(std::move(c));
  return r;
}

report diffpix(const pix& a, side sa, const pix& b, side sb, const std::vector<int>& nodesperzone,
               const grid* coordinates, tolerance t) {
  report r;
  context cx = contextof(t, sa, sb);
  section h{"header"};
  for (auto m : {&pix::dvar, &pix::dgamma, &pix::drgas, &pix::dr0, &pix::drm0, &pix::dp0})
    same(h, headername(m), a.*m, b.*m, cx);
  exacttext(h, "header text", a.text, b.text);
  exactint(h, "number of free variables", static_cast<std::int64_t>(a.labels.size()),
           static_cast<std::int64_t>(b.labels.size()));
  for (std::size_t i = 0; i < std::min(a.labels.size(), b.labels.size()); ++i)
    exacttext(h, "label " + std::to_string(i + 1), a.labels[i], b.labels[i]);
  r.sections.push_back(std::move(h));
  cx.perzone = nodesperzone;
  cx.item = "node";
  if (coordinates) cx.coords = coordinates->x.data(), cx.ndim = coordinates->ndim;
  std::vector<std::string> labels = {"RHO", "U", "V", "W", "P", "FREE"};
  for (auto l : a.labels) labels.push_back(l.erase(l.find_last_not_of(' ') + 1));
  comparerows(r, a.values, b.values, cx, labels);
  return r;
}

report diffrestart(const restart& a, side sa, const restart& b, side sb, const std::vector<int>& cellsperzone,
                   const grid* coordinates, tolerance t) {
  report r;
  context cx = contextof(t, sa, sb);
  section h{"header"};
  same(h, "dtime", a.dtime, b.dtime, cx);
  exactint(h, "lastcyc", a.lastcyc, b.lastcyc);
  exactint(h, "rstype", a.rstype, b.rstype);
  for (auto m : {&restart::dgamma, &restart::drgas, &restart::dr0, &restart::drm0, &restart::dp0})
    same(h, headername(m), a.*m, b.*m, cx);
  exactint(h, "number of variables", a.q.extent(1), b.q.extent(1));
  r.sections.push_back(std::move(h));
  cx.perzone = cellsperzone;
  cx.item = "cell";
  std::vector<double> centres;
  if (coordinates) {
    centres = detail::cellcentres(*coordinates);
    cx.coords = centres.data(), cx.ndim = 3;
  }
  comparerows(r, a.q, b.q, cx, {});
  return r;
}

}  // namespace zelm::check
