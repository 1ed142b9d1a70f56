// Tecplot export of a typed grid: the file that writetecplotfile writes, from a zelm::grid, without
// module state. Each call has a state of its own, so threads may export different grids at once.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

#include "zelmgrid/files.hpp"

namespace zelm {

// Receives the export's messages, one line at a time without its end of line.
using messagesink = std::function<void(std::string_view line)>;

// A sink that writes each line to f and flushes it; nullptr gives an empty sink (silence).
messagesink messagesto(std::FILE* f);

// Solution values in every node record: the six variables (RHO U V W P FREE) that the file's
// variable list names after the coordinates.
inline constexpr int tecplotvalues = 6;

struct tecplotoptions {
  // k >= 1: zone k alone, written as a grid of one zone (its nodes and faces are the zone's own,
  // node and cell numbers count within the zone). 0: every zone in one file, exactly as
  // writetecplotfile takes the grid's arrays, each zone scanning the faces up to its last one;
  // like the routine, every zone's node records and cells are then numbered from the start of the
  // arrays, so that only grids numbered that way export whole.
  int zone = 0;
  // Progress lines (what writetecplotfile prints on standard output) and reports of references
  // outside the grid's arrays that were left out (what it prints on standard error). Empty: silent.
  messagesink messages;
};

// Writes grid g with its node values to `file` (any path, used exactly as given; replaced when it
// exists): the bytes that writetecplotfile writes for the same arrays, with npixvar and numrstrtvar
// both tecplotvalues. values is (variables, nodes of all zones) and its first tecplotvalues rows
// are written; nullptr writes zeros. Counts that the grid's arrays do not hold, cells or faces per
// cell that its faces cannot have, work arrays beyond what the grid's size allows, an allocation
// that fails, a cell whose nodes cannot be ordered (where writetecplotfile stops the program) and
// I/O failures throw zelm::error; on a throw the file holds what was written so far. Returns how
// many references outside the grid's arrays were left out (0 for a consistent grid).
std::int64_t writetecplot(const std::string& file, const grid& g, const farray<double, 2>* values = nullptr,
                          const tecplotoptions& options = {});

}  // namespace zelm
