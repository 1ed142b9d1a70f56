// Exports that viewers open as they are: the cells of a grid rebuilt from its faces, its boundary
// patches as surfaces, node and cell solutions as named arrays, written as VTK XML (.vtu, .vtm) or
// as clean Tecplot ASCII. Built on the typed files of zelmgrid/files.hpp only.
//
// Names of the point arrays: the six fixed pix variables are "density", "velocity_u",
// "velocity_v", "velocity_w", "pressure" and "variable6" (the files store them as variables 1 .. 6
// in that order); each free variable takes its label, trimmed, with characters other than letters,
// digits and "_.+-" replaced by "_", and a suffix "_2", "_3", ... where it would repeat a name
// already taken (or a coordinate name a Tecplot reader would take for a coordinate). Restart values
// are cell arrays "q1" .. "qN". Header values are field data: "time", "cycle", "restart_type",
// "restart_gamma", "restart_rgas", "restart_r0", "restart_rm0", "restart_p0", "pix_var",
// "pix_gamma", "pix_rgas", "pix_r0", "pix_rm0", "pix_p0" and "pix_text" (the 25 characters of the
// pix header text as UInt8 character codes).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "zelmgrid/files.hpp"

namespace zelm {

// How the face records number nodes and cells: from 1 within each zone, or from 1 across the
// whole grid (zone 2's first node is nptsz(1) + 1).
enum class numbering { withinzone, acrossgrid };
const char* numberingname(numbering n);

// VTK's linear cell types used by the export.
enum vtktype : std::uint8_t {
  vtk_line = 3,
  vtk_triangle = 5,
  vtk_polygon = 7,
  vtk_quad = 9,
  vtk_tetra = 10,
  vtk_hexahedron = 12,
  vtk_wedge = 13,
  vtk_pyramid = 14,
  vtk_polyhedron = 42,
};

// One unstructured piece: the cells of a grid zone or the faces of a boundary patch, over a compact
// set of points numbered from 0.
struct piece {
  std::string name;
  std::vector<std::int64_t> nodes;  // the grid node (from 0, over the grid) of each point
  std::vector<std::uint8_t> types;
  std::vector<std::int64_t> connectivity, offsets;  // offsets: end of each cell's points
  // VTK_POLYHEDRON cells: per cell [faces, (points, ids...) ...], and the end of each cell's stream
  // (-1 for other cells). Both empty when the piece has no polyhedron.
  std::vector<std::int64_t> faces, faceoffsets;
  std::vector<std::int64_t> cells;  // the grid cell (from 0) whose values each cell carries; -1 none
};

// A cell left out of the export, and why.
struct cellproblem {
  int zone = 0;           // from 1
  std::int64_t cell = 0;  // from 1, as the face records number it
  std::string why;
};

struct mesh {
  int ndim = 0;
  numbering num = numbering::withinzone;
  std::string numberingevidence;          // why that numbering, one line
  std::vector<piece> zones;               // one per grid zone
  std::vector<piece> boundaries;          // one per boundary code, codes descending (-1, -2, ...)
  std::vector<int> codes;                 // the code of each boundary piece
  std::int64_t leftout = 0;               // cells left out
  std::vector<cellproblem> firstleftout;  // the first few of them
  std::vector<std::string> notes;         // other things left out, one line each
  // Per grid face: bit s (s = 0, 1) set when the cell on side s + 1 sees the face's stored node
  // order as pointing out of it (in 2D: walks the edge that way round counter-clockwise).
  std::vector<std::uint8_t> outward;
  // Per grid face: the cell (from 0) on each side, or -1; boundary codes are in `code`.
  std::vector<std::int64_t> side1, side2;
  std::vector<int> code;                           // the negative code of a boundary face, 0 otherwise
  std::int64_t cellcount = 0;                      // cells of the grid
  std::vector<std::int64_t> nodestart, facestart;  // where each zone's nodes and faces start (nzones + 1)

  // The lines that tell a user what was built: numbering, counts, cells left out.
  std::vector<std::string> report() const;
};

// Rebuilds the cells of every zone from the faces. Cells that are open, degenerate or refer to
// nodes that do not exist are left out and counted; with `strict` the first of them is an error.
// Counts that disagree with the arrays are an error (zelm::error) before anything is allocated.
mesh buildmesh(const grid& g, bool strict = false);

enum class vtuencoding { raw, base64, ascii };

// What goes with the grid into the files; pointers may be null.
struct exportdata {
  const grid* g = nullptr;
  const pix* p = nullptr;
  const restart* r = nullptr;
  bool grid64 = false, pix64 = false, restart64 = false;  // 8-byte reals in the source files
  std::string title;                                      // names the source, for Tecplot
};

// The point array names of a pix solution (fixed then free), made unique and safe.
std::vector<std::string> pointarraynames(const pix& p);

// One piece as a .vtu file.
void writevtu(const std::string& file, const mesh& m, const piece& pc, const exportdata& d, vtuencoding enc);

// A .vtm file and, in `folder` (created), one .vtu per zone and per boundary patch; the .vtm names
// the pieces as `folderref`/NAME.vtu, so that it can be written under a temporary name first.
void writevtm(const std::string& file, const std::string& folder, const std::string& folderref, const mesh& m,
              const exportdata& d, vtuencoding enc);
// The same, with each piece written where piecepath(NAME.vtu) says (a caller that replaces a set of
// files together writes them under names of its own); the .vtm still names them folderref/NAME.vtu.
void writevtm(const std::string& file, const std::string& folderref, const mesh& m, const exportdata& d,
              vtuencoding enc, const std::function<std::string(const std::string& piece)>& piecepath);

// Tecplot ASCII: one zone per grid zone (FEPOLYHEDRON in 3D, FEPOLYGON in 2D) and one FEPOLYGON zone
// per boundary patch, each with its own nodes, block packing, restart values cell-centred.
void writetecplot(const std::string& file, const mesh& m, const exportdata& d);

}  // namespace zelm
