// Typed, zone-exact access to the three file kinds over standalone units.
#include "zelmgrid/files.hpp"

#include <algorithm>
#include <numeric>

#include "internal.hpp"

namespace zelm {

namespace io = mod_zelmgrid::io;
using io::rstat;

namespace {

io::form formof(encoding e) {
  return e == encoding::formatted ? io::form::formatted
         : e == encoding::binary  ? io::form::binary
                                  : io::form::unformatted;
}

void check(io::unit& u, rstat st) {
  if (st != rstat::ok) u.throwreaderror();
}

[[noreturn]] void invalid(io::unit& u, const std::string& why) {
  io::detail::setreaderror(u, rstat::error, u.position(), why);
  u.throwreaderror();
}

template <class T, int R, class... N>
void allocate(io::unit& u, farray<T, R>& a, const char* what, N... n) {
  if (a.allocate(n...) != 0) invalid(u, std::string("cannot allocate ") + what + ": out of memory");
}

// A statement in the file's encoding. Reals travel as `real` on disk (float or double) and are held
// as double; formatted text is read straight into doubles.
template <class Real>
struct reader {
  io::unit& u;
  bool text;
  template <class... Items>
  void record(Items&&... its) {
    check(u, text ? io::listread(u, its...) : io::rawread(u, its...));
  }
  // n reals into dst (double), through a Real scratch for the raw encodings.
  void reals(double* dst, index_t n, std::vector<Real>& scratch) {
    if constexpr (std::is_same_v<Real, double>) {
      record(io::items(dst, n));
      return;
    }
    scratch.resize(static_cast<std::size_t>(std::max<index_t>(n, 0)));
    record(io::items(scratch.data(), n));
    std::copy(scratch.begin(), scratch.end(), dst);
  }
  // Header reals: straight into the doubles, or through Real.
  void headerreals(std::initializer_list<double*> dst) {
    if (text) {
      io::listin s(u);
      for (double* d : dst) s.item(*d);
      check(u, s.finish());
    } else if constexpr (std::is_same_v<Real, double>) {
      io::rawin s(u);
      for (double* d : dst) s.item(*d);
      check(u, s.finish());
    } else {
      Real r[8] = {};
      io::rawin s(u);
      for (std::size_t i = 0; i < dst.size(); ++i) s.item(r[i]);
      check(u, s.finish());
      std::size_t i = 0;
      for (double* d : dst) *d = r[i++];
    }
  }
};

template <class Real>
struct writer {
  io::unit& u;
  bool text;
  template <class... Items>
  void record(const Items&... its) {
    if (text)
      io::listwrite(u, its...);
    else
      io::rawwrite(u, its...);
  }
  // n doubles from src as Real (narrowed by rounding for 4-byte reals).
  void reals(const double* src, index_t n, std::vector<Real>& scratch) {
    scratch.resize(static_cast<std::size_t>(std::max<index_t>(n, 0)));
    for (std::size_t i = 0; i < scratch.size(); ++i)
      scratch[i] =
          std::is_same_v<Real, float> ? mod_zelmgrid::detail::narrow(src[i]) : static_cast<Real>(src[i]);
    record(io::items(scratch.data(), n));
  }
};

// Runs body with a float or a double standing for the reals of the file: in the raw encodings the
// width on disk, in text the precision of the values (9 or 17 significant digits).
template <class F>
auto byprecision(format f, F&& body) {
  if (f.dblprec) return body(double{});
  return body(float{});
}

index_t total(const std::vector<int>& counts) {
  index_t t = 0;
  for (int c : counts) {
    if (c < 0) throw error("negative count " + std::to_string(c) + " in the zone counts");
    t += c;
  }
  return t;
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

// The header and the zone counts (one record in every encoding, as the writer writes them).
template <class Real>
grid readcounts(io::unit& u, reader<Real>& rd, bool text) {
  grid g;
  int nzones = 0;
  u.context = {"grid header"};
  rd.record(g.ndim, nzones, g.aux);
  if (g.ndim < 0 || g.ndim > 3) invalid(u, "ndim = " + std::to_string(g.ndim) + " is not 0 to 3");
  if (nzones < 0 || static_cast<std::int64_t>(nzones) * 5 > u.remaining() + 1)
    invalid(u, "nzones = " + std::to_string(nzones) + " does not fit the file");
  g.zones.resize(static_cast<std::size_t>(nzones));
  u.context = {"zone counts"};
  const auto one = [&](auto& s) {
    for (auto& z : g.zones) {
      s.item(z.nodes);
      s.item(z.faces);
      s.item(z.cells);
      s.item(z.mnpf);
      s.item(z.mfpc);
    }
    check(u, s.finish());
  };
  if (text) {
    io::listin s(u);
    one(s);
  } else {
    io::rawin s(u);
    one(s);
  }
  for (const auto& z : g.zones)
    if (z.nodes < 0 || z.faces < 0 || z.cells < 0) invalid(u, "negative count in the zone counts");
  return g;
}

}  // namespace

grid readgridheader(const std::string& file, format f) {
  io::unit u(-1);
  u.openfile(file, formof(f.enc), false);
  reader<double> rd{u, f.enc == encoding::formatted};
  return readcounts(u, rd, rd.text);
}

grid readgrid(const std::string& file, format f) {
  io::unit u(-1);
  u.openfile(file, formof(f.enc), false);
  const bool text = f.enc == encoding::formatted;
  return byprecision(f, [&](auto real) {
    using Real = decltype(real);
    reader<Real> rd{u, text};
    grid g = readcounts(u, rd, text);
    int width = 0;
    for (const auto& z : g.zones) width = std::max(width, z.mnpf);
    const index_t nodes = g.totalnodes(), faces = g.totalfaces();
    if (u.remaining() < nodes * g.ndim || u.remaining() < faces * 3)
      invalid(u, "the zone counts ask for more nodes and faces than the file can hold");
    allocate(u, g.x, "the coordinates", g.ndim, nodes);
    allocate(u, g.npf, "the face node counts", faces);
    allocate(u, g.ifnode, "the face nodes", width, faces);
    allocate(u, g.ifcell, "the face cells", 2, faces);
    std::vector<Real> scratch;
    index_t node = 0, face = 0;
    for (std::size_t k = 0; k < g.zones.size(); ++k) {
      const auto& z = g.zones[k];
      for (index_t i = 0; i < z.nodes; ++i, ++node) {
        u.context = {"zone", static_cast<index_t>(k + 1), "node", i + 1};
        rd.reals(g.x.data() + node * g.ndim, g.ndim, scratch);
      }
      for (index_t i = 0; i < z.faces; ++i, ++face) {
        u.context = {"zone", static_cast<index_t>(k + 1), "face", i + 1};
        int* cells = g.ifcell.data() + 2 * face;
        rd.record(g.npf(face + 1), io::lazyseq<int>{g.ifnode.data() + face * width, &g.npf(face + 1), width},
                  cells[0], cells[1]);
      }
    }
    if (!text && u.remaining() > 0) invalid(u, std::to_string(u.remaining()) + " bytes follow the last zone");
    return g;
  });
}

void writegrid(const std::string& file, format f, const grid& g) {
  io::unit u(-1);
  u.openfile(file, formof(f.enc), true);
  const bool text = f.enc == encoding::formatted;
  byprecision(f, [&](auto real) {
    using Real = decltype(real);
    writer<Real> wr{u, text};
    wr.record(g.ndim, static_cast<int>(g.zones.size()), g.aux);
    const auto counts = [&](auto& s) {
      for (const auto& z : g.zones) {
        s.item(z.nodes);
        s.item(z.faces);
        s.item(z.cells);
        s.item(z.mnpf);
        s.item(z.mfpc);
      }
      s.finish();
    };
    if (text) {
      io::listout s(u);
      counts(s);
    } else {
      io::rawout s(u);
      counts(s);
    }
    std::vector<Real> scratch;
    const index_t width = g.ifnode.extent(1);
    index_t node = 0, face = 1;
    for (const auto& z : g.zones) {
      for (index_t i = 0; i < z.nodes; ++i, ++node)
        wr.reals(g.x.data() + node * g.x.extent(1), g.ndim, scratch);
      for (index_t i = 0; i < z.faces; ++i, ++face) {
        const int n = g.npf(face);
        if (n > width) throw error("face " + std::to_string(face) + " has more nodes than ifnode holds");
        wr.record(n, io::items(g.ifnode.data() + (face - 1) * width, n), g.ifcell(1, face),
                  g.ifcell(2, face));
      }
    }
    return 0;
  });
  u.closefile();
}

// ---- restart ----------------------------------------------------------------------------------

restart readrestart(const std::string& file, format f, const std::vector<int>& cellsperzone, int nvar) {
  io::unit u(-1);
  u.openfile(file, formof(f.enc), false);
  const bool text = f.enc == encoding::formatted;
  const index_t ncells = total(cellsperzone);
  return byprecision(f, [&](auto real) {
    using Real = decltype(real);
    reader<Real> rd{u, text};
    restart r;
    u.context = {"restart header record", 1};
    if (text || std::is_same_v<Real, double>) {
      rd.record(r.dtime, r.lastcyc, r.rstype);
    } else {
      Real t = 0;
      rd.record(t, r.lastcyc, r.rstype);
      r.dtime = t;
    }
    u.context = {"restart header record", 2};
    rd.headerreals({&r.dgamma, &r.drgas});
    u.context = {"restart header record", 3};
    rd.headerreals({&r.dr0, &r.drm0, &r.dp0});
    allocate(u, r.q, "the solution", std::max(nvar, 0), ncells);
    std::vector<Real> scratch, row;
    for (int v = 1; v <= nvar; ++v) {
      index_t at = 0;
      for (std::size_t z = 0; z < cellsperzone.size(); ++z) {
        u.context = {"variable", v, "zone", static_cast<index_t>(z + 1)};
        const int n = cellsperzone[z];
        std::vector<double> vals(static_cast<std::size_t>(n));
        rd.reals(vals.data(), n, scratch);
        for (int i = 0; i < n; ++i) r.q(v, at + i + 1) = vals[static_cast<std::size_t>(i)];
        at += n;
      }
    }
    if (!text && u.remaining() > 0)
      invalid(u, std::to_string(u.remaining()) + " bytes follow the last variable");
    return r;
  });
}

void writerestart(const std::string& file, format f, const restart& r, const std::vector<int>& cellsperzone) {
  const index_t ncells = total(cellsperzone);
  if (r.q.extent(2) < ncells) throw error("the solution holds fewer cells than the zones");
  io::unit u(-1);
  u.openfile(file, formof(f.enc), true);
  const bool text = f.enc == encoding::formatted;
  byprecision(f, [&](auto real) {
    using Real = decltype(real);
    writer<Real> wr{u, text};
    const auto h = [&](double d) {
      return std::is_same_v<Real, float> ? mod_zelmgrid::detail::narrow(d) : Real(d);
    };
    if (text) {  // header values keep all their digits in text
      wr.record(r.dtime, r.lastcyc, r.rstype);
      wr.record(r.dgamma, r.drgas);
      wr.record(r.dr0, r.drm0, r.dp0);
    } else {
      wr.record(h(r.dtime), r.lastcyc, r.rstype);
      wr.record(h(r.dgamma), h(r.drgas));
      wr.record(h(r.dr0), h(r.drm0), h(r.dp0));
    }
    std::vector<Real> scratch;
    std::vector<double> vals;
    for (index_t v = 1; v <= r.q.extent(1); ++v) {
      index_t at = 0;
      for (int n : cellsperzone) {
        vals.resize(static_cast<std::size_t>(n));
        for (int i = 0; i < n; ++i) vals[static_cast<std::size_t>(i)] = r.q(v, at + i + 1);
        wr.reals(vals.data(), n, scratch);
        at += n;
      }
    }
    return 0;
  });
  u.closefile();
}

// ---- pix --------------------------------------------------------------------------------------

pix readpix(const std::string& file, format f, const std::vector<int>& nodesperzone) {
  io::unit u(-1);
  u.openfile(file, formof(f.enc), false);
  const bool text = f.enc == encoding::formatted;
  const index_t nnodes = total(nodesperzone);
  return byprecision(f, [&](auto real) {
    using Real = decltype(real);
    reader<Real> rd{u, text};
    pix p;
    u.context = {"pix header record", 1};
    rd.headerreals({&p.dvar, &p.dgamma, &p.drgas});
    u.context = {"pix header record", 2};
    rd.headerreals({&p.dr0, &p.drm0, &p.dp0});
    u.context = {"pix header text"};
    fortran::char25 t;
    check(u, text ? io::aread(u, io::text(t)) : io::rawread(u, io::text(t)));
    p.text = std::string(t.view());
    // The fixed variables, then (when the file goes on) the free count, labels and free variables.
    std::vector<std::vector<double>> rows;
    std::vector<Real> scratch;
    const auto variable = [&](int v) {
      std::vector<double> row(static_cast<std::size_t>(nnodes));
      index_t at = 0;
      for (std::size_t z = 0; z < nodesperzone.size(); ++z) {
        u.context = {"variable", v, "zone", static_cast<index_t>(z + 1)};
        rd.reals(row.data() + at, nodesperzone[z], scratch);
        at += nodesperzone[z];
      }
      rows.push_back(std::move(row));
    };
    for (int v = 1; v <= 6; ++v) variable(v);
    const bool more = text ? [&] {
      // Only blanks may follow a file without free variables.
      while (u.fill(1)) {
        const char c = *u.rp();
        if (c != ' ' && c != '\n' && c != '\r' && c != '\t') return true;
        u.consume(1);
      }
      return false;
    }()
                           : u.remaining() > 0;
    if (more) {
      int nfree = 0;
      u.context = {"free-variable count"};
      rd.record(nfree);
      if (nfree < 0 || nfree > 100000) invalid(u, "implausible free-variable count " + std::to_string(nfree));
      for (int k = 1; k <= nfree; ++k) {
        u.context = {"label", k};
        check(u, text ? io::aread(u, io::text(t)) : io::rawread(u, io::text(t)));
        p.labels.emplace_back(t.view());
      }
      for (int v = 7; v <= 6 + nfree; ++v) variable(v);
    }
    if (!text && u.remaining() > 0)
      invalid(u, std::to_string(u.remaining()) + " bytes follow the last variable");
    allocate(u, p.values, "the node values", static_cast<index_t>(rows.size()), nnodes);
    for (std::size_t v = 0; v < rows.size(); ++v)
      for (index_t n = 0; n < nnodes; ++n)
        p.values(static_cast<index_t>(v) + 1, n + 1) = rows[v][static_cast<std::size_t>(n)];
    return p;
  });
}

void writepix(const std::string& file, format f, const pix& p, const std::vector<int>& nodesperzone) {
  const index_t nnodes = total(nodesperzone);
  const auto nvar = static_cast<index_t>(6 + p.labels.size());
  if (p.values.extent(1) < nvar || p.values.extent(2) < nnodes)
    throw error("the node values hold fewer variables or nodes than the file needs");
  io::unit u(-1);
  u.openfile(file, formof(f.enc), true);
  const bool text = f.enc == encoding::formatted;
  byprecision(f, [&](auto real) {
    using Real = decltype(real);
    writer<Real> wr{u, text};
    const auto h = [&](double d) {
      return std::is_same_v<Real, float> ? mod_zelmgrid::detail::narrow(d) : Real(d);
    };
    const auto label = [&](const std::string& s) {
      const fortran::char25 t(s);
      if (text)
        io::linewrite(u, t.view());
      else
        io::rawwrite(u, t);
    };
    if (text) {
      wr.record(p.dvar, p.dgamma, p.drgas);
      wr.record(p.dr0, p.drm0, p.dp0);
    } else {
      wr.record(h(p.dvar), h(p.dgamma), h(p.drgas));
      wr.record(h(p.dr0), h(p.drm0), h(p.dp0));
    }
    label(p.text);
    std::vector<Real> scratch;
    std::vector<double> vals;
    const auto variable = [&](index_t v) {
      index_t at = 0;
      for (int n : nodesperzone) {
        vals.resize(static_cast<std::size_t>(n));
        for (int i = 0; i < n; ++i) vals[static_cast<std::size_t>(i)] = p.values(v, at + i + 1);
        wr.reals(vals.data(), n, scratch);
        at += n;
      }
    };
    for (index_t v = 1; v <= 6; ++v) variable(v);
    if (!p.labels.empty()) {
      wr.record(static_cast<int>(p.labels.size()));
      for (const auto& l : p.labels) label(l);
      for (index_t v = 7; v <= nvar; ++v) variable(v);
    }
    return 0;
  });
  u.closefile();
}

}  // namespace zelm
