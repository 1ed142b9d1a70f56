// Seeds: every file is written by the module's writers into a scratch directory and read back
// as bytes, then given the leading bytes that describe how it was written.
#include "seeds.hpp"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "fuzzentries.hpp"
#include "gridgen.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"

namespace zelmfuzz {

namespace fs = std::filesystem;
using fortran::char25;
using fortran::char40;
using fortran::farray;
namespace io = mod_zelmgrid::io;

namespace {

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

const fs::path& scratch() {
  static const fs::path dir = [] {
    fs::path d = fs::temp_directory_path() / ("zelmseeds" + std::to_string(::getpid()));
    fs::create_directories(d);
    return d;
  }();
  return dir;
}

// A 40-character name for a scratch file (the scratch directory's path is short).
char40 scratchname(const std::string& leaf) {
  return char40((scratch() / leaf).string());
}

const char* codename(int code) {
  return code == 0 ? "u" : code == 1 ? "f" : "b";
}

struct gridcase {
  const char* name;
  zelmgen::grid g;
};

std::vector<gridcase> grids() {
  std::vector<gridcase> v;
  v.push_back({"quad", zelmgen::quadtri(2, 1, false, 1)});
  v.push_back({"tri2z", zelmgen::quadtri(1, 1, true, 2)});
  v.push_back({"tetprism", zelmgen::tetprism(1, 1, 2, 1, 1)});
  return v;
}

std::string writegridfile(const zelmgen::grid& g, int code, bool wide) {
  const char40 name = scratchname("grid");
  const fortran::logical dp = wide ? 1 : 0;
  mod_zelmgrid::writezelmgrid(name, code, dp, g.ndim, g.nzones, g.ngridaux, g.x, g.nptsz, g.nfacesz,
                              g.ncellsz, g.mnpfz, g.mfpcz, g.npf, g.ifnode, g.ifcell);
  io::close(4);
  return slurp(name.trimmed());
}

void setcounts(params& p, const farray<int, 1>& counts) {
  p.nzones = static_cast<std::uint8_t>(counts.extent(1) + 1);
  for (fortran::index_t i = 1; i <= counts.extent(1) && i <= 8; ++i) p.counts[i - 1] = bytefor(counts(i));
}

void prepare() {
  fs::create_directories(scratch());
  mod_zelmgrid::resetstate();
  io::setstdout(nullptr);
  mod_gridvars::announcements = nullptr;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> seeds(const std::string& target) {
  prepare();
  std::vector<std::pair<std::string, std::string>> out;
  const bool gridtarget = target == "grid" || target == "gridheader";
  if (gridtarget) {
    for (auto& [gname, g] : grids()) {
      for (int code : {0, 1, 2}) {
        for (bool wide : {false, true}) {
          if (code == 1 && wide) continue;
          const std::string file = writegridfile(g, code, wide);
          for (int conn : {0, 1}) {
            if (target == "gridheader" && (conn || wide)) continue;
            params p;
            p.code = static_cast<std::uint8_t>(code);
            p.flags = static_cast<std::uint8_t>((wide ? 1 : 0) | (conn << 1));
            out.emplace_back(
                std::string(gname) + "-" + codename(code) + (wide ? "8" : "4") + (conn ? "c" : ""),
                makeinput(p, file));
          }
        }
      }
    }
  }
  if (target == "restart") {
    for (auto& [gname, g] : grids()) {
      for (int nvar : {1, 3}) {
        const farray<float, 2> q = zelmgen::cellsolution(g, nvar);
        for (int code : {0, 1, 2}) {
          for (bool wide : {false, true}) {
            if (code == 1 && wide) continue;
            prepare();
            mod_gridvars::numrstrtvar = nvar;
            mod_zelmgrid::dtime = 0.25;
            mod_zelmgrid::lastcyc = 120;
            mod_zelmgrid::rstype = 2;
            mod_zelmgrid::dgamma = 1.4;
            mod_zelmgrid::drgas = 287.0;
            const char40 name = scratchname("restart");
            mod_zelmgrid::writezelmrstrtfile(name, code, wide ? 1 : 0, g.nzones, g.ncellsz, q);
            const std::string file = slurp(name.trimmed());
            for (int all : {0, 1}) {
              params p;
              p.code = static_cast<std::uint8_t>(code);
              p.flags = static_cast<std::uint8_t>((wide ? 1 : 0) | (all << 1));
              p.nvar = static_cast<std::uint8_t>(nvar);
              setcounts(p, g.ncellsz);
              out.emplace_back(std::string(gname) + "-v" + std::to_string(nvar) + "-" + codename(code) +
                                   (wide ? "8" : "4") + (all ? "a" : "n"),
                               makeinput(p, file));
            }
          }
        }
      }
    }
  }
  if (target == "pix") {
    for (auto& [gname, g] : grids()) {
      for (int nfree : {0, 2, 21}) {
        const farray<float, 2> values = zelmgen::nodesolution(g, nfree);
        for (int code : {0, 1, 2}) {
          for (bool wide : {false, true}) {
            if (code == 1 && wide) continue;
            prepare();
            mod_gridvars::npixvar = 6 + nfree;
            mod_zelmgrid::nfree = nfree;
            mod_zelmgrid::dvar = 3.5;
            mod_zelmgrid::dgamma = 1.4;
            mod_zelmgrid::string = char25("seed pix file");
            for (int k = 1; k <= nfree && k <= 20; ++k)
              mod_zelmgrid::strfree(static_cast<std::size_t>(k)) = char25("free " + std::to_string(k));
            const char40 name = scratchname("pix");
            mod_zelmgrid::writezelmpixfile(name, code, wide ? 1 : 0, g.nzones, g.nptsz, values);
            const std::string file = slurp(name.trimmed());
            for (int all : {0, 1}) {
              params p;
              p.code = static_cast<std::uint8_t>(code);
              p.flags = static_cast<std::uint8_t>((wide ? 1 : 0) | (all << 1));
              setcounts(p, g.nptsz);
              out.emplace_back(std::string(gname) + "-f" + std::to_string(nfree) + "-" + codename(code) +
                                   (wide ? "8" : "4") + (all ? "a" : "n"),
                               makeinput(p, file));
            }
          }
        }
      }
    }
  }
  if (target == "listdirected") {
    const std::pair<const char*, const char*> texts[] = {
        {"ints", " 1 2 3\n 4 5\n"},
        {"reals", " 1.5 -2.25E+3 .5D-1\n 7*0.125 2*\n"},
        {"repeat", "3*1.5, 2*, 4 /\n 9 8 7\n"},
        {"commas", "1,,3,\n,5\n"},
        {"slash", " 1 2 / 3 4\n 5 6\n"},
        {"crlf", " 1 2\r\n 3 4\r\n"},
        {"text", "free variable label 1    \n 12 13\n"},
        {"count", " 3 10 20 30 0.5\n 2 1 2 9.5\n"},
    };
    for (const auto& [tname, text] : texts) {
      for (const int prog : {0, 1, 2}) {
        params p;
        p.code = 7;
        p.flags = 1;
        static const std::uint8_t programs[3][8] = {
            {3 << 3 | 0, 2 << 3 | 0, 4 << 3 | 1, 2 << 3 | 2, 3, 6, 5 << 3 | 5, 4},
            {4, 4, 3, 2 << 3 | 2, 6, 1 << 3 | 0, 8 << 3 | 7, 3},
            {8 << 3 | 2, 3, 6, 31 << 3 | 0, 2 << 3 | 1, 5, 4, 1 << 3 | 2},
        };
        std::copy_n(programs[prog], 8, p.counts);
        out.emplace_back(std::string(tname) + "-" + std::to_string(prog), makeinput(p, text));
      }
    }
  }
  fs::remove_all(scratch());
  mod_zelmgrid::resetstate();
  return out;
}

}  // namespace zelmfuzz
