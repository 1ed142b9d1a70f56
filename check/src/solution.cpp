// The checks of a solution on its grid: finite values, positive density and pressure, ranges.
#include <cmath>

#include "internal.hpp"

namespace zelm::check {

using detail::fail;

namespace {

// Zone and item (1-based within the zone) of item i (0-based over all zones).
std::string place(const std::vector<int>& perzone, const char* item, std::int64_t i) {
  std::size_t k = 0;
  while (k + 1 < perzone.size() && i >= perzone[k]) i -= perzone[k++];
  return "zone " + std::to_string(k + 1) + " " + item + " " + std::to_string(i + 1);
}

}  // namespace

section checksolution(const std::string& title, const farray<double, 2>& values,
                      const std::vector<int>& perzone, const char* item, fixedvariables fixed,
                      const std::vector<std::string>& names) {
  section s{title};
  const index_t nvar = values.extent(1), n = values.extent(2);
  check fits{"fits the grid"};
  fits.note = std::to_string(nvar) + " variable(s) of " + detail::num(n) + " " + item + "s in " +
              std::to_string(perzone.size()) + " zone(s)";
  s.checks.push_back(fits);
  const auto name = [&](index_t v) {
    const auto i = static_cast<std::size_t>(v - 1);
    return "variable " + std::to_string(v) +
           (i < names.size() && !names[i].empty() ? " (" + names[i] + ")" : "");
  };
  check finite{"values finite (no NaN or infinity)"};
  check density{"density positive"}, pressure{"pressure positive"};
  const auto where = [&](std::int64_t i) { return place(perzone, item, i); };
  for (index_t v = 1; v <= nvar; ++v) {
    detail::accumulator acc{name(v)};
    const bool isdensity = v == fixed.density, ispressure = v == fixed.pressure;
    for (index_t i = 0; i < n; ++i) {
      const double q = values(v, i + 1);
      if (!std::isfinite(q)) fail(finite, name(v) + " at " + where(i) + ": " + std::to_string(q));
      if (isdensity && !(q > 0)) fail(density, name(v) + " at " + where(i) + ": " + std::to_string(q));
      if (ispressure && !(q > 0)) fail(pressure, name(v) + " at " + where(i) + ": " + std::to_string(q));
      acc.add(q, i);
    }
    s.ranges.push_back(acc.result(where));
  }
  s.checks.push_back(finite);
  if (fixed.density >= 1 && fixed.density <= nvar) {
    density.note = name(fixed.density);
    s.checks.push_back(density);
  }
  if (fixed.pressure >= 1 && fixed.pressure <= nvar) {
    pressure.note = name(fixed.pressure);
    s.checks.push_back(pressure);
  }
  return s;
}

std::vector<range> coordinateranges(const grid& g) {
  std::vector<range> out;
  static const char* axis[] = {"x", "y", "z"};
  for (int d = 0; d < g.ndim; ++d) {
    detail::accumulator acc(d < 3 ? axis[d] : "coordinate " + std::to_string(d + 1));
    for (index_t n = 0; n < g.totalnodes(); ++n) acc.add(g.x.data()[n * g.ndim + d], n);
    out.push_back(acc.result([&](std::int64_t n) { return "node " + std::to_string(n + 1); }));
  }
  return out;
}

section unfit(const std::string& title, const std::string& why) {
  section s{title};
  check fits{"fits the grid"};
  fail(fits, why);
  s.checks.push_back(fits);
  return s;
}

}  // namespace zelm::check
