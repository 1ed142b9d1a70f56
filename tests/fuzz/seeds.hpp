// Seed inputs of the fuzz targets, written by the library's own writers.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace zelmfuzz {

// (name, input) pairs for the target `target`: small grids, restart and pix files in every
// encoding and precision, with the leading bytes that make the target read them as written.
std::vector<std::pair<std::string, std::string>> seeds(const std::string& target);

}  // namespace zelmfuzz
