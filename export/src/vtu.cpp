// VTK XML unstructured grids (.vtu) and multiblock files (.vtm). Arrays are appended raw binary by
// default, each preceded by its byte count as a UInt64, or inline base64 or ASCII on request.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>

#include "writing.hpp"

namespace zelm {

namespace {

using detail::array;
using detail::outfile;

array direct(std::string name, array::kind type, const void* data, std::int64_t n) {
  array a;
  a.name = std::move(name);
  a.type = type;
  a.tuples = n;
  a.direct = data;
  return a;
}

// The bytes of an array: straight from memory, or filled into `scratch`.
std::pair<const char*, std::size_t> bytesof(const array& a, std::vector<char>& scratch) {
  if (a.direct != nullptr) return {static_cast<const char*>(a.direct), static_cast<std::size_t>(a.bytes())};
  a.fill(scratch);
  return {scratch.data(), scratch.size()};
}

std::string base64(const unsigned char* p, std::size_t n) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string o;
  o.reserve((n + 2) / 3 * 4);
  for (std::size_t i = 0; i < n; i += 3) {
    const unsigned v =
        static_cast<unsigned>(p[i]) << 16 | (i + 1 < n ? p[i + 1] << 8 : 0) | (i + 2 < n ? p[i + 2] : 0);
    o += digits[v >> 18 & 63];
    o += digits[v >> 12 & 63];
    o += i + 1 < n ? digits[v >> 6 & 63] : '=';
    o += i + 2 < n ? digits[v & 63] : '=';
  }
  return o;
}

template <class T>
void asciivalues(outfile& out, const char* p, std::size_t bytes) {
  const std::size_t n = bytes / sizeof(T);
  for (std::size_t i = 0; i < n; ++i) {
    T v;
    std::memcpy(&v, p + i * sizeof(T), sizeof(T));
    if constexpr (sizeof(T) == 1)
      out.number(static_cast<int>(v), i % 12 == 11 ? '\n' : ' ');
    else
      out.number(v, i % 12 == 11 ? '\n' : ' ');
  }
}

// Writes the DataArray elements of a piece. Appended blocks lie in the reverse of the elements'
// order: a reader that re-bases offsets as it converts the blocks one by one (meshio does) then
// never meets an element it has already re-based under the offset it looks for.
class vtuwriter {
 public:
  vtuwriter(outfile& out, vtuencoding enc, const std::vector<const array*>& all)
      : out_(out), enc_(enc), all_(all) {
    std::int64_t at = 0;
    for (auto it = all.rbegin(); it != all.rend(); ++it) {
      offsets_.push_back(at);
      at += 8 + (*it)->bytes();
    }
    std::reverse(offsets_.begin(), offsets_.end());
  }

  // The element of the next array in `all`.
  void element(const char* indent) {
    const array& a = *all_[next_];
    out_.put(std::string(indent) + "<DataArray type=\"" + a.vtkname() + "\" Name=\"" +
             detail::xmlescape(a.name) + "\"");
    if (a.components != 1) out_.put(" NumberOfComponents=\"" + std::to_string(a.components) + "\"");
    if (enc_ == vtuencoding::raw) {
      out_.put(" format=\"appended\" offset=\"" + std::to_string(offsets_[next_++]) + "\"/>\n");
      return;
    }
    ++next_;
    out_.put(enc_ == vtuencoding::base64 ? " format=\"binary\">\n" : " format=\"ascii\">\n");
    const auto [p, n] = bytesof(a, scratch_);
    if (enc_ == vtuencoding::base64) {
      std::vector<unsigned char> block(8 + n);
      const std::uint64_t size = n;
      std::memcpy(block.data(), &size, 8);
      if (n > 0) std::memcpy(block.data() + 8, p, n);
      out_.put(base64(block.data(), block.size()));
    } else {
      switch (a.type) {
        case array::real32: asciivalues<float>(out_, p, n); break;
        case array::real64: asciivalues<double>(out_, p, n); break;
        case array::int64: asciivalues<std::int64_t>(out_, p, n); break;
        case array::uint8: asciivalues<std::uint8_t>(out_, p, n); break;
      }
    }
    out_.put(std::string("\n") + indent + "</DataArray>\n");
  }

  void finish() {
    if (enc_ == vtuencoding::raw) {
      out_.put("  <AppendedData encoding=\"raw\">\n   _");
      for (auto it = all_.rbegin(); it != all_.rend(); ++it) {
        const auto [p, n] = bytesof(**it, scratch_);
        const std::uint64_t size = n;
        out_.write(&size, 8);
        out_.write(p, n);
        std::vector<char>().swap(scratch_);  // one gathered array at a time
      }
      out_.put("\n  </AppendedData>\n");
    }
    out_.put("</VTKFile>\n");
  }

 private:
  outfile& out_;
  vtuencoding enc_;
  const std::vector<const array*>& all_;
  std::vector<std::int64_t> offsets_;
  std::size_t next_ = 0;
  std::vector<char> scratch_;
};

void writefielddata(outfile& out, const exportdata& d) {
  const auto values = detail::fieldvalues(d);
  if (values.empty()) return;
  out.put("    <FieldData>\n");
  for (const auto& v : values) {
    out.put(std::string("      <DataArray type=\"") +
            (v.integer  ? "Int32"
             : v.single ? "Float32"
                        : "Float64") +
            "\" Name=\"" + v.name + "\" NumberOfTuples=\"1\" format=\"ascii\">\n        ");
    detail::fieldnumber(out, v, '\n');
    out.put("      </DataArray>\n");
  }
  if (d.p != nullptr) {
    out.put("      <DataArray type=\"UInt8\" Name=\"pix_text\" NumberOfTuples=\"" +
            std::to_string(d.p->text.size()) + "\" format=\"ascii\">\n        ");
    for (unsigned char c : d.p->text) out.number(static_cast<int>(c));
    out.put("\n      </DataArray>\n");
  }
  out.put("    </FieldData>\n");
}

// "zone 1" -> zone1.vtu, "boundary -3" -> boundary-3.vtu
std::string piecefile(const piece& pc) {
  std::string s;
  for (char c : pc.name)
    if (c != ' ') s += c;
  return s + ".vtu";
}

}  // namespace

void writevtu(const std::string& file, const mesh& m, const piece& pc, const exportdata& d, vtuencoding enc) {
  (void)m;
  outfile out(file);
  out.put(
      "<?xml version=\"1.0\"?>\n<VTKFile type=\"UnstructuredGrid\" version=\"1.0\" "
      "byte_order=\"LittleEndian\" "
      "header_type=\"UInt64\">\n  <UnstructuredGrid>\n");
  writefielddata(out, d);
  out.put("    <Piece NumberOfPoints=\"" + std::to_string(pc.nodes.size()) + "\" NumberOfCells=\"" +
          std::to_string(pc.types.size()) + "\">\n");
  const auto data = detail::dataof(pc, d);
  const array points = detail::coordinates(pc, d);
  std::vector<array> cells = {
      direct("connectivity", array::int64, pc.connectivity.data(),
             static_cast<std::int64_t>(pc.connectivity.size())),
      direct("offsets", array::int64, pc.offsets.data(), static_cast<std::int64_t>(pc.offsets.size())),
      direct("types", array::uint8, pc.types.data(), static_cast<std::int64_t>(pc.types.size()))};
  if (!pc.faceoffsets.empty()) {
    cells.push_back(
        direct("faces", array::int64, pc.faces.data(), static_cast<std::int64_t>(pc.faces.size())));
    cells.push_back(direct("faceoffsets", array::int64, pc.faceoffsets.data(),
                           static_cast<std::int64_t>(pc.faceoffsets.size())));
  }
  std::vector<const array*> all;
  for (const auto& a : data.points) all.push_back(&a);
  for (const auto& a : data.cells) all.push_back(&a);
  all.push_back(&points);
  for (const auto& a : cells) all.push_back(&a);
  vtuwriter w(out, enc, all);
  out.put("      <PointData>\n");
  for (std::size_t i = 0; i < data.points.size(); ++i) w.element("        ");
  out.put("      </PointData>\n      <CellData>\n");
  for (std::size_t i = 0; i < data.cells.size(); ++i) w.element("        ");
  out.put("      </CellData>\n      <Points>\n");
  w.element("        ");
  out.put("      </Points>\n      <Cells>\n");
  for (std::size_t i = 0; i < cells.size(); ++i) w.element("        ");
  out.put("      </Cells>\n    </Piece>\n  </UnstructuredGrid>\n");
  w.finish();
  out.close();
}

void writevtm(const std::string& file, const std::string& folderref, const mesh& m, const exportdata& d,
              vtuencoding enc, const std::function<std::string(const std::string&)>& piecepath) {
  std::vector<const piece*> pieces;
  for (const auto& z : m.zones) pieces.push_back(&z);
  for (const auto& b : m.boundaries) pieces.push_back(&b);
  for (const piece* pc : pieces) writevtu(piecepath(piecefile(*pc)), m, *pc, d, enc);
  outfile out(file);
  out.put(
      "<?xml version=\"1.0\"?>\n<VTKFile type=\"vtkMultiBlockDataSet\" version=\"1.0\" "
      "byte_order=\"LittleEndian\" "
      "header_type=\"UInt64\">\n  <vtkMultiBlockDataSet>\n");
  for (std::size_t i = 0; i < pieces.size(); ++i)
    out.put("    <DataSet index=\"" + std::to_string(i) + "\" name=\"" + detail::xmlescape(pieces[i]->name) +
            "\" file=\"" + detail::xmlescape(folderref + "/" + piecefile(*pieces[i])) + "\"/>\n");
  out.put("  </vtkMultiBlockDataSet>\n</VTKFile>\n");
  out.close();
}

void writevtm(const std::string& file, const std::string& folder, const std::string& folderref, const mesh& m,
              const exportdata& d, vtuencoding enc) {
  std::filesystem::create_directories(folder);
  writevtm(file, folderref, m, d, enc,
           [&](const std::string& piece) { return (std::filesystem::path(folder) / piece).string(); });
}

}  // namespace zelm
