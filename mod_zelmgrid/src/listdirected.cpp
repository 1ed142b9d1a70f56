// Formatted statements: list-directed input and output, the A edit, and whole lines.
//
// Input: values are separated by blanks, commas or line ends; r*c repeats c r times; a comma
// after a separator is a null value (the item keeps its value); a slash ends the record early. A
// statement starts on a fresh line and discards the rest of the last line it used.
//
// Output: a record starts with one blank; integers take 11 columns, 4-byte reals 15 (9 significant
// digits) and 8-byte reals 23 (17 digits), each after a separating blank, so that every value reads
// back unchanged. A record stays on one line however long it is: readers that take fewer values
// than a record holds skip the rest of that line, so a continued record would put its tail where
// the next record is expected.
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zelmgrid/io.hpp"

namespace mod_zelmgrid::io {

namespace {

constexpr std::size_t longestvalue = 4096;

bool isseparator(char c) {
  return c == ' ' || c == ',' || c == '/' || c == '\n' || c == '\t' || c == '\r';
}

// The parsers store into v only a value that parsed whole: a failed item keeps its value.
bool parseinteger(std::string_view t, int& v) {
  const char* b = t.data();
  const char* e = b + t.size();
  if (b < e && *b == '+') ++b;
  int x = 0;
  const auto r = std::from_chars(b, e, x);
  if (r.ec != std::errc() || r.ptr != e || b == e) return false;
  v = x;
  return true;
}

// Rewrites the Fortran forms that from_chars does not take (a leading plus, D or Q exponent
// letters, an exponent given by its sign alone) into a NUL-terminated C number.
bool normalisereal(std::string_view t, char* out, std::size_t cap) {
  if (t.size() + 2 >= cap) return false;
  std::size_t n = 0;
  bool letter = false;
  for (std::size_t i = 0; i < t.size(); ++i) {
    if (n + 3 > cap) return false;  // each sign may bring an 'e' with it: room for two and the NUL
    char c = t[i];
    if (c == 'd' || c == 'D' || c == 'q' || c == 'Q') c = 'e';
    if (c == 'e' || c == 'E') letter = true;
    if ((c == '+' || c == '-') && i > 0 && !letter) {
      const char prev = t[i - 1];
      if ((prev >= '0' && prev <= '9') || prev == '.') out[n++] = 'e';
    }
    out[n++] = c;
  }
  out[n] = '\0';
  return true;
}

template <class T>
bool parsereal(std::string_view t, T& v) {
  const char* b = t.data();
  const char* e = b + t.size();
  if (b < e && *b == '+') ++b;
  if (b == e) return false;
  T x{};
  const auto r = std::from_chars(b, e, x, std::chars_format::general);
  if (r.ec == std::errc() && r.ptr == e) {
    v = x;
    return true;
  }
  char buf[160];
  if (!normalisereal(std::string_view(b, static_cast<std::size_t>(e - b)), buf, sizeof buf)) return false;
  char* end = nullptr;
  // strtof/strtod also give the IEEE result for values out of range (infinity, subnormals).
  if constexpr (std::is_same_v<T, float>)
    x = std::strtof(buf, &end);
  else
    x = std::strtod(buf, &end);
  if (end == buf || *end != '\0') return false;
  v = x;
  return true;
}

const char* kindname(int k) {
  return k == 0 ? "an integer" : "a real";
}

}  // namespace

// ---- list-directed input -------------------------------------------------------------------

listin::listin(unit& u) : u_(u) {
  ++u_.records;
  if (!u_.connected()) {
    failwith(rstat::error, "the unit is not connected to a file");
    return;
  }
  if (u_.connectedform() != form::formatted) {
    failwith(rstat::error,
             std::string("a list-directed read from a file connected as ") + formname(u_.connectedform()));
    return;
  }
  u_.beginread();
  start_ = u_.position();
}

void listin::failwith(rstat st, const std::string& reason) {
  if (st_ != rstat::ok) return;
  st_ = st;
  detail::setreaderror(u_, st, u_.connected() ? u_.position() : 0, reason);
}

void listin::toomany(int n, index_t max) {
  failwith(rstat::error, "a count of " + std::to_string(n) + " values exceeds the " + std::to_string(max) +
                             " that the array holds");
}

void listin::parse(std::string_view tok, void* dst, kind k) {
  bool ok = false;
  switch (k) {
    case kind::i4: ok = parseinteger(tok, *static_cast<int*>(dst)); break;
    case kind::r4: ok = parsereal(tok, *static_cast<float*>(dst)); break;
    case kind::r8: ok = parsereal(tok, *static_cast<double*>(dst)); break;
  }
  if (!ok)
    failwith(rstat::error,
             "cannot read \"" + std::string(tok.substr(0, 60)) + "\" as " + kindname(k == kind::i4 ? 0 : 1));
}

void listin::value(void* dst, kind k) {
  if (st_ != rstat::ok || ended_) return;
  took_ = true;
  if (repeat_ > 0) {
    --repeat_;
    if (!repeatnull_) parse(tok_, dst, k);
    return;
  }
  for (;;) {  // up to the next value, null value or slash
    if (!u_.fill(1)) return failwith(rstat::end, "end of file before all values were read");
    const char c = *u_.rp();
    if (c == ' ' || c == '\t' || c == '\r') {
      u_.consume(1);
    } else if (c == '\n') {
      u_.consume(1);
      ++u_.lines;
    } else if (c == ',') {
      u_.consume(1);
      if (!sepallowed_) return;  // a null value: the item keeps its value
      sepallowed_ = false;
    } else if (c == '/') {
      u_.consume(1);
      ended_ = true;
      return;
    } else {
      break;
    }
  }
  std::size_t len = 0;
  for (;;) {  // the value's extent, refilling the buffer when it reaches the end
    const char* p = u_.rp();
    const std::size_t av = u_.avail();
    while (len < av && !isseparator(p[len])) ++len;
    if (len < av) break;
    if (len >= longestvalue) return failwith(rstat::error, "a value longer than 4096 characters");
    if (!u_.fill(len + 1)) break;  // the file ends right after the value
  }
  const std::string_view tok(u_.rp(), len);
  sepallowed_ = true;
  const auto star = tok.find('*');
  if (star == std::string_view::npos) {
    parse(tok, dst, k);
    u_.consume(len);
    return;
  }
  int count = 0;
  if (!parseinteger(tok.substr(0, star), count) || count < 1 || tok[0] == '+')
    return failwith(rstat::error, "invalid repeat count in \"" + std::string(tok.substr(0, 60)) + "\"");
  tok_.assign(tok.substr(star + 1));
  u_.consume(len);
  repeatnull_ = tok_.empty();
  repeat_ = count - 1;
  if (!repeatnull_) parse(tok_, dst, k);
}

rstat listin::finish() {
  if (st_ != rstat::ok) return st_;
  // Discard the rest of the last line used; a statement that took no value still takes a line.
  if (!u_.fill(1)) {
    if (!took_) failwith(rstat::end, "end of file");
    return st_;
  }
  for (;;) {
    const char* p = u_.rp();
    const std::size_t av = u_.avail();
    const void* nl = std::memchr(p, '\n', av);
    if (nl != nullptr) {
      u_.consume(static_cast<std::size_t>(static_cast<const char*>(nl) - p) + 1);
      ++u_.lines;
      return st_;
    }
    u_.consume(av);
    if (!u_.fill(1)) return st_;
  }
}

rstat aread(unit& u, const textref& t) {
  ++u.records;
  if (!u.connected()) {
    detail::setreaderror(u, rstat::error, 0, "the unit is not connected to a file");
    return rstat::error;
  }
  if (u.connectedform() != form::formatted) {
    detail::setreaderror(
        u, rstat::error, u.position(),
        std::string("a formatted read from a file connected as ") + formname(u.connectedform()));
    return rstat::error;
  }
  u.beginread();
  if (!u.fill(1)) {
    detail::setreaderror(u, rstat::end, u.position(), "end of file");
    return rstat::end;
  }
  std::size_t k = 0;
  std::size_t linelength = 0;
  while (u.fill(1)) {
    const char c = *u.rp();
    u.consume(1);
    if (c == '\n') {
      ++u.lines;
      break;
    }
    if (k < t.n) t.p[k++] = c;
    ++linelength;
  }
  if (linelength <= t.n && k > 0 && t.p[k - 1] == '\r') --k;  // a CR-LF line end is not text
  std::memset(t.p + k, ' ', t.n - k);
  return rstat::ok;
}

// ---- output ---------------------------------------------------------------------------------

namespace {

void emit(unit& u, const char* p, std::size_t n) {
  if (n <= 256) {
    std::memcpy(u.wspace(n), p, n);
    u.wcommit(n);
  } else {
    u.writebulk(p, n);
  }
}

void beginformattedwrite(unit& u) {
  if (!u.connected())
    u.failure("cannot write to unit " + std::to_string(u.number()) + ": it is not connected to a file");
  if (u.connectedform() != form::formatted)
    u.failure("cannot write text to \"" + u.file() + "\" (unit " + std::to_string(u.number()) +
              "): it is connected as " + formname(u.connectedform()));
  u.beginwrite();
  ++u.records;
}

// Right-aligns text in a field of width w (wider when it does not fit).
std::size_t rightalign(char* field, int w, const char* text, std::size_t n) {
  const std::size_t pad = n < static_cast<std::size_t>(w) ? static_cast<std::size_t>(w) - n : 0;
  std::memset(field, ' ', pad);
  std::memcpy(field + pad, text, n);
  return pad + n;
}

template <class T>
std::size_t formatreal(char* out, T v, int digits) {
  if (std::isnan(v)) {
    std::memcpy(out, "NaN", 3);
    return 3;
  }
  if (std::isinf(v)) {
    const char* s = v < 0 ? "-Infinity" : "Infinity";
    const std::size_t n = std::strlen(s);
    std::memcpy(out, s, n);
    return n;
  }
  const auto r = std::to_chars(out, out + 40, v, std::chars_format::scientific, digits);
  for (char* p = out; p < r.ptr; ++p)
    if (*p == 'e') *p = 'E';
  return static_cast<std::size_t>(r.ptr - out);
}

}  // namespace

listout::listout(unit& u) : u_(u) {
  beginformattedwrite(u_);
}

void listout::field(const char* p, std::size_t n, bool separate) {
  if (!any_ || separate) emit(u_, " ", 1);  // the record's leading blank, or a separator
  emit(u_, p, n);
  any_ = true;
}

void listout::item(int v) {
  char digits[16];
  const auto r = std::to_chars(digits, digits + sizeof digits, v);
  char f[32];
  field(f, rightalign(f, 11, digits, static_cast<std::size_t>(r.ptr - digits)), true);
  lastchar_ = false;
}

void listout::item(float v) {
  char text[48];
  const std::size_t n = formatreal(text, v, 8);
  char f[64];
  field(f, rightalign(f, 15, text, n), true);
  lastchar_ = false;
}

void listout::item(double v) {
  char text[48];
  const std::size_t n = formatreal(text, v, 16);
  char f[64];
  field(f, rightalign(f, 23, text, n), true);
  lastchar_ = false;
}

void listout::item(std::string_view s) {
  field(s.data(), s.size(), any_ && !lastchar_);
  lastchar_ = true;
}

void listout::finish() {
  emit(u_, "\n", 1);
  u_.endstatement();
}

void linewrite(unit& u, std::string_view line) {
  beginformattedwrite(u);
  emit(u, line.data(), line.size());
  emit(u, "\n", 1);
  u.endstatement();
}

void editi(std::string& out, int w, std::int64_t v) {
  char digits[24];
  const auto r = std::to_chars(digits, digits + sizeof digits, v);
  const auto n = static_cast<std::size_t>(r.ptr - digits);
  if (n > static_cast<std::size_t>(w)) {
    out.append(static_cast<std::size_t>(w), '*');
    return;
  }
  out.append(static_cast<std::size_t>(w) - n, ' ');
  out.append(digits, n);
}

}  // namespace mod_zelmgrid::io
