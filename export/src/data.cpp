// The arrays of a piece and the names they go by, shared by the VTK and Tecplot writers.
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>

#include "writing.hpp"

namespace zelm {

namespace detail {

outfile::outfile(const std::string& path) : path_(path), buffer_(std::size_t{1} << 20) {
  f_ = std::fopen(path.c_str(), "wb");
  if (f_ == nullptr) throw error("cannot create \"" + path + "\": " + std::strerror(errno));
  std::setvbuf(f_, buffer_.data(), _IOFBF, buffer_.size());
}

outfile::~outfile() {
  if (f_ != nullptr) std::fclose(f_);
}

void outfile::write(const void* data, std::size_t bytes) {
  if (bytes > 0 && std::fwrite(data, 1, bytes, f_) != bytes)
    throw error("cannot write \"" + path_ + "\": " + std::strerror(errno));
}

void outfile::put(const char* s) {
  write(s, std::strlen(s));
}

void outfile::close() {
  std::FILE* f = f_;
  f_ = nullptr;
  if (std::fclose(f) != 0) throw error("cannot write \"" + path_ + "\": " + std::strerror(errno));
}

std::int64_t array::bytes() const {
  const int size = type == real32 ? 4 : type == uint8 ? 1 : 8;
  return tuples * components * size;
}

const char* array::vtkname() const {
  switch (type) {
    case real32: return "Float32";
    case real64: return "Float64";
    case int64: return "Int64";
    case uint8: return "UInt8";
  }
  return "";
}

namespace {

// Values gathered through an index, as 4- or 8-byte reals; a negative index gives NaN.
template <class T, class Get>
void gather(std::vector<char>& out, const std::vector<std::int64_t>& index, int components, Get get) {
  out.resize(index.size() * static_cast<std::size_t>(components) * sizeof(T));
  T* p = reinterpret_cast<T*>(out.data());
  for (std::size_t i = 0; i < index.size(); ++i)
    for (int c = 0; c < components; ++c)
      *p++ = index[i] < 0 ? std::numeric_limits<T>::quiet_NaN() : static_cast<T>(get(index[i], c));
}

array gathered(std::string name, bool eightbytes, const std::vector<std::int64_t>& index, int components,
               std::function<double(std::int64_t, int)> get) {
  array a;
  a.name = std::move(name);
  a.type = eightbytes ? array::real64 : array::real32;
  a.components = components;
  a.tuples = static_cast<std::int64_t>(index.size());
  a.fill = [&index, components, get = std::move(get), eightbytes](std::vector<char>& out) {
    if (eightbytes)
      gather<double>(out, index, components, get);
    else
      gather<float>(out, index, components, get);
  };
  return a;
}

}  // namespace

array coordinates(const piece& pc, const exportdata& d) {
  const grid& g = *d.g;
  return gathered("Points", d.grid64, pc.nodes, 3,
                  [&g](std::int64_t n, int c) { return c < g.ndim ? g.x.data()[n * g.ndim + c] : 0.0; });
}

piecearrays dataof(const piece& pc, const exportdata& d) {
  piecearrays a;
  if (d.p != nullptr) {
    const auto names = pointarraynames(*d.p);
    const farray<double, 2>& v = d.p->values;
    const std::int64_t nvar = v.extent(1);
    for (std::int64_t k = 0; k < nvar && k < static_cast<std::int64_t>(names.size()); ++k)
      a.points.push_back(gathered(names[static_cast<std::size_t>(k)], d.pix64, pc.nodes, 1,
                                  [&v, k, nvar](std::int64_t n, int) { return v.data()[n * nvar + k]; }));
  }
  if (d.r != nullptr) {
    const farray<double, 2>& q = d.r->q;
    const std::int64_t nvar = q.extent(1);
    for (std::int64_t k = 0; k < nvar; ++k)
      a.cells.push_back(gathered("q" + std::to_string(k + 1), d.restart64, pc.cells, 1,
                                 [&q, k, nvar](std::int64_t c, int) { return q.data()[c * nvar + k]; }));
  }
  return a;
}

std::vector<fieldvalue> fieldvalues(const exportdata& d) {
  std::vector<fieldvalue> f;
  if (d.r != nullptr) {
    const restart& r = *d.r;
    const bool s = !d.restart64;
    f.push_back({"time", r.dtime, false, s});
    f.push_back({"cycle", static_cast<double>(r.lastcyc), true, false});
    f.push_back({"restart_type", static_cast<double>(r.rstype), true, false});
    f.push_back({"restart_gamma", r.dgamma, false, s});
    f.push_back({"restart_rgas", r.drgas, false, s});
    f.push_back({"restart_r0", r.dr0, false, s});
    f.push_back({"restart_rm0", r.drm0, false, s});
    f.push_back({"restart_p0", r.dp0, false, s});
  }
  if (d.p != nullptr) {
    const pix& p = *d.p;
    const bool s = !d.pix64;
    f.push_back({"pix_var", p.dvar, false, s});
    f.push_back({"pix_gamma", p.dgamma, false, s});
    f.push_back({"pix_rgas", p.drgas, false, s});
    f.push_back({"pix_r0", p.dr0, false, s});
    f.push_back({"pix_rm0", p.drm0, false, s});
    f.push_back({"pix_p0", p.dp0, false, s});
  }
  return f;
}

std::string xmlescape(const std::string& s) {
  std::string o;
  for (char c : s) switch (c) {
      case '&': o += "&amp;"; break;
      case '<': o += "&lt;"; break;
      case '>': o += "&gt;"; break;
      case '"': o += "&quot;"; break;
      default: o += c;
    }
  return o;
}

}  // namespace detail

std::vector<std::string> pointarraynames(const pix& p) {
  std::vector<std::string> names = {"density",    "velocity_u", "velocity_v",
                                    "velocity_w", "pressure",   "variable6"};
  // Names a Tecplot reader takes for coordinates, and the cell arrays' names, are taken already.
  std::set<std::string> taken = {"X", "Y", "Z",           "x",           "y",           "z",     "I",
                                 "J", "K", "CoordinateX", "CoordinateY", "CoordinateZ", "Points"};
  for (int k = 1; k <= 999; ++k) taken.insert("q" + std::to_string(k));
  taken.insert(names.begin(), names.end());
  for (std::size_t k = 0; k < p.labels.size(); ++k) {
    std::string s = p.labels[k];
    const auto b = s.find_first_not_of(' '), e = s.find_last_not_of(' ');
    s = b == std::string::npos ? "" : s.substr(b, e - b + 1);
    for (char& c : s)
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '.' && c != '+' && c != '-')
        c = '_';
    if (s.empty()) s = "free" + std::to_string(k + 1);
    std::string unique = s;
    for (int n = 2; taken.count(unique) != 0; ++n) unique = s + "_" + std::to_string(n);
    taken.insert(unique);
    names.push_back(unique);
  }
  return names;
}

}  // namespace zelm
