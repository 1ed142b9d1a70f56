// _zelmgrid: the typed interface of zelmgrid/files.hpp for Python (the package zelmgrid wraps it).
//
// Arrays are numpy views of the library's farrays, never copies: each view has the Python object
// that owns the farray as its base, so the memory lives as long as any view of it. A farray
// (n1, n2) is column-major; the same memory read in C order is the array (n2, n1), so the views
// put the entity first: coordinates (nnodes, ndim), face nodes (nfaces, width), and so on. The
// arrays of an object keep their shape for its life (there is no setter that reallocates them), so
// a view can never outlive its memory; values may be changed in place.
//
// Calls keep the GIL: the library's spare buffers and its last read error are process-wide.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "zelmgrid/detect.hpp"
#include "zelmgrid/error.hpp"
#include "zelmgrid/files.hpp"
#include "zelmgrid/io.hpp"

namespace py = pybind11;
using fortran::farray;
using fortran::index_t;

namespace {

// Restart and pix files hold no counts of their own: the objects keep the zone counts they were
// read or made with, which their writers need.
struct restartfile {
  zelm::restart r;
  std::vector<int> cellsperzone;
};
struct pixfile {
  zelm::pix p;
  std::vector<int> nodesperzone;
};

// ---- texts ------------------------------------------------------------------------------------

// A message of the library's: it may quote bytes of a damaged file, which need not be UTF-8.
py::str message(const std::string& s) {
  return py::reinterpret_steal<py::str>(
      PyUnicode_DecodeUTF8(s.data(), static_cast<Py_ssize_t>(s.size()), "backslashreplace"));
}
py::list messages(const std::vector<std::string>& v) {
  py::list l;
  for (const auto& s : v) l.append(message(s));
  return l;
}

// The texts of a pix file are bytes, one a character: they pass as Latin-1, so that every byte
// comes back as it was. Their 25 blank-padded characters lose the padding, which the writer puts
// back.
py::str fromtext(std::string s) {
  s.erase(s.find_last_not_of(' ') + 1);
  return py::reinterpret_steal<py::str>(
      PyUnicode_DecodeLatin1(s.data(), static_cast<Py_ssize_t>(s.size()), nullptr));
}
std::string totext(const py::handle& s) {
  const auto b = py::reinterpret_steal<py::bytes>(PyUnicode_AsLatin1String(py::str(s).ptr()));
  if (!b) throw py::error_already_set();
  return std::string(b);
}

// ---- errors -----------------------------------------------------------------------------------

// Raises the package's exception class `cls` (zelmgrid.errors) with the message and the file.
[[noreturn]] void raise(const char* cls, const std::string& text, const std::string& file,
                        const zelm::readerror* where = nullptr) {
  const py::object type = py::module_::import("zelmgrid.errors").attr(cls);
  const py::object e = type(message(text));
  e.attr("file") = file;
  if (where != nullptr) {  // the located read failure's parts
    e.attr("record") = where->record;
    e.attr("offset") = where->offset;
    e.attr("cause") = message(where->cause);
  }
  PyErr_SetObject(type.ptr(), e.ptr());
  throw py::error_already_set();
}

// Runs a read (`failure` "ReadError") or a write ("Error") of `file`: every C++ exception leaves as
// one of the package's exceptions.
template <class F>
auto guarded(const char* failure, const std::string& file, F&& body) -> decltype(body()) {
  try {
    return body();
  } catch (const zelm::ioerror& e) {
    raise("IOError", e.what(), file);
  } catch (const zelm::readerror& e) {
    raise("ReadError", e.what(), file, &e);
  } catch (const zelm::error& e) {
    raise(failure, e.what(), file);
  } catch (const std::bad_alloc&) {
    raise(failure, "\"" + file + "\": out of memory", file);
  } catch (const std::exception& e) {
    raise(failure, "\"" + file + "\": " + e.what(), file);
  }
}

// The reader leaves the slots of ifnode past a face's node count as the allocation gave them; a view
// shows them, so they are set to 0.
zelm::grid cleared(zelm::grid g) {
  const index_t width = g.ifnode.extent(1);
  for (index_t f = 1; f <= g.npf.extent(1); ++f)
    std::fill(g.ifnode.data() + (f - 1) * width + std::clamp<index_t>(g.npf(f), 0, width),
              g.ifnode.data() + f * width, 0);
  return g;
}

zelm::format formatof(int encoding, bool dblprec) {
  if (encoding < 0 || encoding > 2)
    throw py::value_error("encoding code " + std::to_string(encoding) + " is not 0, 1 or 2");
  return {static_cast<zelm::encoding>(encoding), dblprec};
}

// ---- arrays -----------------------------------------------------------------------------------

// The farray as a numpy view with the dimensions reversed, kept alive by `owner`.
template <class T>
py::array view(farray<T, 2>& a, py::handle owner) {
  const index_t n1 = a.extent(1), n2 = a.extent(2);
  const auto s = static_cast<index_t>(sizeof(T));
  return py::array_t<T>({n2, n1}, {n1 * s, s}, a.data(), owner);
}
template <class T>
py::array view(farray<T, 1>& a, py::handle owner) {
  return py::array_t<T>({a.extent(1)}, {static_cast<index_t>(sizeof(T))}, a.data(), owner);
}

std::string shapetext(const std::vector<index_t>& shape) {
  std::string s = "(";
  for (std::size_t i = 0; i < shape.size(); ++i) s += (i ? ", " : "") + std::to_string(shape[i]);
  return s + (shape.size() == 1 ? ",)" : ")");
}

// A user's array-like of the given shape as T in C order. Integers must be integers in T's range:
// a cast would change them silently.
template <class T>
py::array_t<T, py::array::c_style> input(py::handle obj, const char* name,
                                         const std::vector<index_t>& shape) {
  const py::array a = py::array::ensure(obj);
  if (!a) throw py::type_error(std::string(name) + " is not an array");
  const std::vector<index_t> got(a.shape(), a.shape() + a.ndim());
  if (got != shape)
    throw py::value_error(std::string(name) + " has shape " + shapetext(got) + ", not " + shapetext(shape));
  if constexpr (std::is_integral_v<T>) {
    const char kind = a.dtype().kind();
    if (kind != 'i' && kind != 'u' && kind != 'b')
      throw py::type_error(std::string(name) + " must hold integers");
    const auto wide = py::array_t<long long, py::array::c_style | py::array::forcecast>::ensure(a);
    if (!wide) throw py::type_error(std::string(name) + " holds integers beyond 64 bits");
    const auto [lo, hi] = std::minmax_element(wide.data(), wide.data() + wide.size());
    if (wide.size() > 0 && (*lo < std::numeric_limits<T>::min() || *hi > std::numeric_limits<T>::max()))
      throw py::value_error(std::string(name) + " holds values beyond 32-bit integers");
  }
  return py::array_t<T, py::array::c_style | py::array::forcecast>::ensure(a);
}

// A copy of a user's array (n2, n1) into a new farray (n1, n2): the inverse of view.
template <class T>
farray<T, 2> farrayof(py::handle obj, const char* name, index_t n2, index_t n1) {
  const auto a = input<T>(obj, name, {n2, n1});
  farray<T, 2> f;
  if (f.allocate(n1, n2) != 0) throw std::bad_alloc();
  std::copy_n(a.data(), n1 * n2, f.data());
  return f;
}
template <class T>
farray<T, 1> farrayof(py::handle obj, const char* name, index_t n) {
  const auto a = input<T>(obj, name, {n});
  farray<T, 1> f;
  if (f.allocate(n) != 0) throw std::bad_alloc();
  std::copy_n(a.data(), n, f.data());
  return f;
}

index_t total(const std::vector<int>& counts, const char* name) {
  index_t t = 0;
  for (int c : counts) {
    if (c < 0) throw py::value_error(std::string(name) + " holds a negative count");
    t += c;
  }
  return t;
}

// ---- objects made in Python -------------------------------------------------------------------

zelm::grid makegrid(int ndim, const std::vector<zelm::zonecounts>& zones, py::handle x, py::handle npf,
                    py::handle ifnode, py::handle ifcell, int aux) {
  if (ndim < 0 || ndim > 3) throw py::value_error("ndim " + std::to_string(ndim) + " is not 0 to 3");
  zelm::grid g;
  g.ndim = ndim;
  g.aux = aux;
  g.zones = zones;
  for (const auto& z : zones)
    if (z.nodes < 0 || z.faces < 0 || z.cells < 0 || z.mnpf < 0 || z.mfpc < 0)
      throw py::value_error("a zone holds a negative count");
  const index_t nodes = g.totalnodes(), faces = g.totalfaces();
  const auto nodearray = py::array::ensure(ifnode);
  const index_t width = nodearray && nodearray.ndim() == 2 ? nodearray.shape(1) : 0;
  g.x = farrayof<double>(x, "x", nodes, ndim);
  g.npf = farrayof<int>(npf, "npf", faces);
  g.ifnode = farrayof<int>(ifnode, "ifnode", faces, width);
  g.ifcell = farrayof<int>(ifcell, "ifcell", faces, 2);
  for (index_t f = 1; f <= faces; ++f)
    if (g.npf(f) < 0 || g.npf(f) > width)
      throw py::value_error("npf[" + std::to_string(f - 1) + "] = " + std::to_string(g.npf(f)) +
                            " is not 0 to the width of ifnode (" + std::to_string(width) + ")");
  return g;
}

// A header value of a file's object (`part` of File), read and written from Python.
template <class File, class Part, class T>
void headerfield(py::class_<File>& cls, const char* name, Part File::*part, T Part::*member) {
  cls.def_property(
      name, [part, member](const File& f) { return f.*part.*member; },
      [part, member](File& f, T v) { f.*part.*member = v; });
}

std::string zonestext(std::size_t n) {
  return std::to_string(n) + (n == 1 ? " zone" : " zones");
}

// ---- detection --------------------------------------------------------------------------------

// What the bytes say, as (kind, encoding code, dblprec, nvar, evidence, problems); unknown parts
// are None.
py::tuple detect(const std::string& path, const zelm::grid* grid) {
  return guarded("ReadError", path, [&] {
    struct stat sb {};
    if (::stat(path.c_str(), &sb) != 0)
      throw zelm::ioerror("cannot open \"" + path + "\": " + std::strerror(errno));
    const auto d = zelm::detect(path, grid);
    const auto known = [](bool k, py::object v) { return k ? v : py::none(); };
    return py::make_tuple(known(d.kind != zelm::filekind::unknown, py::str(zelm::kindname(d.kind))),
                          known(d.encodingknown, py::int_(static_cast<int>(d.enc))),
                          known(d.precisionknown, py::bool_(d.dblprec)), known(d.nvar >= 0, py::int_(d.nvar)),
                          messages(d.evidence), messages(d.problems));
  });
}

}  // namespace

PYBIND11_MODULE(_zelmgrid, m) {
  m.doc() = "The compiled part of the zelmgrid package; use zelmgrid itself.";

  py::class_<zelm::zonecounts>(m, "Zone", "The counts of one zone of a grid.")
      .def(py::init([](int nodes, int faces, int cells, int mnpf, int mfpc) {
             return zelm::zonecounts{nodes, faces, cells, mnpf, mfpc};
           }),
           py::arg("nodes"), py::arg("faces"), py::arg("cells"), py::arg("mnpf"), py::arg("mfpc"))
      .def(py::init([](const py::tuple& t) {
        if (t.size() != 5) throw py::value_error("a zone is (nodes, faces, cells, mnpf, mfpc)");
        return zelm::zonecounts{t[0].cast<int>(), t[1].cast<int>(), t[2].cast<int>(), t[3].cast<int>(),
                                t[4].cast<int>()};
      }))
      .def_readonly("nodes", &zelm::zonecounts::nodes, "nodes of the zone (nptsz)")
      .def_readonly("faces", &zelm::zonecounts::faces, "faces of the zone (nfacesz)")
      .def_readonly("cells", &zelm::zonecounts::cells, "cells of the zone (ncellsz)")
      .def_readonly("mnpf", &zelm::zonecounts::mnpf, "most nodes on one face (mnpfz)")
      .def_readonly("mfpc", &zelm::zonecounts::mfpc, "most faces of one cell (mfpcz)")
      .def("__iter__",
           [](const zelm::zonecounts& z) {
             return py::iter(py::make_tuple(z.nodes, z.faces, z.cells, z.mnpf, z.mfpc));
           })
      .def("__eq__",
           [](const zelm::zonecounts& a, const zelm::zonecounts& b) {
             return a.nodes == b.nodes && a.faces == b.faces && a.cells == b.cells && a.mnpf == b.mnpf &&
                    a.mfpc == b.mfpc;
           })
      .def("__repr__", [](const zelm::zonecounts& z) {
        return "Zone(nodes=" + std::to_string(z.nodes) + ", faces=" + std::to_string(z.faces) +
               ", cells=" + std::to_string(z.cells) + ", mnpf=" + std::to_string(z.mnpf) +
               ", mfpc=" + std::to_string(z.mfpc) + ")";
      });
  py::implicitly_convertible<py::tuple, zelm::zonecounts>();

  py::class_<zelm::grid>(m, "Grid")
      .def(py::init(&makegrid), py::arg("ndim"), py::arg("zones"), py::arg("x"), py::arg("npf"),
           py::arg("ifnode"), py::arg("ifcell"), py::arg("aux") = 0)
      .def_readonly("ndim", &zelm::grid::ndim)
      .def_readwrite("aux", &zelm::grid::aux)
      .def_readonly("zones", &zelm::grid::zones)
      .def_property_readonly("nzones", [](const zelm::grid& g) { return g.zones.size(); })
      .def_property_readonly("nnodes", &zelm::grid::totalnodes)
      .def_property_readonly("nfaces", &zelm::grid::totalfaces)
      .def_property_readonly("ncells", &zelm::grid::totalcells)
      .def_property_readonly("nodes_per_zone", &zelm::grid::nodesperzone)
      .def_property_readonly("cells_per_zone", &zelm::grid::cellsperzone)
      .def_property_readonly("x", [](py::object self) { return view(self.cast<zelm::grid&>().x, self); })
      .def_property_readonly("npf", [](py::object self) { return view(self.cast<zelm::grid&>().npf, self); })
      .def_property_readonly("ifnode",
                             [](py::object self) { return view(self.cast<zelm::grid&>().ifnode, self); })
      .def_property_readonly("ifcell",
                             [](py::object self) { return view(self.cast<zelm::grid&>().ifcell, self); })
      .def("__repr__", [](const zelm::grid& g) {
        return "<zelmgrid.Grid ndim=" + std::to_string(g.ndim) + ", " + zonestext(g.zones.size()) + ", " +
               std::to_string(g.totalnodes()) + " nodes, " + std::to_string(g.totalfaces()) + " faces, " +
               std::to_string(g.totalcells()) + " cells>";
      });

  py::class_<restartfile> restart(m, "Restart");
  restart
      .def(py::init([](const std::vector<int>& cellsperzone, py::handle q) {
             restartfile f;
             f.cellsperzone = cellsperzone;
             const auto qa = py::array::ensure(q);
             const index_t nvar = qa && qa.ndim() == 2 ? qa.shape(1) : 0;
             f.r.q = farrayof<double>(q, "q", total(cellsperzone, "cells_per_zone"), nvar);
             return f;
           }),
           py::arg("cells_per_zone"), py::arg("q"))
      .def_readonly("cells_per_zone", &restartfile::cellsperzone)
      .def_property_readonly("ncells", [](const restartfile& f) { return f.r.q.extent(2); })
      .def_property_readonly("nvar", [](const restartfile& f) { return f.r.q.extent(1); })
      .def_property_readonly("q", [](py::object self) { return view(self.cast<restartfile&>().r.q, self); })
      .def("__repr__", [](const restartfile& f) {
        return "<zelmgrid.Restart " + std::to_string(f.r.q.extent(1)) + " variables, " +
               zonestext(f.cellsperzone.size()) + ", " + std::to_string(f.r.q.extent(2)) + " cells, cycle " +
               std::to_string(f.r.lastcyc) + ">";
      });

  py::class_<pixfile> pix(m, "Pix");
  pix.def(py::init([](const std::vector<int>& nodesperzone, py::handle values,
                      const std::vector<py::str>& labels, const py::str& text) {
            pixfile f;
            f.nodesperzone = nodesperzone;
            for (const auto& l : labels) f.p.labels.push_back(totext(l));
            f.p.text = totext(text);
            f.p.values = farrayof<double>(values, "values", total(nodesperzone, "nodes_per_zone"),
                                          6 + static_cast<index_t>(labels.size()));
            return f;
          }),
          py::arg("nodes_per_zone"), py::arg("values"), py::arg("labels") = std::vector<py::str>{},
          py::arg("text") = py::str(""))
      .def_property(
          "text", [](const pixfile& f) { return fromtext(f.p.text); },
          [](pixfile& f, const py::str& v) { f.p.text = totext(v); })
      .def_property_readonly("labels",
                             [](const pixfile& f) {
                               py::list v;
                               for (const auto& l : f.p.labels) v.append(fromtext(l));
                               return v;
                             })
      .def_readonly("nodes_per_zone", &pixfile::nodesperzone)
      .def_property_readonly("nnodes", [](const pixfile& f) { return f.p.values.extent(2); })
      .def_property_readonly("nvar", [](const pixfile& f) { return f.p.values.extent(1); })
      .def_property_readonly("values",
                             [](py::object self) { return view(self.cast<pixfile&>().p.values, self); })
      .def("__repr__", [](const pixfile& f) {
        return "<zelmgrid.Pix " + std::to_string(f.p.values.extent(1)) + " variables, " +
               zonestext(f.nodesperzone.size()) + ", " + std::to_string(f.p.values.extent(2)) + " nodes>";
      });

  using zelm::restart, zelm::pix;
  for (auto [name, member] : {std::pair{"dtime", &restart::dtime},
                              {"dgamma", &restart::dgamma},
                              {"drgas", &restart::drgas},
                              {"dr0", &restart::dr0},
                              {"drm0", &restart::drm0},
                              {"dp0", &restart::dp0}})
    headerfield(restart, name, &restartfile::r, member);
  headerfield(restart, "lastcyc", &restartfile::r, &restart::lastcyc);
  headerfield(restart, "rstype", &restartfile::r, &restart::rstype);
  for (auto [name, member] : {std::pair{"dvar", &pix::dvar},
                              {"dgamma", &pix::dgamma},
                              {"drgas", &pix::drgas},
                              {"dr0", &pix::dr0},
                              {"drm0", &pix::drm0},
                              {"dp0", &pix::dp0}})
    headerfield(pix, name, &pixfile::p, member);

  m.def(
      "read_grid",
      [](const std::string& path, int enc, bool dbl) {
        const auto f = formatof(enc, dbl);
        return guarded("ReadError", path, [&] { return cleared(zelm::readgrid(path, f)); });
      },
      py::arg("path"), py::arg("encoding"), py::arg("dblprec"));
  m.def(
      "read_grid_header",
      [](const std::string& path, int enc, bool dbl) {
        const auto f = formatof(enc, dbl);
        return guarded("ReadError", path, [&] { return zelm::readgridheader(path, f); });
      },
      py::arg("path"), py::arg("encoding"), py::arg("dblprec"));
  m.def(
      "read_restart",
      [](const std::string& path, const std::vector<int>& cellsperzone, int nvar, int enc, bool dbl) {
        total(cellsperzone, "cells_per_zone");
        if (nvar < 0) throw py::value_error("nvar " + std::to_string(nvar) + " is negative");
        const auto f = formatof(enc, dbl);
        return guarded("ReadError", path, [&] {
          return restartfile{zelm::readrestart(path, f, cellsperzone, nvar), cellsperzone};
        });
      },
      py::arg("path"), py::arg("cells_per_zone"), py::arg("nvar"), py::arg("encoding"), py::arg("dblprec"));
  m.def(
      "read_pix",
      [](const std::string& path, const std::vector<int>& nodesperzone, int enc, bool dbl) {
        total(nodesperzone, "nodes_per_zone");
        const auto f = formatof(enc, dbl);
        return guarded("ReadError", path, [&] {
          return pixfile{zelm::readpix(path, f, nodesperzone), nodesperzone};
        });
      },
      py::arg("path"), py::arg("nodes_per_zone"), py::arg("encoding"), py::arg("dblprec"));
  m.def(
      "write_grid",
      [](const std::string& path, const zelm::grid& g, int enc, bool dbl) {
        const auto f = formatof(enc, dbl);
        guarded("Error", path, [&] { zelm::writegrid(path, f, g); });
      },
      py::arg("path"), py::arg("grid"), py::arg("encoding"), py::arg("dblprec"));
  m.def(
      "write_restart",
      [](const std::string& path, const restartfile& f, int enc, bool dbl) {
        const auto fm = formatof(enc, dbl);
        guarded("Error", path, [&] { zelm::writerestart(path, fm, f.r, f.cellsperzone); });
      },
      py::arg("path"), py::arg("restart"), py::arg("encoding"), py::arg("dblprec"));
  m.def(
      "write_pix",
      [](const std::string& path, const pixfile& f, int enc, bool dbl) {
        const auto fm = formatof(enc, dbl);
        guarded("Error", path, [&] { zelm::writepix(path, fm, f.p, f.nodesperzone); });
      },
      py::arg("path"), py::arg("pix"), py::arg("encoding"), py::arg("dblprec"));
  m.def("detect", &detect, py::arg("path"), py::arg("grid") = nullptr);
}
