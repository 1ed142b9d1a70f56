// Typed access to grid, restart and pix files for new code: whole files in memory, each zone at its
// own place, values held as 8-byte reals, failures thrown as zelm::error (zelm::readerror for a
// located read failure, zelm::ioerror for one of the operating system), no module state: calls on
// different files may run on different threads at once.
//
// The records and encodings are those of the routines in mod_zelmgrid.hpp, through the same
// encoding layer; the differences are deliberate:
//   - restart and pix values of zone z follow those of zones 1 .. z-1 (the routines place zones 1
//     and 2 both at position 1, so a multi-zone file read through them loses zone data);
//   - the formatted grid reader takes all zone counts as one record, as the writer writes them;
//   - in formatted files dblprec chooses 17 significant digits (8-byte values) over 9 (4-byte
//     values), for writing and reading alike.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "zelmgrid/error.hpp"
#include "zelmgrid/farray.hpp"

namespace zelm {

using fortran::farray;
using fortran::index_t;

enum class encoding { unformatted = 0, formatted = 1, binary = 2 };
const char* encodingname(encoding e);

struct format {
  encoding enc = encoding::unformatted;
  bool dblprec = false;  // 8-byte reals on disk (formatted: 17 significant digits)
};

struct zonecounts {
  int nodes = 0, faces = 0, cells = 0, mnpf = 0, mfpc = 0;
};

struct grid {
  int ndim = 0;
  int aux = 0;  // the header's third value, carried unchanged
  std::vector<zonecounts> zones;
  farray<double, 2> x;    // (ndim, nodes of all zones)
  farray<int, 1> npf;     // (faces of all zones)
  farray<int, 2> ifnode;  // (largest mnpf, faces)
  farray<int, 2> ifcell;  // (2, faces)

  index_t totalnodes() const;
  index_t totalfaces() const;
  index_t totalcells() const;
  std::vector<int> nodesperzone() const;
  std::vector<int> cellsperzone() const;
};

struct restart {
  double dtime = 0;
  int lastcyc = 0, rstype = 0;
  double dgamma = 0, drgas = 0, dr0 = 0, drm0 = 0, dp0 = 0;
  farray<double, 2> q;  // (variables, cells of all zones)
};

struct pix {
  double dvar = 0, dgamma = 0, drgas = 0, dr0 = 0, drm0 = 0, dp0 = 0;
  std::string text;                 // header text, 25 characters
  std::vector<std::string> labels;  // one 25-character label per free variable
  bool hasfreecount = false;        // the file holds the free-variable count record (written when
                                    // true even for no free variables; always with labels)
  farray<double, 2> values;         // (6 + free variables, nodes of all zones)
};

grid readgrid(const std::string& file, format f);
grid readgridheader(const std::string& file, format f);  // ndim, aux and the zone counts only
void writegrid(const std::string& file, format f, const grid& g);

// Restart files hold no counts: the cells per zone come from the grid, the number of variables
// from the caller (restartvariables infers it from the file).
restart readrestart(const std::string& file, format f, const std::vector<int>& cellsperzone, int nvar);
void writerestart(const std::string& file, format f, const restart& r, const std::vector<int>& cellsperzone);

pix readpix(const std::string& file, format f, const std::vector<int>& nodesperzone);
void writepix(const std::string& file, format f, const pix& p, const std::vector<int>& nodesperzone);

}  // namespace zelm
