// Recognising a file of the solver family from its bytes: encoding, kind, precision, and the
// evidence for each, so that a user never has to say what a file is.
#pragma once

#include <string>
#include <vector>

#include "zelmgrid/files.hpp"

namespace zelm {

enum class filekind { unknown, grid, restart, pix };
const char* kindname(filekind k);

struct detection {
  bool encodingknown = false;
  encoding enc = encoding::binary;
  filekind kind = filekind::unknown;
  bool precisionknown = false;
  bool dblprec = false;
  bool truncated = false;             // framed records cut short by the end of the file
  int nvar = -1;                      // restart variables, when a grid says how many cells there are
  std::vector<std::string> evidence;  // why: one line each
  std::vector<std::string> problems;  // where the file does not fit its grid, or is damaged
  zelm::format format() const { return {enc, dblprec}; }
};

// Looks at the file's bytes (a regular file; anything else throws zelm::error). With a grid,
// restart and pix files are also checked against its zone counts (their records hold no counts
// of their own).
detection detect(const std::string& path, const grid* g = nullptr);

}  // namespace zelm
