// The results that bench/report.py reads: one row per routine (or baseline) in one encoding and
// precision, with every sample taken, written as JSON.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "harness.hpp"

namespace zelmbench {

struct data;

// One line of the results: a routine (or baseline) in one encoding and precision.
struct row {
  std::string name;  // e.g. "readzelmgrid/conn"
  std::string impl;  // zelmgrid, zelmgrid-4k, fortran, floor, floor-4k, tochars, write2, meshio
  std::string enc;   // unformatted, binary, formatted, or "-"
  int prec = 0;      // 4 or 8; 0 where the precision plays no part
  std::int64_t bytes = 0, records = 0, musthold = 0;
  int reps = 1;
  std::vector<sample> samples;
  std::string note;
};

void writejson(const std::string& path, const data& d, const std::vector<row>& rows, double seconds);

}  // namespace zelmbench
