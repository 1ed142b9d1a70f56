// What the VTK and Tecplot writers share: a buffered output file, numbers as text, and the arrays
// of one piece (coordinates, node values, cell values, header values) named and typed once.
#pragma once

#include <charconv>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "zelmgrid/export.hpp"

namespace zelm::detail {

// A file written through a large buffer; any failure is a zelm::error naming the file.
class outfile {
 public:
  explicit outfile(const std::string& path);
  ~outfile();
  outfile(const outfile&) = delete;
  outfile& operator=(const outfile&) = delete;

  void write(const void* data, std::size_t bytes);
  void put(const std::string& s) { write(s.data(), s.size()); }
  void put(const char* s);
  // A number as text followed by `sep`: integers in full, reals in the fewest digits that read
  // back to the same value at their precision.
  template <class T>
  void number(T v, char sep = ' ') {
    char b[40];
    auto r = std::to_chars(b, b + sizeof b - 1, v);
    *r.ptr++ = sep;
    write(b, static_cast<std::size_t>(r.ptr - b));
  }
  void close();  // flushes and closes; the destructor closes quietly

 private:
  std::string path_;
  std::FILE* f_ = nullptr;
  std::vector<char> buffer_;
};

// One array of a piece: its values are produced on demand, as doubles, integers or bytes.
struct array {
  enum kind { real32, real64, int64, uint8 };
  std::string name;
  kind type = real64;
  int components = 1;
  std::int64_t tuples = 0;
  // Fills `out` (cleared first) with tuples * components values of the array's C type.
  std::function<void(std::vector<char>& out)> fill;
  const void* direct = nullptr;  // the values in memory already, when they are

  std::int64_t bytes() const;
  const char* vtkname() const;
};

// The point, cell and field arrays of one piece.
struct piecearrays {
  std::vector<array> points, cells;
};

piecearrays dataof(const piece& pc, const exportdata& d);
array coordinates(const piece& pc, const exportdata& d);

// Header values of the restart and pix files, by name.
struct fieldvalue {
  std::string name;
  double value;
  bool integer;
  bool single;  // held as a 4-byte real by its file
};
std::vector<fieldvalue> fieldvalues(const exportdata& d);

// A header value as text at the precision its file held it, followed by `sep`.
inline void fieldnumber(outfile& out, const fieldvalue& v, char sep) {
  if (v.integer)
    out.number(static_cast<std::int64_t>(v.value), sep);
  else if (v.single)
    out.number(static_cast<float>(v.value), sep);
  else
    out.number(v.value, sep);
}

std::string xmlescape(const std::string& s);

}  // namespace zelm::detail
