// Formatted statements: list-directed input and output, the A edit, and whole lines.
//
// Input: values are separated by blanks, commas or line ends; r*c repeats c r times; a comma
// after a separator is a null value (the item keeps its value); a slash ends the record early. A
// statement starts on a fresh line and discards the rest of the last line it used.
//
// Output: the characters gfortran's list-directed output writes, so that the family's Fortran
// tools and this library write the same files. Every item starts with a blank (the record's
// first one too) except a text that follows a text; texts are written as they are, integers take
// 11 columns, 4-byte reals 16 (9 significant digits) and 8-byte reals 25 (17 digits), so that
// every value reads back unchanged (see realfield). A record stays on one line however long it
// is, as gfortran's do: readers that take fewer values than a record holds skip the rest of that
// line, so a continued record would put its tail where the next record is expected.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "records.hpp"

namespace mod_zelmgrid::io {

namespace {

constexpr std::size_t longestvalue = 4096;

// 1 for a character that ends a value, 2 for the '*' of a repeat count, 0 for any other.
constexpr auto separator = [] {
  std::array<std::uint8_t, 256> t{};
  for (const char c : {' ', ',', '/', '\n', '\t', '\r'}) t[static_cast<unsigned char>(c)] = 1;
  t['*'] = 2;
  return t;
}();

bool isseparator(char c) {
  return separator[static_cast<unsigned char>(c)] == 1;
}

// ---- powers of ten, for writing reals ----

__extension__ using u128 = unsigned __int128;

// 10^k = (hi * 2^64 + lo + d) * 2^e with 2^63 <= hi < 2^64 and 0 <= d < 1, for k = -kneg .. kpos;
// exact when d is 0 (the powers that fit in 128 bits).
struct powerten {
  std::uint64_t hi, lo;
  int e;
  bool exact;
};
constexpr int kneg = 300, kpos = 345;

// Multi-word unsigned integers, just enough to compute the table once.
struct bignum {
  std::uint32_t w[48] = {};  // little-endian words: 1536 bits
  int n = 1;
  void mul(std::uint32_t f) {
    std::uint64_t carry = 0;
    for (int i = 0; i < n; ++i) {
      const std::uint64_t t = std::uint64_t{w[i]} * f + carry;
      w[i] = static_cast<std::uint32_t>(t);
      carry = t >> 32;
    }
    if (carry != 0) w[n++] = static_cast<std::uint32_t>(carry);
  }
  void div(std::uint32_t f) {
    std::uint64_t rem = 0;
    for (int i = n - 1; i >= 0; --i) {
      const std::uint64_t t = (rem << 32) | w[i];
      w[i] = static_cast<std::uint32_t>(t / f);
      rem = t % f;
    }
    while (n > 1 && w[n - 1] == 0) --n;
  }
  int bits() const { return 32 * (n - 1) + (32 - __builtin_clz(w[n - 1])); }
  bool bit(int i) const { return i >= 0 && ((w[i / 32] >> (i % 32)) & 1) != 0; }
  // The 128 bits from the top, how far down the lowest of them lies, and whether they are all.
  powerten top() const {
    const int b = bits();
    std::uint64_t hi = 0, lo = 0;
    for (int i = b - 1; i >= b - 64; --i) hi = (hi << 1) | (bit(i) ? 1 : 0);
    for (int i = b - 65; i >= b - 128; --i) lo = (lo << 1) | (bit(i) ? 1 : 0);
    bool rest = false;
    for (int i = 0; i < b - 128 && !rest; ++i) rest = bit(i);
    return {hi, lo, b - 128, !rest};
  }
};

const powerten* powerstable() {
  static const auto table = [] {
    static powerten t[kneg + kpos + 1];
    bignum up;  // 10^k
    up.w[0] = 1;
    t[kneg] = up.top();
    for (int k = 1; k <= kpos; ++k) {
      up.mul(10);
      t[kneg + k] = up.top();
    }
    bignum down;  // floor(2^1504 / 10^k)
    down.w[47] = 1;
    down.n = 48;
    for (int k = 1; k <= kneg; ++k) {
      down.div(10);
      const powerten p = down.top();
      t[kneg - k] = {p.hi, p.lo, p.e - 1504, false};
    }
    return t;
  }();
  return table;
}

constexpr std::uint64_t pow10u64[20] = {1ULL,
                                        10ULL,
                                        100ULL,
                                        1000ULL,
                                        10000ULL,
                                        100000ULL,
                                        1000000ULL,
                                        10000000ULL,
                                        100000000ULL,
                                        1000000000ULL,
                                        10000000000ULL,
                                        100000000000ULL,
                                        1000000000000ULL,
                                        10000000000000ULL,
                                        100000000000000ULL,
                                        1000000000000000ULL,
                                        10000000000000000ULL,
                                        100000000000000000ULL,
                                        1000000000000000000ULL,
                                        10000000000000000000ULL};

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
  {
    // The common case, straight from the buffer: blanks and line ends, then a value that ends
    // inside the buffer and has no repeat count. Anything else (a comma, a slash, a value cut by
    // the buffer's end, r*c) is left to the general path below, from the same place.
    const char* const p = u_.rp();
    const char* const e = p + u_.avail();
    const char* q = p;
    std::int64_t newlines = 0;
    for (;;) {
      while (e - q >= 8) {  // runs of blanks (the padding of right-aligned fields), eight at a time
        std::uint64_t w;
        std::memcpy(&w, q, 8);
        const std::uint64_t other = w ^ 0x2020202020202020ULL;
        if (other != 0) {
          q += __builtin_ctzll(other) >> 3;
          break;
        }
        q += 8;
      }
      if (q < e && (*q == ' ' || *q == '\n' || *q == '\t' || *q == '\r')) {
        newlines += *q++ == '\n';
        continue;
      }
      break;
    }
    if (q < e && *q != ',' && *q != '/') {
      if (k == kind::i4) {  // digits with an optional sign, read as they are scanned
        const char* t = q;
        const bool negative = *t == '-';
        if (*t == '-' || *t == '+') ++t;
        const char* const first = t;
        const char* const stop = e - t > 11 ? t + 11 : e;
        std::uint64_t v = 0;
        for (unsigned d; t < stop && (d = static_cast<unsigned char>(*t) - 48U) < 10; ++t) v = 10 * v + d;
        if (t < e && t > first && t - first <= 10 && separator[static_cast<unsigned char>(*t)] == 1 &&
            v <= (negative ? 2147483648ULL : 2147483647ULL)) {
          u_.consume(static_cast<std::size_t>(t - p));
          u_.lines += newlines;
          sepallowed_ = true;
          const auto signedv = static_cast<std::int64_t>(v);
          *static_cast<int*>(dst) = static_cast<int>(negative ? -signedv : signedv);
          return;
        }
      }
      const char* t = q;
      while (t < e && separator[static_cast<unsigned char>(*t)] == 0) ++t;
      if (t < e && *t != '*') {
        u_.consume(static_cast<std::size_t>(q - p));
        u_.lines += newlines;
        sepallowed_ = true;
        parse(std::string_view(q, static_cast<std::size_t>(t - q)), dst, k);
        u_.consume(static_cast<std::size_t>(t - q));
        return;
      }
    }
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

// ---- reals ----
//
// A real is written with a fixed number of significant digits, 9 for a 4-byte real and 17 for an
// 8-byte one, correctly rounded (ties to even), in a field of 16 or 25 columns:
//
//   fixed form, for zero and for 0.1 <= |v| < 10^digits: the digits with the point among them
//   ("0.500000000", "287.049988", "100000000."), right-aligned in the first 12 or 20 columns, then
//   4 or 5 blanks;
//   exponent form, for the others: "9.99999940E-02", "1.0000000000000000E-002" (two exponent digits
//   for 4-byte reals, three for 8-byte ones), right-aligned in the whole field;
//   "Infinity", "-Infinity" and "NaN", right-aligned in the whole field.
//
// The rounded digits say which form a value takes: next to 0.1 and 10^digits the values of each
// kind lie further apart than the rounding step, so no value rounds across either bound.
template <class T>
struct realstyle;
template <>
struct realstyle<float> {
  static constexpr int digits = 9, width = 16, fixedwidth = 12, exponentdigits = 2;
};
template <>
struct realstyle<double> {
  static constexpr int digits = 17, width = 25, fixedwidth = 20, exponentdigits = 3;
};

// The `digits` significant digits of mant * 2^exp2 (mant > 0), rounded to nearest with ties to
// even, and the decimal exponent of the first. They come from the mantissa times a 128-bit
// approximation of a power of ten in integer arithmetic; false in the rare case where the
// approximation's error leaves the rounding of the last digit open.
bool decimaldigits(std::uint64_t mant, int exp2, int digits, std::uint64_t& out, int& q) {
  const int b = exp2 + 63 - __builtin_clzll(mant);                     // mant * 2^exp2 lies in [2^b, 2^(b+1))
  q = static_cast<int>((static_cast<std::int64_t>(b) * 78913) >> 18);  // floor(b * log10(2))
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int k = digits - 1 - q;
    if (k < -kneg || k > kpos) return false;
    const powerten& p = powerstable()[kneg + k];
    const int sh = -(exp2 + p.e + 64);  // mant * 2^exp2 * 10^k is the product below over 2^sh
    if (sh < 2 || sh > 120) return false;
    // mant * (hi * 2^64 + lo) / 2^64, short of the exact product by less than 2.
    const u128 prod =
        static_cast<u128>(mant) * p.hi + static_cast<std::uint64_t>((static_cast<u128>(mant) * p.lo) >> 64);
    const std::uint64_t whole = static_cast<std::uint64_t>(prod >> sh);
    if (whole >= pow10u64[digits]) {  // the estimate of q was one short
      ++q;
      continue;
    }
    const u128 frac = prod & ((static_cast<u128>(1) << sh) - 1);
    const u128 half = static_cast<u128>(1) << (sh - 1);
    bool up;
    if (p.exact) {
      up = frac > half || (frac == half && (whole & 1) != 0);
    } else {
      if (frac <= half && frac + 2 > half) return false;
      up = frac > half;
    }
    std::uint64_t d = whole + (up ? 1 : 0);
    if (d < pow10u64[digits - 1]) return false;  // not expected: q is never one too high
    if (d == pow10u64[digits]) {
      d = pow10u64[digits - 1];
      ++q;
    }
    out = d;
    return true;
  }
  return false;
}

// The same digits and exponent from std::to_chars, for the values decimaldigits leaves open.
template <class T>
void decimaldigitsbytochars(T v, std::uint64_t& out, int& q) {
  constexpr int digits = realstyle<T>::digits;
  char text[48];
  const auto r =
      std::to_chars(text, text + sizeof text, std::fabs(v), std::chars_format::scientific, digits - 1);
  std::uint64_t d = static_cast<std::uint64_t>(text[0] - '0');
  for (int i = 2; i <= digits; ++i) d = 10 * d + static_cast<std::uint64_t>(text[i] - '0');
  const char* e = text + digits + 2;  // past "d.ddd..e"
  if (*e == '+') ++e;
  std::from_chars(e, r.ptr, q);
  out = d;
}

// The eight decimal digits of v < 10^8, with leading zeros.
void eightdigitstext(char* p, std::uint32_t v) {
  static constexpr auto pairs = [] {
    std::array<char, 200> t{};
    for (int i = 0; i < 100; ++i) {
      t[static_cast<std::size_t>(2 * i)] = static_cast<char>('0' + i / 10);
      t[static_cast<std::size_t>(2 * i + 1)] = static_cast<char>('0' + i % 10);
    }
    return t;
  }();
  const std::uint32_t hi = v / 10000, lo = v % 10000;
  std::memcpy(p, &pairs[2 * (hi / 100)], 2);
  std::memcpy(p + 2, &pairs[2 * (hi % 100)], 2);
  std::memcpy(p + 4, &pairs[2 * (lo / 100)], 2);
  std::memcpy(p + 6, &pairs[2 * (lo % 100)], 2);
}

// Writes v's separating blank and field: 1 + realstyle<T>::width characters at w.
template <class T>
void realfield(char* w, T v) {
  using style = realstyle<T>;
  constexpr int digits = style::digits;
  std::memset(w, ' ', 1 + style::width);
  char* const end = w + 1 + style::width;
  std::uint64_t mant;
  int exp2;
  bool negative, special;
  if constexpr (std::is_same_v<T, float>) {
    std::uint32_t bits;
    std::memcpy(&bits, &v, 4);
    negative = (bits >> 31) != 0;
    const int be = static_cast<int>((bits >> 23) & 0xff);
    special = be == 0xff;
    mant = bits & 0x7fffff;
    if (be != 0) mant |= 0x800000;
    exp2 = (be != 0 ? be : 1) - 150;
  } else {
    std::uint64_t bits;
    std::memcpy(&bits, &v, 8);
    negative = (bits >> 63) != 0;
    const int be = static_cast<int>((bits >> 52) & 0x7ff);
    special = be == 0x7ff;
    mant = bits & 0xfffffffffffffULL;
    if (be != 0) mant |= 0x10000000000000ULL;
    exp2 = (be != 0 ? be : 1) - 1075;
  }
  if (special) {
    const std::string_view s = std::isnan(v) ? "NaN" : negative ? "-Infinity" : "Infinity";
    std::memcpy(end - s.size(), s.data(), s.size());
    return;
  }
  std::uint64_t d = 0;
  int q = 0;
  if (mant != 0 && !decimaldigits(mant, exp2, digits, d, q)) decimaldigitsbytochars(v, d, q);
  char text[digits];  // the digits, the first one apart
  const std::uint64_t rest = pow10u64[digits - 1];
  text[0] = static_cast<char>('0' + d / rest);
  d %= rest;
  if constexpr (digits == 17) {
    eightdigitstext(text + 1, static_cast<std::uint32_t>(d / 100000000ULL));
    d %= 100000000ULL;
  }
  eightdigitstext(text + digits - 8, static_cast<std::uint32_t>(d));
  if (q >= -1 && q < digits) {
    const int length = negative + digits + 1 + (q < 0);
    char* p = end - (style::width - style::fixedwidth) - length;
    if (negative) *p++ = '-';
    if (q < 0) {
      std::memcpy(p, "0.", 2);
      std::memcpy(p + 2, text, digits);
    } else {
      std::memcpy(p, text, static_cast<std::size_t>(q + 1));
      p[q + 1] = '.';
      std::memcpy(p + q + 2, text + q + 1, static_cast<std::size_t>(digits - 1 - q));
    }
    return;
  }
  char* p = end - (negative + digits + 3 + style::exponentdigits);
  if (negative) *p++ = '-';
  *p++ = text[0];
  *p++ = '.';
  std::memcpy(p, text + 1, digits - 1);
  p += digits - 1;
  *p++ = 'E';
  *p++ = q < 0 ? '-' : '+';
  int e = q < 0 ? -q : q;
  for (int i = style::exponentdigits - 1; i >= 0; --i, e /= 10) p[i] = static_cast<char>('0' + e % 10);
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

// A number is a separating blank (the record's leading blank for the first item) and its field,
// written straight into the buffer.
void listout::item(int v) {
  char digits[16];
  const auto r = std::to_chars(digits, digits + sizeof digits, v);
  const auto n = static_cast<std::size_t>(r.ptr - digits);
  char* w = u_.wspace(12);
  std::memset(w, ' ', 12 - n);  // right-aligned in 11 columns: INT_MIN takes them all
  std::memcpy(w + 12 - n, digits, n);
  u_.wcommit(12);
  any_ = true;
  lastchar_ = false;
}

void listout::item(float v) {
  constexpr std::size_t n = 1 + realstyle<float>::width;
  realfield(u_.wspace(n), v);
  u_.wcommit(n);
  any_ = true;
  lastchar_ = false;
}

void listout::item(double v) {
  constexpr std::size_t n = 1 + realstyle<double>::width;
  realfield(u_.wspace(n), v);
  u_.wcommit(n);
  any_ = true;
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
