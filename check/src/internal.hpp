// Pieces shared by the checks and the comparisons.
#pragma once

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "zelmgrid/check.hpp"

namespace zelm::check::detail {

inline constexpr std::size_t examples = 5;  // places listed per check

inline void fail(check& c, const std::string& where) {
  if (c.where.size() < examples) c.where.push_back(where);
  ++c.failures;
}

// Builds a range from values taken one at a time; non-finite values are left out.
struct accumulator {
  explicit accumulator(std::string what) : name(std::move(what)) {}
  std::string name;
  std::int64_t count = 0;
  double min = std::numeric_limits<double>::infinity(), max = -min, sum = 0;
  std::int64_t minat = -1, maxat = -1;
  void add(double v, std::int64_t at) {
    if (!std::isfinite(v)) return;
    ++count;
    sum += v;
    if (v < min) min = v, minat = at;
    if (v > max) max = v, maxat = at;
  }
  // where(i) names item i for the extremes.
  template <class Where>
  range result(Where&& where) const {
    range r;
    r.name = name;
    r.count = count;
    if (count == 0) return r;
    r.min = min, r.max = max, r.mean = sum / static_cast<double>(count);
    r.minwhere = where(minat), r.maxwhere = where(maxat);
    return r;
  }
};

// Numbers written with thousands separated by commas.
std::string num(std::int64_t v);

// The centre of every cell of the grid, 3 per cell (z = 0 in 2D), zone after zone; cells whose
// faces do not make a cell get the average of the face centres they have, or NaN.
std::vector<double> cellcentres(const grid& g);

}  // namespace zelm::check::detail
