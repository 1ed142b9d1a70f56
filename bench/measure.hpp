// What zelmbench measures and how one measurement runs: the options, the grid and solutions the
// routines work on, a measurement (one routine in one encoding and precision), and the runner that
// takes the library's samples interleaved with its baselines', run by run, so that the load of a
// shared machine falls on both alike.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "gridgen.hpp"
#include "harness.hpp"
#include "results.hpp"
#include "zelmgrid/farray.hpp"
#include "zelmgrid/mod_zelmgrid.hpp"

namespace zelmbench {

namespace zm = mod_zelmgrid;
using fortran::farray;
using fortran::index_t;

struct options {
  std::int64_t cells = 1000000;
  std::string shape = "tetprism";
  int zones = 1;
  int runs = 5, fruns = 3, mruns = 3;
  std::string fortran, meshio, python = "/usr/bin/python3";
  std::string dir, only, json;
  bool keep = false, smoke = false, inprocess = false;
  double mintime = 0.002;
};

constexpr int nvar = 6;       // restart variables
constexpr int nfreevars = 1;  // free variables of the pix file

struct data {
  options opt;
  zelmgen::grid g;
  farray<float, 2> q, pix;      // restart (variable, cell) and pix (variable, node) solutions
  farray<double, 2> x8, qnode;  // the Tecplot export's 8-byte coordinates and node values
  std::int64_t nnodes = 0, nfaces = 0, ncells = 0;
  std::string dir;
  std::string path(const std::string& name) const { return dir + "/" + name; }
};

// The encodings and precisions of the files: 4- and 8-byte reals in the unformatted and binary
// encodings, text once (it has no precision).
constexpr std::pair<int, int> filecases[] = {{0, 0}, {0, 1}, {2, 0}, {2, 1}, {1, 0}};

const char* encname(int enc);
std::string suffix(int enc, int dbl);  // u4, u8, b4, b8, f: the files' name endings
fortran::char40 name40(const std::string& s);

// The header values of the restart and pix files: exact in 4-byte reals, so that files written in
// either precision carry the same values back.
void setheader();

// Reads every page of the benchmark's grid and solutions (see prefault).
void prefaultinputs(const data& d);

struct measurement {
  std::string name;
  bool reader = false;
  int enc = 0, dbl = 0;
  std::string file;  // read (readers) or written (writers)
  std::string fop;   // the Fortran path's operation, "" when it has none
  std::int64_t records = 0, musthold = 0;
  std::vector<std::int64_t> outputs;            // byte sizes of the arrays a reader fills (for its floor)
  std::int64_t floorbytes = -1;                 // bytes of the file that the reader takes (-1: all)
  int floorpasses = 1;                          // times the reader goes through the file
  std::function<void()> setup;                  // in the child, untimed, before the high-water mark is reset
  std::function<std::int64_t(bool last)> call;  // one call; returns the checksum of what it read
  std::function<void()> tochars;                // the formatting floor of a formatted writer
  bool repeatable = true;  // false: one call per process (the Tecplot export's saved state)
  std::string note;
};

struct bench {
  data& d;
  std::vector<row> rows;

  // The library, in a child: setup, then `reps` calls timed together.
  sample ours(const measurement& m, int reps, bool huge);
  row& addrow(const measurement& m, const std::string& impl, int reps);
  // A measurement that cannot be made, with the reason.
  void skip(const measurement& m, const std::string& why);
  // The library's samples and its baselines', with the Fortran path's agreement, and a line of
  // progress.
  void run(const measurement& m);
};

}  // namespace zelmbench
