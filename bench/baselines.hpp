// The baselines each routine is measured against, in the same run: the Fortran runtime's path
// (bench/fortranpath.f90) on the same file, the floors of plain system calls (read(2) of the same
// bytes, write(2) of as many) and of formatting numbers alone (std::to_chars), and meshio.
#pragma once

#include <cstdint>
#include <string>

#include "measure.hpp"

namespace zelmbench {

sample fortranpath(const data& d, const measurement& m, int reps);

// read(2) of the same bytes into a reused buffer, plus first touch of arrays of the sizes that
// the reader fills.
sample readfloor(const measurement& m, bool huge);
// write(2) of as many bytes as the writer wrote, from a reused buffer.
sample writefloor(const measurement& m, std::int64_t bytes);
// The formatting floor of a formatted writer: its measurement's tochars.
sample tocharsfloor(const data& d, const measurement& m);
// Formats the first `rows` rows of a 4-byte real array, as the formatting floor of a text writer.
void tocharsfloats(const farray<float, 2>& a, index_t rows);

// Whether the Fortran path's file is the library's: the same bytes, or in text the same tokens.
std::string samebytes(const std::string& a, const std::string& b);
std::string sametokens(const std::string& a, const std::string& b);

// meshio writing the same grid and node values as Tecplot ASCII and VTU (bench/meshio_path.py).
void addmeshio(bench& b, data& d);

}  // namespace zelmbench
