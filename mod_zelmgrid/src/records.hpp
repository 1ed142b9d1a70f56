// The records layer: units (a connection with its buffer) and the statements that read and write
// records in the three encodings, with the bulk transfers of fixed-size records and a walker over
// framed records.
//
// A statement is one call: rawread(u, a, b, seq(p, n)) reads one record into a, b and n elements
// from p. Items are stored as they are transferred, so a failure leaves the earlier items set.
// Reads return a status; a failed open, write or close ends the run through the failure handler
// (numbered units) or throws zelm::ioerror (standalone units).
#pragma once

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "zelmgrid/farray.hpp"
#include "zelmgrid/fortran.hpp"
#include "zelmgrid/io.hpp"

namespace mod_zelmgrid::io {

using fortran::index_t;

enum class form : std::uint8_t { none, formatted, unformatted, binary };
const char* formname(form f);

// Outcome of a read statement: end of file and error are the two failure branches.
enum class rstat : int { ok = 0, end = -1, error = 1 };

// ---- units ----------------------------------------------------------------------------------

// Context of the record being transferred, named in error messages ("zone 2 face 17").
struct what {
  const char* a = nullptr;
  index_t i = 0;
  const char* b = nullptr;
  index_t j = 0;
};

// The last failed read of a unit: where it happened and why, and the whole message.
struct readfault {
  std::int64_t record = 0;  // record, or for text the line, counted from 1 (0: before any)
  std::int64_t offset = 0;  // byte offset where the statement began
  std::string cause;
  std::string message;
};

// A connection to a file. Numbered units live in a table (getunit) and end the run on a failed
// open, write or close; a standalone unit (number -1), owned by its user, throws zelm::ioerror
// instead and closes its file when destroyed. A unit shares nothing with another: its buffer and
// its last read error are its own, so that standalone units may be used from several threads.
class unit {
 public:
  explicit unit(int number);
  ~unit();

  // Standalone units: connect to a regular file named exactly as given (create: make it when
  // missing) and disconnect. Reading opens read-only and never waits for a writer.
  void openfile(const std::string& file, form f, bool create);
  void closefile();
  // A run-ending failure of this unit: io::fail for numbered units, zelm::ioerror for standalone
  // ones (operation and errno as the exception's fields).
  [[noreturn]] void failure(const std::string& message, const char* operation = "", int err = 0) const;
  readfault lastread;  // set by every failed read statement
  // The last failed read as an exception, with its place.
  [[noreturn]] void throwreaderror() const;
  // Bytes from the position to the end of a regular file; INT64_MAX when unknown.
  std::int64_t remaining() const;
  unit(const unit&) = delete;
  unit& operator=(const unit&) = delete;

  int number() const { return number_; }
  bool connected() const { return fd_ >= 0 || tostdout_; }
  form connectedform() const { return form_; }
  const std::string& file() const { return path_; }
  std::int64_t position() const {
    return bufstart_ + static_cast<std::int64_t>(mode_ == mode::writing ? wlen_ : rpos_);
  }

  what context;  // set by a routine before a statement, for error messages

  // -- used by the statements --
  enum class mode : std::uint8_t { idle, reading, writing };

  // Reading: make n bytes available at rp(); false when the file ends first.
  bool fill(std::size_t n) { return rend_ - rpos_ >= n || refill(n); }
  std::size_t avail() const { return rend_ - rpos_; }
  const char* rp() const { return buf_ + rpos_; }
  void consume(std::size_t n) { rpos_ += n; }
  std::size_t readbulk(void* dst, std::size_t n);  // copies up to n bytes; fewer at end of file
  void beginread() {
    if (mode_ != mode::reading) switchtoread();
  }

  // Writing: room for n bytes (n no larger than bufferlimit) at wp().
  char* wspace(std::size_t n) {
    if (cap_ - wlen_ < n) makeroom(n);
    return buf_ + wlen_;
  }
  void wcommit(std::size_t n) { wlen_ += n; }
  std::size_t wroom() const { return cap_ - wlen_; }  // bytes wspace gives without flushing
  void writebulk(const void* src, std::size_t n);
  void patch(std::int64_t offset, const void* src, std::size_t n);  // overwrite bytes already written
  void beginwrite() {
    if (mode_ != mode::writing || !truncated_) switchtowrite();
  }
  void endstatement();  // standard output: hand the line over

  // A file's buffer starts small, for files that are only dipped into (a header), and is replaced
  // by a large one once the file is streamed. Transfers up to bufferlimit go through it.
  static constexpr std::size_t bufferlimit = std::size_t{1} << 20;
  std::size_t capacity() const { return cap_; }
  std::int64_t records = 0;  // statements begun since open or rewind
  std::int64_t lines = 0;    // formatted: line ends consumed since open or rewind

 private:
  friend void open(int, std::string_view, std::string_view, std::string_view);
  friend void close(int);
  friend void rewind(int);
  friend void flush(int);
  friend unit& getunit(int);
  bool refill(std::size_t n);
  void makeroom(std::size_t n);
  void grow(std::size_t n);
  void connect(const std::string& name, form f, bool create);
  int openregular(const std::string& name, bool create);
  int openbyname(const std::string& name, form f, bool create, const std::string& on);
  void switchtoread();
  void switchtowrite();
  void flushwrites();
  void disconnect();
  [[noreturn]] void oserror(const char* action, int err);  // drops the connection, then fails
  void abandon();  // closes the file without flushing or reporting, and releases the buffer

  int number_;
  int fd_ = -1;
  bool tostdout_ = false;
  form form_ = form::none;
  std::string path_;
  std::uint64_t dev_ = 0, ino_ = 0;
  char* buf_ = nullptr;
  std::size_t cap_ = 0;
  std::size_t rpos_ = 0, rend_ = 0;  // reading window
  std::size_t wlen_ = 0;             // bytes waiting to be written
  std::int64_t bufstart_ = 0;        // file offset of buf_[0]
  mode mode_ = mode::idle;
  bool truncated_ = false;  // the file was ended at the write position since the last repositioning
};

// The unit with this number (created unconnected on first use; 6 is standard output).
unit& getunit(int number);

// ---- items ----------------------------------------------------------------------------------

// n elements from p, each `stride` elements apart (an array section).
template <class T>
struct seq {
  T* p;
  index_t n;
  index_t stride = 1;
};
template <class T>
seq<T> items(T* p, index_t n, index_t stride = 1) {
  return {p, n, stride};
}

// Elements whose count is an item read earlier in the same statement (a face's node count). A
// count above `max` is an error of the read, so that nothing is stored past the destination.
template <class T>
struct lazyseq {
  T* p;
  const int* n;
  index_t max;
};

// A fixed-length text item.
struct textref {
  char* p;
  std::size_t n;
};
template <std::size_t N>
textref text(fortran::ftext<N>& t) {
  return {t.data(), N};
}

// n reals held as 8-byte values, p[k * stride]: on disk 4 bytes each when `single` (narrowed on
// writing, widened on reading; in text read and written with 4-byte precision), 8 bytes otherwise.
// The typed interface holds every real as 8 bytes whatever the file's width.
struct reals {
  double* p;
  index_t n;
  index_t stride;
  bool single;
};
struct creals {
  const double* p;
  index_t n;
  index_t stride;
  bool single;
};
template <class S>
void realitems(S& s, const reals& r);
template <class S>
void realitems(S& s, const creals& r);

// 8-byte to 4-byte real, rounding to nearest; out of range gives an infinity, as IEEE does.
// Inline: it runs once per value of every 8-byte file.
inline float narrow(double d) {
  // Values at or beyond FLT_MAX plus half its last place round to infinity.
  constexpr double limit = static_cast<double>(FLT_MAX) + 0x1p103;
  if (std::isfinite(d) && std::fabs(d) >= limit) return d > 0 ? INFINITY : -INFINITY;
  return static_cast<float>(d);
}

namespace detail {
void setreaderror(unit& u, rstat st, std::int64_t offset, const std::string& reason);
}  // namespace detail

// ---- unformatted read: framed records ("unformatted") or unframed stream ("binary") ----------

class rawin {
 public:
  explicit rawin(unit& u);
  rstat status() const { return st_; }

  template <class T>
  requires std::is_arithmetic_v<T>
  void item(T& v) { get(&v, sizeof v, sizeof v); }
  template <class T>
  void item(const seq<T>& s) {
    if (s.n <= 0) return;
    if (s.stride == 1) {
      get(s.p, static_cast<std::size_t>(s.n) * sizeof(T), sizeof(T));
      return;
    }
    // A section with a stride: the elements that lie whole in the buffer (and in the record) go
    // straight to their places; one element at a time where the buffer or a sub-record ends.
    index_t k = 0;
    while (k < s.n && st_ == rstat::ok) {
      std::size_t have = u_.avail();
      if (framed_ && static_cast<std::int64_t>(have) > left_) have = static_cast<std::size_t>(left_);
      const index_t m = std::min<index_t>(s.n - k, static_cast<index_t>(have / sizeof(T)));
      if (m == 0) {
        get(s.p + k * s.stride, sizeof(T), sizeof(T));
        ++k;
        continue;
      }
      const char* src = u_.rp();
      T* dst = s.p + k * s.stride;
      constexpr auto size = static_cast<index_t>(sizeof(T));
      for (index_t i = 0; i < m; ++i) std::memcpy(dst + i * s.stride, src + i * size, sizeof(T));
      const auto bytes = static_cast<std::int64_t>(m) * static_cast<std::int64_t>(sizeof(T));
      u_.consume(static_cast<std::size_t>(bytes));
      left_ -= bytes;
      taken_ += bytes;
      k += m;
    }
  }
  template <class T>
  void item(const lazyseq<T>& s) {
    if (st_ != rstat::ok) return;
    if (*s.n > s.max) return toomany(*s.n, s.max);
    item(seq<T>{s.p, *s.n, 1});
  }
  void item(const textref& t) { get(t.p, t.n, t.n); }
  void item(const reals& r) { realitems(*this, r); }

  rstat finish();

 private:
  // Transfers `bytes` bytes of elements of `elem` bytes each.
  void get(void* dst, std::size_t bytes, std::size_t elem) {
    if (st_ != rstat::ok) return;
    if ((!framed_ || static_cast<std::int64_t>(bytes) <= left_) && u_.avail() >= bytes) {
      std::memcpy(dst, u_.rp(), bytes);
      u_.consume(bytes);
      left_ -= static_cast<std::int64_t>(bytes);
      taken_ += static_cast<std::int64_t>(bytes);
      return;
    }
    slowget(static_cast<char*>(dst), bytes, elem);
  }
  void slowget(char* dst, std::size_t bytes, std::size_t elem);
  bool nextsubrecord();
  bool readmarker(std::int32_t& m, bool leading);
  bool endsubrecord();
  void toomany(int n, index_t max);
  void failwith(rstat st, const std::string& reason);

  unit& u_;
  bool framed_ = false;
  rstat st_ = rstat::ok;
  std::int64_t left_ = 0;   // data bytes left in the current sub-record
  bool more_ = false;       // further sub-records follow
  bool first_ = true;       // the current sub-record is the record's first
  std::int32_t lead_ = 0;   // leading marker of the current sub-record
  std::int64_t start_ = 0;  // file offset where the statement began
  std::int64_t taken_ = 0;  // data bytes transferred so far
};

template <class... Items>
rstat rawread(unit& u, Items&&... its) {
  rawin s(u);
  (s.item(its), ...);
  return s.finish();
}

// ---- unformatted write --------------------------------------------------------------------

class rawout {
 public:
  explicit rawout(unit& u);

  template <class T>
  requires std::is_arithmetic_v<T>
  void item(const T& v) { put(&v, sizeof v); }
  template <class T>
  void item(const seq<T>& s) {
    if (s.n <= 0) return;
    if (s.stride == 1) {
      put(s.p, static_cast<std::size_t>(s.n) * sizeof(T));
      return;
    }
    // A section with a stride: gathered straight into the buffer, as many elements at a time as
    // the buffer (and the sub-record) has room for.
    index_t k = 0;
    while (k < s.n) {
      u_.wspace(sizeof(T));
      std::size_t room = u_.wroom();
      if (framed_ && static_cast<std::int64_t>(room) > room_) room = static_cast<std::size_t>(room_);
      const index_t m = std::min<index_t>(s.n - k, static_cast<index_t>(room / sizeof(T)));
      if (m == 0) {
        put(s.p + k * s.stride, sizeof(T));
        ++k;
        continue;
      }
      char* w = u_.wspace(static_cast<std::size_t>(m) * sizeof(T));
      const T* src = s.p + k * s.stride;
      constexpr auto size = static_cast<index_t>(sizeof(T));
      for (index_t i = 0; i < m; ++i) std::memcpy(w + i * size, src + i * s.stride, sizeof(T));
      u_.wcommit(static_cast<std::size_t>(m) * sizeof(T));
      room_ -= static_cast<std::int64_t>(m) * static_cast<std::int64_t>(sizeof(T));
      k += m;
    }
  }
  template <std::size_t N>
  void item(const fortran::ftext<N>& t) {
    put(t.data(), N);
  }
  void item(const creals& r) { realitems(*this, r); }
  void finish();

 private:
  void put(const void* src, std::size_t bytes) {
    if ((!framed_ || static_cast<std::int64_t>(bytes) <= room_) && bytes <= unit::bufferlimit) {
      char* w = u_.wspace(bytes);
      std::memcpy(w, src, bytes);
      u_.wcommit(bytes);
      room_ -= static_cast<std::int64_t>(bytes);
      return;
    }
    slowput(static_cast<const char*>(src), bytes);
  }
  void slowput(const char* src, std::size_t bytes);
  void splitsubrecord();

  unit& u_;
  bool framed_ = false;
  std::int64_t head_ = 0;  // file offset of the current sub-record's leading marker
  std::int64_t room_ = 0;  // bytes the current sub-record can still take
  bool first_ = true;
};

template <class... Items>
void rawwrite(unit& u, const Items&... its) {
  rawout s(u);
  (s.item(its), ...);
  s.finish();
}

// ---- list-directed read ---------------------------------------------------------------------

class listin {
 public:
  explicit listin(unit& u);
  rstat status() const { return st_; }

  void item(int& v) { value(&v, kind::i4); }
  void item(float& v) { value(&v, kind::r4); }
  void item(double& v) { value(&v, kind::r8); }
  template <class T>
  void item(const seq<T>& s) {
    for (index_t k = 0; k < s.n && st_ == rstat::ok && !ended_; ++k) {
      item(s.p[k * s.stride]);
      // The rest of a repeat r*c takes the value just read, copied rather than parsed again, so
      // that a short text such as 2000000000*1.5 costs no more than the elements it fills (and
      // nothing for a stride of 0, where every element is the same one).
      if (repeat_ > 0 && st_ == rstat::ok && k + 1 < s.n) {
        const index_t m = repeat_ < s.n - k - 1 ? repeat_ : s.n - k - 1;
        if (!repeatnull_ && s.stride != 0)
          for (index_t j = 1; j <= m; ++j) s.p[(k + j) * s.stride] = s.p[k * s.stride];
        repeat_ -= m;
        k += m;
      }
    }
  }
  template <class T>
  void item(const lazyseq<T>& s) {
    if (st_ != rstat::ok || ended_) return;
    if (*s.n > s.max) return toomany(*s.n, s.max);
    item(seq<T>{s.p, *s.n, 1});
  }
  void item(const reals& r) { realitems(*this, r); }

  rstat finish();

 private:
  enum class kind : std::uint8_t { i4, r4, r8 };
  void value(void* dst, kind k);
  void parse(std::string_view tok, void* dst, kind k);
  void toomany(int n, index_t max);
  void failwith(rstat st, const std::string& reason);

  unit& u_;
  rstat st_ = rstat::ok;
  bool ended_ = false;       // a slash ended the record
  bool sepallowed_ = false;  // a comma now separates values rather than marking a null value
  bool took_ = false;        // the statement asked for at least one value
  index_t repeat_ = 0;       // values still to come from an r*c repeat
  bool repeatnull_ = false;  // the repeat is of null values (r*)
  std::string tok_;          // the repeated value's text
  std::int64_t start_ = 0;   // file offset where the statement began
};

template <class... Items>
rstat listread(unit& u, Items&&... its) {
  listin s(u);
  (s.item(its), ...);
  return s.finish();
}

// Format-directed read of one line with the edit descriptor A (the text's length): the line's
// first characters, blank-padded; the rest of the line is passed over.
rstat aread(unit& u, const textref& t);

// ---- list-directed and format-directed write ------------------------------------------------

class listout {
 public:
  explicit listout(unit& u);
  void item(int v);
  void item(float v);
  void item(double v);
  void item(std::string_view s);
  void item(const char* s) { item(std::string_view(s)); }
  template <std::size_t N>
  void item(const fortran::ftext<N>& t) {
    item(t.view());
  }
  template <class T>
  void item(const seq<T>& s) {
    for (index_t k = 0; k < s.n; ++k) item(s.p[k * s.stride]);
  }
  void item(const creals& r) { realitems(*this, r); }
  void finish();

 private:
  void field(const char* p, std::size_t n, bool separate);
  unit& u_;
  bool lastchar_ = false;  // the previous item was a text
  bool any_ = false;
};

template <class... Items>
void listwrite(unit& u, const Items&... its) {
  listout s(u);
  (s.item(its), ...);
  s.finish();
}

// A list-directed line on standard output (unit 6).
template <class... Items>
void print(const Items&... its) {
  listwrite(getunit(6), its...);
}

// One formatted record written exactly as given (the output of a format-directed write).
void linewrite(unit& u, std::string_view line);

// Format edit Iw: the integer right-aligned in w columns, or w asterisks when it does not fit.
void editi(std::string& out, int w, std::int64_t v);

// ---- reals of either width --------------------------------------------------------------------

// In blocks through a small array of 4-byte reals: no allocation, and the statement sees plain
// sections. Reading copies the values in first, so that null values keep what the array held.
template <class S>
void realitems(S& s, const reals& r) {
  if (!r.single) return s.item(seq<double>{r.p, r.n, r.stride});
  float b[256];
  for (index_t k = 0; k < r.n && s.status() == rstat::ok;) {
    const index_t m = std::min<index_t>(r.n - k, 256);
    for (index_t i = 0; i < m; ++i) b[i] = static_cast<float>(r.p[(k + i) * r.stride]);
    s.item(seq<float>{b, m, 1});
    for (index_t i = 0; i < m; ++i) r.p[(k + i) * r.stride] = b[i];
    k += m;
  }
}
template <class S>
void realitems(S& s, const creals& r) {
  if (!r.single) return s.item(seq<const double>{r.p, r.n, r.stride});
  float b[256];
  for (index_t k = 0; k < r.n;) {
    const index_t m = std::min<index_t>(r.n - k, 256);
    for (index_t i = 0; i < m; ++i) b[i] = narrow(r.p[(k + i) * r.stride]);
    s.item(seq<const float>{b, m, 1});
    k += m;
  }
}

// ---- one record in the file's form -----------------------------------------------------------
//
// The routines and the typed interface say once whether a file is text and pass that down; these
// are the only places that choose between a list-directed and an unformatted statement.

template <class... Items>
rstat read(unit& u, bool text, Items&&... its) {
  return text ? listread(u, its...) : rawread(u, its...);
}
template <class... Items>
void write(unit& u, bool text, const Items&... its) {
  if (text)
    listwrite(u, its...);
  else
    rawwrite(u, its...);
}
// A statement whose items a body hands over one by one (a loop over zones).
template <class Body>
rstat readwith(unit& u, bool text, Body&& body) {
  if (text) {
    listin s(u);
    body(s);
    return s.finish();
  }
  rawin s(u);
  body(s);
  return s.finish();
}
template <class Body>
void writewith(unit& u, bool text, Body&& body) {
  if (text) {
    listout s(u);
    body(s);
    s.finish();
  } else {
    rawout s(u);
    body(s);
    s.finish();
  }
}

// A 25-character text record: a line read and written with edit A25 in text, 25 bytes otherwise.
inline rstat readtext(unit& u, bool text, fortran::char25& t) {
  return text ? aread(u, io::text(t)) : rawread(u, io::text(t));
}
inline void writetext(unit& u, bool text, const fortran::char25& t) {
  if (text)
    linewrite(u, t.view());
  else
    rawwrite(u, t);
}

// ---- bulk fixed-size records ------------------------------------------------------------------
//
// Node and face records make up nearly all of a grid file, and in the "unformatted" and "binary"
// encodings most of the cost of one record is the general statement around it. These take the
// common case straight from or into the unit's buffer: a record that lies whole in the buffer,
// whose length markers (framed) agree and hold exactly its items. They stop at the first record
// that is not such a record and return its index; the caller transfers that one with a statement,
// so what is stored, written and reported is the same. Each record counts as one statement.

// Reads records i, i+1, ... < n of `rows` values of T, record j into dst + j * stride.
template <class T>
index_t readfixed(unit& u, T* dst, index_t stride, index_t rows, index_t i, index_t n);
// Reads face records f .. fend-1 (numbered from 1): node count into npf, nodes into ifnode (w a
// face), the two cells into ifcell (cs a face). A count above w stops the loop.
index_t readfaces(unit& u, int* npf, int* ifnode, index_t w, int* ifcell, index_t cs, index_t f,
                  index_t fend);
// Writes n records of `rows` values of T, record j from src + j * stride.
template <class T>
void writefixed(unit& u, const T* src, index_t stride, index_t rows, index_t n);
// Writes one face record: its node count n, n nodes and two cells.
void writeface(unit& u, int n, const int* nodes, const int* cells);

// ---- a walker over framed records ---------------------------------------------------------------

// One framed record: where its first leading marker is, its data bytes over all sub-records,
// where its first data byte is, and how many sub-records it has.
struct framedrecord {
  std::int64_t offset = 0;
  std::int64_t length = 0;
  std::int64_t data = 0;
  std::int64_t subrecords = 0;
};

// Walks the records of a framed file held in memory. next() gives them in order and returns false
// at the end of the bytes or at the first record that is not well formed; then damage() says why
// (empty when the records end exactly at the end), truncated() whether a record is cut short by
// the end, and end() where the last whole record ends.
class recordwalker {
 public:
  recordwalker(const unsigned char* p, std::size_t n) : p_(p), n_(static_cast<std::int64_t>(n)) {}
  bool next(framedrecord& r);
  const std::string& damage() const { return damage_; }
  bool truncated() const { return truncated_; }
  std::int64_t end() const { return off_; }
  std::int64_t count() const { return count_; }

 private:
  const unsigned char* p_;
  std::int64_t n_;
  std::int64_t off_ = 0;
  std::int64_t count_ = 0;
  std::string damage_;
  bool truncated_ = false;
};

}  // namespace mod_zelmgrid::io
