#include "zelmgrid/detect.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <sstream>

#include "records.hpp"

namespace zelm {

namespace {

using std::int64_t;

// The file's bytes, mapped read-only.
class mapped {
 public:
  explicit mapped(const std::string& path) {
    // Without waiting for a writer (a FIFO), and only a regular file.
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd_ < 0)
      throw zelm::ioerror("cannot open \"" + path + "\": " + std::strerror(errno), path, "open", errno);
    struct stat sb {};
    if (::fstat(fd_, &sb) != 0 || !S_ISREG(sb.st_mode)) {
      ::close(fd_);
      throw zelm::error("\"" + path + "\" is not a regular file");
    }
    size_ = static_cast<std::size_t>(sb.st_size);
    if (size_ > 0) {
      void* p = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd_, 0);
      if (p == MAP_FAILED) throw zelm::error("cannot map \"" + path + "\": " + std::strerror(errno));
      p_ = static_cast<const unsigned char*>(p);
    }
  }
  ~mapped() {
    if (p_ != nullptr) ::munmap(const_cast<unsigned char*>(p_), size_);
    if (fd_ >= 0) ::close(fd_);
  }
  mapped(const mapped&) = delete;
  mapped& operator=(const mapped&) = delete;
  const unsigned char* data() const { return p_; }
  std::size_t size() const { return size_; }
  template <class T>
  T at(std::size_t off) const {
    T v;
    std::memcpy(&v, p_ + off, sizeof v);
    return v;
  }

 private:
  int fd_ = -1;
  const unsigned char* p_ = nullptr;
  std::size_t size_ = 0;
};

std::string num(int64_t v) {
  // Thousands separated by commas, for counts a reader takes in at a glance.
  std::string s = std::to_string(v < 0 ? -v : v);
  for (int i = static_cast<int>(s.size()) - 3; i > 0; i -= 3) s.insert(static_cast<std::size_t>(i), ",");
  return (v < 0 ? "-" : "") + s;
}

// ---- framed records ---------------------------------------------------------------------------

struct record {
  int64_t offset;  // of its first leading marker
  int64_t length;  // data bytes over all its sub-records
  int64_t data;    // offset of its first data byte
};

// Walks the file as framed records; empty result with `why` when it is not one. A file whose
// records are well formed up to a last one that the end cuts short is a truncated framed file:
// its whole records are returned, and `truncated` says where they end.
std::vector<record> framedrecords(const mapped& m, std::string& why, std::string& truncated) {
  std::vector<record> out;
  mod_zelmgrid::io::recordwalker w(m.data(), m.size());
  for (mod_zelmgrid::io::framedrecord r; w.next(r);) out.push_back({r.offset, r.length, r.data});
  if (w.damage().empty()) return out;
  why = w.damage();
  if (w.truncated() && out.size() >= 2) {
    truncated = "framed records up to byte " + num(w.end()) + ", then " + w.damage() + ": truncated";
    return out;
  }
  return {};
}

bool istext(const mapped& m) {
  bool newline = false;
  for (std::size_t i = 0; i < m.size(); ++i) {
    const unsigned char c = m.data()[i];
    if (c == '\n') newline = true;
    if (!(c == '\n' || c == '\r' || c == '\t' || (c >= 0x20 && c < 0x7f))) return false;
  }
  return newline;
}

std::vector<int> cells(const zelm::grid* g) {
  return g ? g->cellsperzone() : std::vector<int>{};
}
std::vector<int> nodes(const zelm::grid* g) {
  return g ? g->nodesperzone() : std::vector<int>{};
}
int64_t sum(const std::vector<int>& v) {
  return std::accumulate(v.begin(), v.end(), int64_t{0});
}

// ---- framed files -----------------------------------------------------------------------------

void framedgrid(const mapped& m, const std::vector<record>& rs, detection& d) {
  const int ndim = m.at<int>(static_cast<std::size_t>(rs[0].data));
  const int nzones = m.at<int>(static_cast<std::size_t>(rs[0].data + 4));
  d.kind = filekind::grid;
  d.evidence.push_back("record 1 holds 12 bytes (ndim " + std::to_string(ndim) + ", " +
                       std::to_string(nzones) + (nzones == 1 ? " zone" : " zones") +
                       ") and record 2 holds 20 bytes per zone: a grid header");
  std::size_t r = 2;
  int64_t nodecount = 0, facecount = 0;
  int width = 0;
  for (int k = 0; k < nzones; ++k) {
    const auto base = static_cast<std::size_t>(rs[1].data) + static_cast<std::size_t>(k) * 20;
    const int np = m.at<int>(base), nf = m.at<int>(base + 4);
    for (int i = 0; i < np && r < rs.size(); ++i, ++r) {
      const int64_t len = rs[r].length;
      if (!d.precisionknown && ndim > 0 && (len == 4LL * ndim || len == 8LL * ndim)) {
        d.precisionknown = true;
        d.dblprec = len == 8LL * ndim;
        width = d.dblprec ? 8 : 4;
      }
      if (width == 0 || len != static_cast<int64_t>(width) * ndim)
        d.problems.push_back("record " + num(static_cast<int64_t>(r + 1)) + " (zone " +
                             std::to_string(k + 1) + " node " + num(i + 1) + ") holds " + num(len) +
                             " bytes, not " + std::to_string(ndim) + " reals");
      ++nodecount;
      if (d.problems.size() > 5) return;
    }
    for (int i = 0; i < nf && r < rs.size(); ++i, ++r) {
      const int npf = rs[r].length >= 4 ? m.at<int>(static_cast<std::size_t>(rs[r].data)) : -1;
      if (rs[r].length != 4 * (std::max<int64_t>(npf, 0) + 3))
        d.problems.push_back("record " + num(static_cast<int64_t>(r + 1)) + " (zone " +
                             std::to_string(k + 1) + " face " + num(i + 1) + ") holds " + num(rs[r].length) +
                             " bytes, not a face");
      ++facecount;
      if (d.problems.size() > 5) return;
    }
  }
  if (r != rs.size())
    d.problems.push_back("the zone counts account for " + num(static_cast<int64_t>(r)) +
                         " records, the file holds " + num(static_cast<int64_t>(rs.size())));
  if (d.precisionknown)
    d.evidence.push_back(num(nodecount) + " node records of " + std::to_string(width * ndim) + " bytes: " +
                         std::to_string(ndim) + " reals of " + std::to_string(width) + " bytes each");
  d.evidence.push_back(num(facecount) + " face records, each as long as its node count says");
}

// Solution files: the records after the header must be `perrecord` long, zone after zone.
void checkvariables(const std::vector<record>& rs, std::size_t first, std::size_t count,
                    const std::vector<int>& perzone, int width, const char* what, detection& d) {
  for (std::size_t i = 0; i < count && first + i < rs.size(); ++i) {
    const std::size_t z = i % perzone.size();
    const int64_t want = static_cast<int64_t>(perzone[z]) * width;
    if (rs[first + i].length != want) {
      d.problems.push_back("record " + num(static_cast<int64_t>(first + i + 1)) + " (variable " +
                           std::to_string(i / perzone.size() + 1) + ", zone " + std::to_string(z + 1) +
                           ") holds " + num(rs[first + i].length) + " bytes, but zone " +
                           std::to_string(z + 1) + " of the grid has " + num(perzone[z]) + " " + what + " (" +
                           num(want) + " bytes)");
      if (d.problems.size() > 5) return;
    }
  }
}

void framedrestart(const std::vector<record>& rs, const zelm::grid* g, detection& d) {
  d.kind = filekind::restart;
  d.precisionknown = true;
  d.dblprec = rs[0].length == 16;
  d.evidence.push_back("records 1 to 3 hold " + num(rs[0].length) + ", " + num(rs[1].length) + " and " +
                       num(rs[2].length) + " bytes: a restart header with " + (d.dblprec ? "8" : "4") +
                       "-byte reals");
  if (g == nullptr) return;
  const auto per = cells(g);
  const std::size_t vrec = rs.size() - 3;
  if (per.empty()) {
    if (vrec != 0)
      d.problems.push_back("the grid has no zones, but the file holds " + num(static_cast<int64_t>(vrec)) +
                           " records after its header");
    d.nvar = 0;
    return;
  }
  if (vrec % per.size() != 0) {
    d.problems.push_back("the file holds " + num(static_cast<int64_t>(vrec)) +
                         " records after its header, not a whole number of variables for " +
                         std::to_string(per.size()) + " zones");
    return;
  }
  d.nvar = static_cast<int>(vrec / per.size());
  checkvariables(rs, 3, vrec, per, d.dblprec ? 8 : 4, "cells", d);
  if (d.problems.empty())
    d.evidence.push_back(num(static_cast<int64_t>(vrec)) + " variable records match the grid's cells: " +
                         std::to_string(d.nvar) + " variables");
}

void framedpix(const mapped& m, const std::vector<record>& rs, const zelm::grid* g, detection& d) {
  d.kind = filekind::pix;
  d.precisionknown = true;
  d.dblprec = rs[0].length == 24;
  d.evidence.push_back("records 1 to 3 hold " + num(rs[0].length) + ", " + num(rs[1].length) +
                       " and 25 bytes: a pix header with " + (d.dblprec ? "8" : "4") +
                       "-byte reals and its text");
  if (g == nullptr) return;
  const auto per = nodes(g);
  const int width = d.dblprec ? 8 : 4;
  const std::size_t fixed = 6 * per.size();
  if (rs.size() < 3 + fixed) {
    d.problems.push_back(
        "the grid's " + std::to_string(per.size()) + " zones need " + num(static_cast<int64_t>(fixed)) +
        " records for the six fixed variables; the file holds " + num(static_cast<int64_t>(rs.size() - 3)));
    return;
  }
  checkvariables(rs, 3, fixed, per, width, "nodes", d);
  std::size_t r = 3 + fixed;
  if (r == rs.size()) return;
  if (rs[r].length != 4) {
    d.problems.push_back("record " + num(static_cast<int64_t>(r + 1)) +
                         " should hold the free-variable count (4 bytes) but holds " + num(rs[r].length));
    return;
  }
  const int nfree = m.at<int>(static_cast<std::size_t>(rs[r].data));
  if (nfree < 0 || rs.size() != r + 1 + static_cast<std::size_t>(nfree) * (1 + per.size())) {
    d.problems.push_back("the free-variable count " + std::to_string(nfree) + " does not match the " +
                         num(static_cast<int64_t>(rs.size() - r - 1)) + " records that follow it");
    return;
  }
  checkvariables(rs, r + 1 + static_cast<std::size_t>(nfree), static_cast<std::size_t>(nfree) * per.size(),
                 per, width, "nodes", d);
  d.evidence.push_back(std::to_string(nfree) + " free variables");
}

// ---- binary files -----------------------------------------------------------------------------

// Walks a grid stream with reals of `w` bytes: true when it ends exactly at the end of the file.
bool binarygrid(const mapped& m, int w) {
  const auto n = static_cast<int64_t>(m.size());
  if (n < 12) return false;
  const int ndim = m.at<int>(0), nzones = m.at<int>(4);
  if (ndim < 1 || ndim > 3 || nzones < 0 || 12 + 20LL * nzones > n) return false;
  int64_t off = 12 + 20LL * nzones;
  for (int k = 0; k < nzones; ++k) {
    const auto base = static_cast<std::size_t>(12 + 20LL * k);
    const int np = m.at<int>(base), nf = m.at<int>(base + 4), mnpf = m.at<int>(base + 12);
    if (np < 0 || nf < 0) return false;
    off += static_cast<int64_t>(np) * ndim * w;
    for (int i = 0; i < nf; ++i) {
      if (off + 4 > n) return false;
      const int npf = m.at<int>(static_cast<std::size_t>(off));
      if (npf < 0 || npf > std::max(mnpf, 64)) return false;
      off += 4 * (static_cast<int64_t>(npf) + 3);
    }
    if (off > n) return false;
  }
  return off == n;
}

bool printable(const mapped& m, std::size_t off, std::size_t len) {
  if (off + len > m.size()) return false;
  for (std::size_t i = off; i < off + len; ++i)
    if (m.data()[i] < 0x20 || m.data()[i] >= 0x7f) return false;
  return true;
}

template <class Real>
bool plausiblereals(const mapped& m, std::size_t off, int count) {
  for (int i = 0; i < count; ++i) {
    const Real v = m.at<Real>(off + static_cast<std::size_t>(i) * sizeof(Real));
    if (!std::isfinite(v) || std::fabs(v) > 1e30 || (v != 0 && std::fabs(v) < 1e-30)) return false;
  }
  return true;
}

void binaryfile(const mapped& m, const zelm::grid* g, detection& d) {
  const auto n = static_cast<int64_t>(m.size());
  for (int w : {4, 8}) {
    if (binarygrid(m, w)) {
      d.kind = filekind::grid;
      d.precisionknown = true;
      d.dblprec = w == 8;
      d.evidence.push_back(
          "read as a grid with " + std::to_string(w) +
          "-byte coordinates, the header, zone counts, nodes and faces end exactly at the end of the file");
      return;
    }
  }
  for (int w : {4, 8}) {  // pix: six reals, then 25 bytes of text
    const bool reals = w == 4 ? plausiblereals<float>(m, 0, 6) : plausiblereals<double>(m, 0, 6);
    if (reals && printable(m, static_cast<std::size_t>(6 * w), 25)) {
      d.kind = filekind::pix;
      d.precisionknown = true;
      d.dblprec = w == 8;
      d.evidence.push_back("six " + std::to_string(w) + "-byte reals, then 25 characters of text at byte " +
                           std::to_string(6 * w) + ": a pix header");
      if (g != nullptr) {
        const int64_t nn = sum(nodes(g));
        const int64_t fixed = 6 * w + 25 + 6 * nn * w;
        bool fits = n == fixed;
        if (!fits && n >= fixed + 4) {
          const int nfree = m.at<int>(static_cast<std::size_t>(fixed));
          fits = nfree >= 0 && n == fixed + 4 + 25LL * nfree + static_cast<int64_t>(nfree) * nn * w;
          if (fits) d.evidence.push_back(std::to_string(nfree) + " free variables");
        }
        if (!fits)
          d.problems.push_back("the file holds " + num(n) + " bytes; a pix file for the grid's " + num(nn) +
                               " nodes holds " + num(fixed) + " bytes plus, with free variables, 4 + 25 + " +
                               num(nn * w) + " bytes for each");
      }
      return;
    }
  }
  // restart: a real, two integers, five reals
  for (int w : {8, 4}) {
    const int64_t header = 6 * w + 8;
    if (n < header) continue;
    const bool reals = w == 4 ? plausiblereals<float>(m, 0, 1) && plausiblereals<float>(m, 12, 5)
                              : plausiblereals<double>(m, 0, 1) && plausiblereals<double>(m, 16, 5);
    const int lastcyc = m.at<int>(static_cast<std::size_t>(w));
    if (!reals || lastcyc < 0) continue;
    if (g != nullptr) {
      const int64_t nc = sum(cells(g));
      const int64_t rest = n - header;
      if (nc == 0 ? rest != 0 : rest % (nc * w) != 0) continue;
      d.nvar = nc == 0 ? 0 : static_cast<int>(rest / (nc * w));
      d.evidence.push_back("the " + num(rest) + " bytes after the header are " + std::to_string(d.nvar) +
                           " variables of the grid's " + num(nc) + " cells");
    }
    d.kind = filekind::restart;
    d.precisionknown = true;
    d.dblprec = w == 8;
    d.evidence.push_back("a " + std::to_string(w) + "-byte time, two integers (cycle " +
                         std::to_string(lastcyc) + ") and five " + std::to_string(w) +
                         "-byte reals look like a restart header" +
                         (g ? "" : " (give --grid to check the rest)"));
    return;
  }
  if (g != nullptr)
    d.problems.push_back("the file's " + num(n) + " bytes fit no grid, restart or pix layout for this grid");
}

// ---- text files -------------------------------------------------------------------------------

std::vector<std::string> tokens(const std::string& line) {
  std::vector<std::string> t;
  std::istringstream in(line);
  std::string w;
  while (in >> w) t.push_back(w);
  return t;
}

bool isinteger(const std::string& t) {
  std::size_t i = t[0] == '-' || t[0] == '+' ? 1 : 0;
  if (i >= t.size()) return false;
  for (; i < t.size(); ++i)
    if (!std::isdigit(static_cast<unsigned char>(t[i]))) return false;
  return true;
}

bool isreal(const std::string& t) {
  char* end = nullptr;
  std::string s = t;
  for (char& c : s)
    if (c == 'd' || c == 'D') c = 'e';
  std::strtod(s.c_str(), &end);
  return end != s.c_str() && *end == '\0';
}

void textfile(const mapped& m, detection& d) {
  std::vector<std::string> lines;
  std::string cur;
  for (std::size_t i = 0; i < m.size() && lines.size() < 3; ++i) {
    const char c = static_cast<char>(m.data()[i]);
    if (c == '\n') {
      lines.push_back(cur);
      cur.clear();
    } else if (c != '\r') {
      cur += c;
    }
  }
  while (lines.size() < 3) lines.emplace_back();
  const auto l1 = tokens(lines[0]), l2 = tokens(lines[1]);
  auto all = [](const std::vector<std::string>& t, bool (*f)(const std::string&)) {
    for (const auto& s : t)
      if (!f(s)) return false;
    return !t.empty();
  };
  if (l1.size() == 3 && all(l1, isinteger)) {
    d.kind = filekind::grid;
    d.evidence.push_back("line 1 holds three integers (ndim, zones, auxiliary value): a grid header");
  } else if (l1.size() == 3 && isreal(l1[0]) && !isinteger(l1[0]) && isinteger(l1[1]) && isinteger(l1[2]) &&
             l2.size() == 2 && all(l2, isreal)) {
    d.kind = filekind::restart;
    d.evidence.push_back("line 1 holds a real and two integers, line 2 two reals: a restart header");
  } else if (l1.size() == 3 && all(l1, isreal) && l2.size() == 3 && all(l2, isreal)) {
    d.kind = filekind::pix;
    d.evidence.push_back("lines 1 and 2 hold three reals each, line 3 a text: a pix header");
  }
  // The digits of the values after the header lines tell their precision: up to 9 significant
  // digits are 4-byte reals, more are 8-byte ones.
  if (d.kind == filekind::unknown) return;
  std::size_t line = 0, i = 0;
  const std::size_t skip = d.kind == filekind::grid ? 1 : 3;
  for (; i < m.size() && line < skip; ++i)
    if (m.data()[i] == '\n') ++line;
  // Significant digits of a real's text, from its first non-zero digit on (0 for a zero).
  const auto significant = [](const std::string& t) {
    int digits = 0;
    for (char c : t) {
      if (c == 'e' || c == 'E' || c == 'd' || c == 'D') break;
      if (std::isdigit(static_cast<unsigned char>(c)) && (digits > 0 || c != '0')) ++digits;
    }
    return digits;
  };
  // The most digits over the first values: a single value may need few of them.
  std::string tok, word;
  int digits = 0, seen = 0;
  for (; i <= m.size() && seen < 64; ++i) {
    const char c = i < m.size() ? static_cast<char>(m.data()[i]) : ' ';
    if (c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == ',') {
      if (!word.empty() && !isinteger(word) && isreal(word) && significant(word) > 0) {
        ++seen;
        if (significant(word) > digits) {
          tok = word;
          digits = significant(word);
        }
      }
      word.clear();
    } else {
      word += c;
    }
  }
  if (digits == 0) return;
  d.precisionknown = true;
  d.dblprec = digits > 9;
  d.evidence.push_back("the first value, " + tok + ", carries " + std::to_string(digits) +
                       " digits: " + (d.dblprec ? "8-byte" : "4-byte") + " reals");
}

// A text restart file holds its values after three header lines: their count over the grid's cells
// is the number of variables.
void textrestart(const mapped& m, const zelm::grid& g, detection& d) {
  std::size_t i = 0;
  for (int line = 0; i < m.size() && line < 3; ++i)
    if (m.data()[i] == '\n') ++line;
  int64_t values = 0;
  bool inword = false;
  for (; i < m.size(); ++i) {
    const char c = static_cast<char>(m.data()[i]);
    const bool sep = c == ' ' || c == '\n' || c == '\r' || c == '\t' || c == ',';
    if (!sep && !inword) ++values;
    inword = !sep;
  }
  const int64_t cellcount = g.totalcells();
  if (cellcount == 0 ? values != 0 : values % cellcount != 0) {
    d.problems.push_back("the file holds " + num(values) +
                         " values after its header, not a whole number of variables of the grid's " +
                         num(cellcount) + " cells");
    return;
  }
  d.nvar = cellcount == 0 ? 0 : static_cast<int>(values / cellcount);
  d.evidence.push_back(num(values) + " values after the header: " + std::to_string(d.nvar) +
                       " variables of the grid's " + num(cellcount) + " cells");
}

}  // namespace

const char* kindname(filekind k) {
  switch (k) {
    case filekind::grid: return "grid";
    case filekind::restart: return "restart";
    case filekind::pix: return "pix";
    default: return "unknown";
  }
}

detection detect(const std::string& path, const zelm::grid* grid) {
  detection d;
  const mapped m(path);
  if (m.size() == 0) {
    d.evidence.push_back("the file is empty");
    return d;
  }
  std::string why, truncated;
  const auto rs = framedrecords(m, why, truncated);
  if (!rs.empty()) {
    d.encodingknown = true;
    d.enc = zelm::encoding::unformatted;
    if (!truncated.empty()) {
      d.truncated = true;
      d.problems.push_back(truncated);
      d.evidence.push_back("framed records: the first " + num(static_cast<int64_t>(rs.size())) +
                           " records' leading and trailing length markers agree");
    } else {
      d.evidence.push_back(
          "framed records: " + num(static_cast<int64_t>(rs.size())) +
          " records whose leading and trailing length markers all agree, ending exactly at byte " +
          num(static_cast<int64_t>(m.size())));
    }
    if (rs[0].length == 12 && rs.size() >= 2 &&
        rs[1].length == 20LL * m.at<int>(static_cast<std::size_t>(rs[0].data + 4)))
      framedgrid(m, rs, d);
    else if (rs.size() >= 3 && ((rs[0].length == 16 && rs[1].length == 16 && rs[2].length == 24) ||
                                (rs[0].length == 12 && rs[1].length == 8 && rs[2].length == 12)))
      framedrestart(rs, grid, d);
    else if (rs.size() >= 3 && rs[2].length == 25 && rs[0].length == rs[1].length &&
             (rs[0].length == 12 || rs[0].length == 24))
      framedpix(m, rs, grid, d);
    else
      d.evidence.push_back("the record lengths (" + num(rs[0].length) +
                           (rs.size() > 1 ? ", " + num(rs[1].length) : "") +
                           ", ...) match no grid, restart or pix header");
    return d;
  }
  if (istext(m)) {
    d.encodingknown = true;
    d.enc = zelm::encoding::formatted;
    d.evidence.push_back("text: every byte is printable or a line end");
    textfile(m, d);
    if (d.kind == filekind::restart && grid != nullptr) textrestart(m, *grid, d);
    return d;
  }
  d.encodingknown = true;
  d.enc = zelm::encoding::binary;
  d.evidence.push_back("unframed stream: not text, and not framed records (" + why + ")");
  binaryfile(m, grid, d);
  return d;
}

}  // namespace zelm
