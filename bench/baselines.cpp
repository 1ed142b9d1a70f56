#include "baselines.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string_view>
#include <vector>

namespace zelmbench {

sample fortranpath(const data& d, const measurement& m, int reps) {
  if (!m.reader) ::unlink(m.file.c_str());
  int status = 0;
  const std::string out = runprogram({d.opt.fortran, m.fop, std::to_string(m.enc), std::to_string(m.dbl),
                                      m.file, d.dir, std::to_string(nvar), std::to_string(reps)},
                                     status);
  sample s;
  const auto at = out.find("RESULT ");
  if (at == std::string::npos || status != 0) {
    std::fprintf(stderr, "zelmbench: the Fortran path failed on %s (status %d)\n", m.name.c_str(), status);
    return s;
  }
  std::istringstream in(out.substr(at + 7));
  in >> s.wall >> s.cpu >> s.peakkb >> s.basekb >> s.checksum >> s.ok;
  return s;
}

sample readfloor(const measurement& m, bool huge) {
  return inchild([&] {
    fortran::hugepages = huge;
    static char buf[1 << 20];
    std::memset(buf, 0, sizeof buf);
    sample s;
    s.basekb = resetpeak();
    const std::int64_t want = m.floorbytes < 0 ? filesize(m.file) : m.floorbytes;
    const std::int64_t f0 = faultsnow();
    const double w0 = wallnow(), c0 = cpunow();
    const int fd = ::open(m.file.c_str(), O_RDONLY);
    std::int64_t total = 0;
    for (int pass = 0; pass < m.floorpasses; ++pass) {
      if (pass > 0) ::lseek(fd, 0, SEEK_SET);
      for (std::int64_t left = want; left > 0;) {
        const ssize_t n = ::read(fd, buf, static_cast<std::size_t>(std::min<std::int64_t>(left, sizeof buf)));
        if (n <= 0) break;
        total += n;
        left -= n;
      }
    }
    ::close(fd);
    std::vector<farray<char, 1>> arrays(m.outputs.size());
    for (std::size_t i = 0; i < m.outputs.size(); ++i) {
      arrays[i].allocate(m.outputs[i]);
      if (m.outputs[i] > 0) std::memset(arrays[i].data(), 1, static_cast<std::size_t>(m.outputs[i]));
    }
    const double w1 = wallnow(), c1 = cpunow();
    s.faults = faultsnow() - f0;
    s.peakkb = statuskb("VmHWM:");
    s.wall = w1 - w0;
    s.cpu = c1 - c0;
    s.checksum = total;
    s.ok = total == want * m.floorpasses;
    return s;
  });
}

sample writefloor(const measurement& m, std::int64_t bytes) {
  const std::string target = m.file + ".floor";
  return inchild([&] {
    static char buf[1 << 20];
    std::memset(buf, 7, sizeof buf);
    ::unlink(target.c_str());
    sample s;
    s.basekb = resetpeak();
    const double w0 = wallnow(), c0 = cpunow();
    const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::int64_t left = bytes;
    while (left > 0) {
      const ssize_t n = ::write(fd, buf, static_cast<std::size_t>(std::min<std::int64_t>(left, sizeof buf)));
      if (n <= 0) break;
      left -= n;
    }
    ::close(fd);
    const double w1 = wallnow(), c1 = cpunow();
    s.peakkb = statuskb("VmHWM:");
    s.wall = w1 - w0;
    s.cpu = c1 - c0;
    s.ok = left == 0;
    ::unlink(target.c_str());
    return s;
  });
}

sample tocharsfloor(const data& d, const measurement& m) {
  return inchild([&] {
    prefaultinputs(d);
    sample s;
    s.basekb = resetpeak();
    const double w0 = wallnow(), c0 = cpunow();
    m.tochars();
    const double w1 = wallnow(), c1 = cpunow();
    s.peakkb = statuskb("VmHWM:");
    s.wall = w1 - w0;
    s.cpu = c1 - c0;
    s.ok = 1;
    return s;
  });
}

void tocharsfloats(const farray<float, 2>& a, index_t rows) {
  static char buf[1 << 16];
  char* p = buf;
  for (index_t j = 1; j <= a.extent(2); ++j)
    for (index_t i = 1; i <= rows; ++i) {
      if (p > buf + sizeof buf - 64) p = buf;
      p = std::to_chars(p, p + 64, a(i, j), std::chars_format::scientific, 8).ptr;
      *p++ = ' ';
    }
  asm volatile("" : : "r"(buf) : "memory");
}

std::string samebytes(const std::string& a, const std::string& b) {
  const std::string sa = slurp(a), sb = slurp(b);
  if (sa == sb) return "same bytes as the library's file";
  return "BYTES DIFFER from the library's file (" + std::to_string(sa.size()) + " and " +
         std::to_string(sb.size()) + " bytes)";
}

// Whitespace-separated tokens in the same order; numbers equal to 7 significant digits (the
// precision that both sides print 4-byte reals with at least), other tokens equal as text.
std::string sametokens(const std::string& a, const std::string& b) {
  const std::string sa = slurp(a), sb = slurp(b);
  std::size_t i = 0, j = 0;
  std::int64_t k = 0;
  auto next = [](const std::string& s, std::size_t& p) {
    while (p < s.size() && std::isspace(static_cast<unsigned char>(s[p]))) ++p;
    const std::size_t q = p;
    while (p < s.size() && !std::isspace(static_cast<unsigned char>(s[p]))) ++p;
    return std::string_view(s).substr(q, p - q);
  };
  for (;; ++k) {
    const auto ta = next(sa, i), tb = next(sb, j);
    if (ta.empty() && tb.empty()) break;
    if (ta == tb) continue;
    double va = 0, vb = 0;
    const auto ra = std::from_chars(ta.data(), ta.data() + ta.size(), va);
    const auto rb = std::from_chars(tb.data(), tb.data() + tb.size(), vb);
    const bool numbers = ra.ec == std::errc() && rb.ec == std::errc() && ra.ptr == ta.data() + ta.size() &&
                         rb.ptr == tb.data() + tb.size();
    if (numbers && std::fabs(va - vb) <= 1e-7 * std::max({1e-30, std::fabs(va), std::fabs(vb)})) continue;
    return "TOKENS DIFFER from the library's file at token " + std::to_string(k + 1) + ": \"" +
           std::string(ta.substr(0, 40)) + "\" and \"" + std::string(tb.substr(0, 40)) + "\"";
  }
  return "same tokens as the library's file (" + std::to_string(k) + ")";
}

}  // namespace zelmbench
