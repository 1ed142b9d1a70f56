// The two renderings of a report: text for people, JSON for programs.
#include <cmath>
#include <cstdio>

#include "zelmgrid/check.hpp"

namespace zelm::check {

int report::failed() const {
  int n = 0;
  for (const auto& s : sections)
    for (const auto& c : s.checks) n += !c.ok() && !c.warning;
  return n;
}

namespace {

std::string g(double v) {
  char b[32];
  std::snprintf(b, sizeof b, "%.6g", v);
  return b;
}

}  // namespace

std::string text(const report& r, const std::string& okline) {
  std::string s = r.subject + "\n";
  for (const auto& sec : r.sections) {
    s += "\n" + sec.title + "\n";
    for (const auto& c : sec.checks) {
      const char* mark = c.ok() ? "ok  " : c.warning ? "warn" : "FAIL";
      s += "  " + std::string(mark) + "  " + c.name;
      if (!c.ok()) s += ": " + std::to_string(c.failures);
      if (!c.note.empty()) s += (c.ok() ? ": " : "; ") + c.note;
      s += "\n";
      for (const auto& w : c.where) s += "          " + w + "\n";
      if (c.failures > static_cast<std::int64_t>(c.where.size()) && !c.where.empty())
        s += "          ... and " + std::to_string(c.failures - static_cast<std::int64_t>(c.where.size())) +
             " more\n";
    }
    for (const auto& b : sec.boundaries)
      s += "  boundary " + std::to_string(b.code) + ": " + std::to_string(b.faces) + " faces, area " +
           g(b.area) + "\n";
    for (const auto& q : sec.ranges) {
      s += "  " + q.name + ": ";
      if (q.count == 0) {
        s += "none\n";
        continue;
      }
      s += "min " + g(q.min) + (q.minwhere.empty() ? "" : " (" + q.minwhere + ")") + ", max " + g(q.max) +
           (q.maxwhere.empty() ? "" : " (" + q.maxwhere + ")") + ", mean " + g(q.mean) + "\n";
    }
  }
  const int n = r.failed();
  s += "\n" + (n == 0 ? okline : std::to_string(n) + (n == 1 ? " check failed" : " checks failed")) + "\n";
  return s;
}

std::string jsonstring(const std::string& in) {
  std::string s = "\"";
  for (const char ch : in) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '"' || c == '\\') {
      s += '\\';
      s += ch;
    } else if (c < 0x20) {
      char b[8];
      std::snprintf(b, sizeof b, "\\u%04x", c);
      s += b;
    } else {
      s += ch;
    }
  }
  return s + "\"";
}

std::string jsonnumber(double v) {
  if (!std::isfinite(v)) return "null";
  char b[32];
  std::snprintf(b, sizeof b, "%.17g", v);
  return b;
}

std::string json(const std::vector<range>& ranges) {
  std::string s = "[";
  for (std::size_t j = 0; j < ranges.size(); ++j) {
    const auto& q = ranges[j];
    s += std::string(j ? ", " : "") + "{\"name\": " + jsonstring(q.name) +
         ", \"count\": " + std::to_string(q.count) + ", \"min\": " + jsonnumber(q.min) +
         ", \"max\": " + jsonnumber(q.max) + ", \"mean\": " + jsonnumber(q.mean) +
         ", \"minwhere\": " + jsonstring(q.minwhere) + ", \"maxwhere\": " + jsonstring(q.maxwhere) + "}";
  }
  return s + "]";
}

std::string json(const report& r) {
  std::string s = "{\"subject\": " + jsonstring(r.subject) + ", \"failed\": " + std::to_string(r.failed()) +
                  ", \"ok\": " + (r.failed() == 0 ? "true" : "false") + ", \"sections\": [";
  for (std::size_t i = 0; i < r.sections.size(); ++i) {
    const auto& sec = r.sections[i];
    s += std::string(i ? ", " : "") + "{\"title\": " + jsonstring(sec.title) + ", \"checks\": [";
    for (std::size_t j = 0; j < sec.checks.size(); ++j) {
      const auto& c = sec.checks[j];
      s += std::string(j ? ", " : "") + "{\"name\": " + jsonstring(c.name) +
           ", \"ok\": " + (c.ok() ? "true" : "false") + ", \"warning\": " + (c.warning ? "true" : "false") +
           ", \"failures\": " + std::to_string(c.failures) + ", \"note\": " + jsonstring(c.note) +
           ", \"where\": [";
      for (std::size_t k = 0; k < c.where.size(); ++k) s += (k ? ", " : "") + jsonstring(c.where[k]);
      s += "]}";
    }
    s += "], \"boundaries\": [";
    for (std::size_t j = 0; j < sec.boundaries.size(); ++j) {
      const auto& b = sec.boundaries[j];
      s += std::string(j ? ", " : "") + "{\"code\": " + std::to_string(b.code) +
           ", \"faces\": " + std::to_string(b.faces) + ", \"area\": " + jsonnumber(b.area) + "}";
    }
    s += "], \"ranges\": " + json(sec.ranges) + "}";
  }
  return s + "]}\n";
}

}  // namespace zelm::check
