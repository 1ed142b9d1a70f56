// File recognition lives in the library (zelmgrid/detect.hpp); the tool uses it under its own names.
#pragma once

#include "zelmgrid/detect.hpp"

namespace zelmtool {
using zelm::detect;
using zelm::detection;
using zelm::filekind;
using zelm::kindname;
}  // namespace zelmtool
