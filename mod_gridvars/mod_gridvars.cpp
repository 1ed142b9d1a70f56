// Default services of mod_gridvars: announcements on standard output, failures on standard error.
#include "zelmgrid/mod_gridvars.hpp"

#include <cstdio>
#include <string>

namespace mod_gridvars {

int numrstrtvar = 0;
logical readallvars = 0;
int npixvar = 0;
std::string readerrordetail;
std::FILE* announcements = stdout;

namespace {

// What the last announcement said, so that a later failure can name the file it concerns.
struct announcement {
  bool made = false;
  int iop = 0;
  int ikind = 0;
  std::string file;
  int filetype = 0;
  bool dblprec = false;
};
announcement last;

const char* kindname(int ikind) {
  switch (ikind) {
    case 10: return "grid";
    case 20: return "restart";
    case 30: return "pix";
    default: return "data";
  }
}

std::string encodingname(int filetype, bool dblprec) {
  switch (filetype) {
    case 0: return dblprec ? "unformatted, 8-byte reals" : "unformatted, 4-byte reals";
    case 1: return "formatted";
    case 2: return dblprec ? "binary, 8-byte reals" : "binary, 4-byte reals";
    default: return "unknown encoding code " + std::to_string(filetype);
  }
}

}  // namespace

void dispreadwrite(const int& iop, const int& ikind, const int& /*ilevel*/, const char40& filename,
                   const int& filetype, const logical& dblprec, const int* ivar) {
  last = {true, iop, ikind, std::string(filename.trimmed()), filetype, fortran::istrue(dblprec)};
  if (announcements == nullptr) return;
  std::string line = iop == 2 ? " Writing " : " Reading ";
  line += kindname(ikind);
  line += " file \"" + last.file + "\" (" + encodingname(filetype, last.dblprec) + ")";
  if (ivar != nullptr) line += ", variable " + std::to_string(*ivar);
  line += '\n';
  std::fputs(line.c_str(), announcements);
}

void dispfilereaderror() {
  std::fflush(stdout);
  std::string msg = "zelmgrid: cannot read ";
  // The file layer's detail names the file itself; the announcement adds what kind of file it is.
  if (last.made && !last.file.empty() && readerrordetail.find('"' + last.file + '"') != std::string::npos)
    msg += std::string(kindname(last.ikind)) + " file ";
  msg += readerrordetail.empty() ? std::string("file: read failed") : readerrordetail;
  std::fprintf(stderr, "%s\n", msg.c_str());
}

void checkallocationerror(const int& istat) {
  if (istat == 0) return;
  std::string where;
  if (last.made)
    where = std::string(" while ") + (last.iop == 2 ? "writing " : "reading ") + kindname(last.ikind) +
            " file \"" + last.file + "\"";
  std::fflush(stdout);
  if (istat == 1) {
    // An array that is already allocated keeps its storage. The Tecplot export asks for some of its
    // saved arrays again on every call, so this is a note, with the announcements, not an error.
    if (announcements != nullptr)
      std::fprintf(announcements, " note: allocation status 1 (the array is already allocated and kept)%s\n",
                   where.c_str());
    return;
  }
  // The other statuses of the library's array type.
  const char* why = istat == 2   ? "out of memory"
                    : istat == 3 ? "the array is not allocated"
                                 : "allocation failed";
  std::fprintf(stderr, "zelmgrid: allocation status %d (%s)%s\n", istat, why, where.c_str());
}

}  // namespace mod_gridvars
