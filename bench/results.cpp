#include "results.hpp"

#include <cstdio>
#include <ctime>
#include <fstream>

#include "measure.hpp"

namespace zelmbench {

namespace {

std::string jsonstr(const std::string& s) {
  std::string r = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') r += '\\';
    r += c;
  }
  return r + "\"";
}

}  // namespace

void writejson(const std::string& path, const data& d, const std::vector<row>& rows, double seconds) {
  std::ofstream o(path);
  char when[64];
  const std::time_t now = std::time(nullptr);
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S %Z", std::localtime(&now));
  o << "{\n  \"date\": " << jsonstr(when) << ",\n  \"shape\": " << jsonstr(d.opt.shape)
    << ",\n  \"ndim\": " << d.g.ndim << ",\n  \"zones\": " << d.g.nzones << ",\n  \"cells\": " << d.ncells
    << ",\n  \"nodes\": " << d.nnodes << ",\n  \"faces\": " << d.nfaces << ",\n  \"nvar\": " << nvar
    << ",\n  \"nfree\": " << nfreevars << ",\n  \"runs\": " << d.opt.runs
    << ",\n  \"fortran_runs\": " << d.opt.fruns << ",\n  \"meshio_runs\": " << d.opt.mruns
    << ",\n  \"seconds\": " << seconds << ",\n  \"rows\": [\n";
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const row& r = rows[i];
    o << "    {\"name\": " << jsonstr(r.name) << ", \"impl\": " << jsonstr(r.impl)
      << ", \"enc\": " << jsonstr(r.enc) << ", \"prec\": " << r.prec << ", \"bytes\": " << r.bytes
      << ", \"records\": " << r.records << ", \"musthold\": " << r.musthold << ", \"reps\": " << r.reps
      << ", \"note\": " << jsonstr(r.note) << ", \"samples\": [";
    for (std::size_t k = 0; k < r.samples.size(); ++k) {
      const sample& s = r.samples[k];
      char buf[256];
      std::snprintf(buf, sizeof buf,
                    "%s{\"wall\": %.9g, \"cpu\": %.9g, \"peakkb\": %lld, \"basekb\": %lld, \"faults\": %lld, "
                    "\"ok\": %d}",
                    k ? ", " : "", s.wall, s.cpu, static_cast<long long>(s.peakkb),
                    static_cast<long long>(s.basekb), static_cast<long long>(s.faults), s.ok);
      o << buf;
    }
    o << "]}" << (i + 1 < rows.size() ? "," : "") << "\n";
  }
  o << "  ]\n}\n";
}

}  // namespace zelmbench
