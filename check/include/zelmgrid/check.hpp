// Is a grid (and its solution) sound, and how do two files differ: the checks and comparisons
// behind `zelm check` and `zelm diff`, on the typed files of zelmgrid/files.hpp.
//
// A report is a list of sections (the file, each zone, each solution); a section holds checks
// (passed or failed, with the first few places that fail), value ranges and boundary codes. The
// renderers turn a report into the tool's text or JSON; nothing here prints or exits.
//
// Definitions (the same in 2D, where faces are edges and volumes are areas):
//   - A face's area vector follows the right-hand rule over its nodes in file order (a triangle fan
//     about the node average); in 2D an edge from node a to node b has the area vector
//     (yb - ya, xa - xb), the edge turned clockwise. Its centre is the area-weighted centroid.
//   - A cell's centre is the volume-weighted centroid of the pyramids that join its faces to the
//     average of its face centres; its volume is the sum of those pyramids' volumes.
//   - Orientation: from each side's cell, a face's area vector points out of the cell (away from
//     the cell's centre estimate) or into it. The grid's sense is what most faces say: "from side 1
//     to side 2" (out of the cell in ifcell(1)) or "from side 2 to side 1". A face is reversed when
//     every cell beside it sees it against that sense. Closedness and centres use each face in the
//     grid's sense with reversed faces turned round, so one reversed face is reported once; volumes
//     use every face in the grid's sense, so a cell turned inside out has a negative volume.
//   - Closed: |sum of a cell's outward area vectors| <= 1e-6 x the sum of their magnitudes.
//   - Non-orthogonality (interior faces): the angle between the face's area vector and the line
//     from the centre of the cell it points out of to the other's; above 70 degrees is severe
//     (reported, not failed), above 90 a failure.
//   - Skewness (as OpenFOAM's checkMesh): the distance from the face centre to where the line
//     between the cell centres (for a boundary face: the face normal through the cell centre)
//     meets the face plane, over the face's extent in that direction (at least 0.2 x the distance
//     between the centres); above 4 fails.
//   - Neighbour volume ratio: the larger over the smaller volume of the cells beside an interior face.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zelmgrid/files.hpp"

namespace zelm::check {

// One thing checked, over all items it applies to.
struct check {
  check() = default;
  explicit check(std::string what) : name(std::move(what)) {}
  std::string name;                // what must hold, e.g. "cells closed"
  std::int64_t failures = 0;       // items that break it
  std::vector<std::string> where;  // the first few of them
  std::string note;                // what was found when it holds, e.g. the sense of orientation
  bool warning = false;            // a failure here is reported but does not fail the file
  bool ok() const { return failures == 0; }
};

// Minimum, maximum and mean of a quantity, and where its extremes are.
struct range {
  std::string name;
  std::int64_t count = 0;  // values taken in (NaN and infinite values are left out)
  double min = 0, max = 0, mean = 0;
  std::string minwhere, maxwhere;
};

struct boundary {
  int code = 0;  // the negative number on a face's side (0: nothing there)
  std::int64_t faces = 0;
  double area = 0;
};

struct section {
  section() = default;
  explicit section(std::string heading) : title(std::move(heading)) {}
  std::string title;  // "file", "zone 2", "pix file"
  std::vector<check> checks;
  std::vector<range> ranges;
  std::vector<boundary> boundaries;
};

struct report {
  std::string subject;  // what was checked or compared
  std::vector<section> sections;
  int failed() const;  // checks failed over all sections (warnings left out)
};

// The text report, ending in "grid OK" / "files equal" or "N checks failed" (last line).
std::string text(const report& r, const std::string& okline);
std::string json(const report& r);

// ---- check ------------------------------------------------------------------------------------

// The checks of a grid that was read whole.
report checkgrid(const grid& g);
// The file section of a grid that could not be read whole: what the typed reader said, with the
// header's counts to say how far it got and, when it ran out of bytes, where the file ends.
section unreadable(const std::string& why, std::int64_t filesize, const grid* header);

// Which variables hold density and pressure (1-based; 0 for none), checked to be positive.
struct fixedvariables {
  int density = 0, pressure = 0;
};
inline constexpr fixedvariables pixfixed{1, 5};      // RHO U V W P FREE
inline constexpr fixedvariables restartfixed{1, 0};  // conserved variables: density first

// The solution checks: values finite, density and pressure positive, every variable's range.
// `values` is (variables, items of all zones); items are nodes for pix, cells for restart.
section checksolution(const std::string& title, const farray<double, 2>& values,
                      const std::vector<int>& perzone, const char* item, fixedvariables fixed,
                      const std::vector<std::string>& names);
// A solution that could not be read against the grid, with the reader's reason.
section unfit(const std::string& title, const std::string& why);

// ---- diff -------------------------------------------------------------------------------------

// Two values are equal within tolerance when |a - b| <= atol + rtol x max(|a|, |b|), or when they
// are at most `ulps` units in the last place apart. ULPs count in the coarser precision of the two
// files, at the value of smaller magnitude, so a double rounded to a float is at most 0.5 away.
struct tolerance {
  double atol = 0, rtol = 0, ulps = 0;
};

// A file's values with what they mean for the comparison.
struct side {
  bool dblprec = false;  // 8-byte reals; 4-byte values are compared as floats, even when read from text
};

report diffgrids(const grid& a, side sa, const grid& b, side sb, tolerance t);
// coordinates: the grid of the solutions, to say where a difference is (may be null).
report diffpix(const pix& a, side sa, const pix& b, side sb, const std::vector<int>& nodesperzone,
               const grid* coordinates, tolerance t);
report diffrestart(const restart& a, side sa, const restart& b, side sb, const std::vector<int>& cellsperzone,
                   const grid* coordinates, tolerance t);

// Units in the last place between a and b in 4-byte (dblprec false) or 8-byte reals.
double ulpdistance(double a, double b, bool dblprec);

// JSON pieces for other reports of the tool.
std::string jsonstring(const std::string& s);
std::string jsonnumber(double v);                    // null when not finite
std::string json(const std::vector<range>& ranges);  // a JSON array of ranges

// Each coordinate's range over the grid's nodes (its bounding box).
std::vector<range> coordinateranges(const grid& g);

}  // namespace zelm::check
