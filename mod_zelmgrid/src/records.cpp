// Unformatted statements: framed records (with sub-records) and the unframed stream.
//
// A framed record is a 4-byte length L, L data bytes and L again. A record longer than the largest
// sub-record is a chain of sub-records: every leading length but the last is negated (more
// follows) and every trailing length but the first is negated (it continues an earlier one).
#include "records.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace mod_zelmgrid::io {

namespace {

std::string str(std::int64_t v) {
  return std::to_string(v);
}

std::int64_t magnitude(std::int32_t m) {
  return m < 0 ? -static_cast<std::int64_t>(m) : m;
}

}  // namespace

// ---- read -------------------------------------------------------------------------------------

rawin::rawin(unit& u) : u_(u) {
  ++u_.records;
  if (!u_.connected()) {
    failwith(rstat::error, "the unit is not connected to a file");
    return;
  }
  if (u_.connectedform() == form::formatted) {
    failwith(rstat::error, "an unformatted read from a file connected for formatted access");
    return;
  }
  u_.beginread();
  start_ = u_.position();
  framed_ = u_.connectedform() == form::unformatted;
  if (!framed_) return;
  if (!u_.fill(4)) {
    if (u_.avail() == 0) {
      failwith(rstat::end, "end of file");
      return;
    }
    {
      failwith(rstat::error, "the file ends inside a record's length marker (truncated file)");
      return;
    }
  }
  readmarker(lead_, true);
  left_ = magnitude(lead_);
  more_ = lead_ < 0;
  first_ = true;
}

void rawin::failwith(rstat st, const std::string& reason) {
  if (st_ != rstat::ok) return;
  st_ = st;
  detail::setreaderror(u_, st, start_, reason);
}

bool rawin::readmarker(std::int32_t& m, bool leading) {
  if (!u_.fill(4)) {
    failwith(rstat::error, std::string("the file ends before the ") + (leading ? "leading" : "trailing") +
                               " length marker of a record (truncated file)");
    return false;
  }
  std::memcpy(&m, u_.rp(), 4);
  u_.consume(4);
  if (m == INT32_MIN) {
    failwith(rstat::error, "invalid record length marker " + str(m));
    return false;
  }
  return true;
}

bool rawin::endsubrecord() {
  std::int32_t trail = 0;
  if (!readmarker(trail, false)) return false;
  const bool expectnegative = !first_;
  if (magnitude(trail) != magnitude(lead_) || (trail < 0) != expectnegative) {
    failwith(rstat::error, "length markers disagree: leading " + str(lead_) + ", trailing " + str(trail));
    return false;
  }
  return true;
}

bool rawin::nextsubrecord() {
  if (!endsubrecord()) return false;
  if (!readmarker(lead_, true)) return false;
  first_ = false;
  left_ = magnitude(lead_);
  more_ = lead_ < 0;
  return true;
}

void rawin::slowget(char* dst, std::size_t bytes, std::size_t elem) {
  // Near the end of the file only whole elements are stored: the one cut off keeps its value.
  std::size_t limit = bytes;
  const std::int64_t rem = u_.remaining();
  const bool cut = rem < static_cast<std::int64_t>(bytes);
  if (cut) limit = static_cast<std::size_t>(rem) / elem * elem;
  std::size_t done = 0;  // bytes stored by this call
  while (limit > 0 && st_ == rstat::ok) {
    if (framed_ && left_ == 0) {
      if (!more_) {
        return failwith(rstat::error, "the record holds fewer data than the statement reads (" + str(taken_) +
                                          " bytes read, " + str(static_cast<std::int64_t>(bytes)) +
                                          " more wanted)");
      }
      nextsubrecord();
      continue;
    }
    if (framed_ && !more_ && static_cast<std::size_t>(left_) < limit) {
      // The record's last sub-record ends inside what is asked: store only the elements that it
      // completes, so that the element cut off keeps its value.
      const std::size_t whole = (done + static_cast<std::size_t>(left_)) / elem * elem;
      limit = whole > done ? std::min(limit, whole - done) : 0;
      if (limit == 0) break;
    }
    const std::size_t want = framed_ ? std::min<std::size_t>(limit, static_cast<std::size_t>(left_)) : limit;
    const std::size_t got = u_.readbulk(dst, want);
    dst += got;
    done += got;
    bytes -= got;
    limit -= got;
    taken_ += static_cast<std::int64_t>(got);
    if (framed_) left_ -= static_cast<std::int64_t>(got);
    if (got < want) break;
  }
  if (st_ != rstat::ok || bytes == 0) return;
  if (framed_ && !more_ && left_ < static_cast<std::int64_t>(bytes))
    return failwith(rstat::error, "the record holds fewer data than the statement reads (" + str(taken_) +
                                      " bytes read, " + str(static_cast<std::int64_t>(bytes)) +
                                      " more wanted)");
  if (framed_) return failwith(rstat::error, "the file ends inside a record (truncated file)");
  failwith(rstat::end, "end of file: " + str(rem < 0 ? 0 : rem) + " bytes left where the statement reads " +
                           str(static_cast<std::int64_t>(bytes)));
}

void rawin::toomany(int n, index_t max) {
  failwith(rstat::error, "a count of " + str(n) + " items exceeds the " + str(max) + " that the array holds");
}

rstat rawin::finish() {
  if (st_ != rstat::ok || !framed_) return st_;
  // Skip what the statement left of the record, then check the markers of each sub-record.
  for (;;) {
    while (left_ > 0) {
      if (!u_.fill(1)) return failwith(rstat::error, "the file ends inside a record (truncated file)"), st_;
      const std::size_t take = std::min<std::size_t>(u_.avail(), static_cast<std::size_t>(left_));
      u_.consume(take);
      left_ -= static_cast<std::int64_t>(take);
    }
    if (!more_) {
      endsubrecord();
      return st_;
    }
    if (!nextsubrecord()) return st_;
  }
}

// ---- write ------------------------------------------------------------------------------------

rawout::rawout(unit& u) : u_(u) {
  if (!u_.connected())
    u_.failure("cannot write to unit " + std::to_string(u_.number()) + ": it is not connected to a file");
  if (u_.connectedform() == form::formatted)
    u_.failure("cannot write unformatted data to \"" + u_.file() + "\" (unit " + std::to_string(u_.number()) +
               "): it is connected for formatted access");
  u_.beginwrite();
  ++u_.records;
  framed_ = u_.connectedform() == form::unformatted;
  if (!framed_) return;
  head_ = u_.position();
  u_.wspace(4);
  u_.wcommit(4);
  room_ = maxsubrecord();
  first_ = true;
}

void rawout::slowput(const char* src, std::size_t bytes) {
  while (bytes > 0) {
    if (framed_ && room_ == 0) splitsubrecord();
    const std::size_t take = framed_ ? std::min<std::size_t>(bytes, static_cast<std::size_t>(room_)) : bytes;
    u_.writebulk(src, take);
    src += take;
    bytes -= take;
    if (framed_) room_ -= static_cast<std::int64_t>(take);
  }
}

void rawout::splitsubrecord() {
  const std::int32_t len = maxsubrecord();
  const std::int32_t trail = first_ ? len : -len;
  const std::int32_t lead = -len;
  std::memcpy(u_.wspace(4), &trail, 4);
  u_.wcommit(4);
  u_.patch(head_, &lead, 4);
  head_ = u_.position();
  u_.wspace(4);
  u_.wcommit(4);
  room_ = maxsubrecord();
  first_ = false;
}

void rawout::finish() {
  if (framed_) {
    const auto len = static_cast<std::int32_t>(maxsubrecord() - room_);
    const std::int32_t trail = first_ ? len : -len;
    std::memcpy(u_.wspace(4), &trail, 4);
    u_.wcommit(4);
    u_.patch(head_, &len, 4);
  }
  u_.endstatement();
}

// ---- bulk fixed-size records ------------------------------------------------------------------

namespace {

constexpr std::size_t marker = 4;

std::int32_t load32(const char* p) {
  std::int32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
void store32(char* p, std::int32_t v) {
  std::memcpy(p, &v, 4);
}

}  // namespace

template <class T>
index_t readfixed(unit& u, T* dst, index_t stride, index_t rows, index_t i, index_t n) {
  if (rows < 1 || stride < rows) return i;
  const bool framed = u.connectedform() == form::unformatted;
  const std::size_t payload = static_cast<std::size_t>(rows) * sizeof(T);
  const std::size_t rec = payload + (framed ? 2 * marker : 0);
  u.beginread();
  while (i < n && u.fill(rec)) {
    const char* p = u.rp();
    const index_t m = std::min<index_t>(n - i, static_cast<index_t>(u.avail() / rec));
    index_t done = 0;
    if (!framed && stride == rows) {
      std::memcpy(dst + i * stride, p, static_cast<std::size_t>(m) * payload);
      done = m;
    } else if (!framed) {
      for (; done < m; ++done, p += rec) std::memcpy(dst + (i + done) * stride, p, payload);
    } else {
      const auto len = static_cast<std::int32_t>(payload);
      for (; done < m; ++done, p += rec) {
        if (load32(p) != len || load32(p + marker + payload) != len) break;
        std::memcpy(dst + (i + done) * stride, p + marker, payload);
      }
    }
    u.consume(static_cast<std::size_t>(done) * rec);
    u.records += done;
    i += done;
    if (done < m) break;  // a record the statement must take
  }
  return i;
}
template index_t readfixed(unit&, float*, index_t, index_t, index_t, index_t);
template index_t readfixed(unit&, double*, index_t, index_t, index_t, index_t);

index_t readfaces(unit& u, int* npf, int* ifnode, index_t w, int* ifcell, index_t cs, index_t f,
                  index_t fend) {
  if (cs < 2) return f;
  const bool framed = u.connectedform() == form::unformatted;
  const std::size_t head = framed ? marker : 0;
  const std::size_t most = 4 * static_cast<std::size_t>(w + 3) + 2 * head;
  u.beginread();
  bool irregular = false;
  while (f < fend && !irregular && u.fill(most)) {
    const char* const start = u.rp();
    const char* p = start;
    const char* const end = start + u.avail();
    index_t done = 0;
    while (f < fend && static_cast<std::size_t>(end - p) >= most) {
      const std::int32_t count = load32(p + head);
      if (count > w) {
        irregular = true;
        break;
      }
      const std::size_t k = count > 0 ? static_cast<std::size_t>(count) : 0;
      const std::size_t payload = 4 * (k + 3);
      if (framed && (load32(p) != static_cast<std::int32_t>(payload) ||
                     load32(p + marker + payload) != static_cast<std::int32_t>(payload))) {
        irregular = true;
        break;
      }
      npf[f - 1] = count;
      std::memcpy(ifnode + (f - 1) * w, p + head + 4, 4 * k);
      std::memcpy(ifcell + cs * (f - 1), p + head + 4 + 4 * k, 8);
      p += payload + 2 * head;
      ++f;
      ++done;
    }
    u.consume(static_cast<std::size_t>(p - start));
    u.records += done;
  }
  return f;
}

template <class T>
void writefixed(unit& u, const T* src, index_t stride, index_t rows, index_t n) {
  const bool framed = u.connectedform() == form::unformatted;
  const std::size_t payload = static_cast<std::size_t>(std::max<index_t>(rows, 0)) * sizeof(T);
  const std::size_t rec = payload + (framed ? 2 * marker : 0);
  if (rows < 1 || rec > unit::bufferlimit || (framed && payload > static_cast<std::size_t>(maxsubrecord()))) {
    for (index_t j = 0; j < n; ++j) rawwrite(u, items(src + j * stride, rows));
    return;
  }
  u.beginwrite();
  const auto len = static_cast<std::int32_t>(payload);
  for (index_t j = 0; j < n;) {
    char* w = u.wspace(rec);
    const index_t m = std::min<index_t>(n - j, static_cast<index_t>(u.wroom() / rec));
    for (index_t e = 0; e < m; ++e, ++j) {
      if (framed) store32(w, len);
      std::memcpy(w + (framed ? marker : 0), src + j * stride, payload);
      if (framed) store32(w + marker + payload, len);
      w += rec;
    }
    u.wcommit(static_cast<std::size_t>(m) * rec);
    u.records += m;
  }
}
template void writefixed(unit&, const float*, index_t, index_t, index_t);
template void writefixed(unit&, const double*, index_t, index_t, index_t);

void writeface(unit& u, int n, const int* nodes, const int* cells) {
  const bool framed = u.connectedform() == form::unformatted;
  const std::size_t head = framed ? marker : 0;
  const std::size_t kn = n > 0 ? static_cast<std::size_t>(n) : 0;
  const std::size_t payload = 4 * (kn + 3);
  if (payload + 2 * head > unit::bufferlimit ||
      (framed && payload > static_cast<std::size_t>(maxsubrecord())) ||
      u.connectedform() == form::formatted || !u.connected()) {
    rawwrite(u, n, items(nodes, n), cells[0], cells[1]);
    return;
  }
  // The record straight into the buffer: count, nodes, cells (with its length markers).
  u.beginwrite();
  char* b = u.wspace(payload + 2 * head);
  if (framed) store32(b, static_cast<std::int32_t>(payload));
  store32(b + head, n);
  std::memcpy(b + head + 4, nodes, 4 * kn);
  std::memcpy(b + head + 4 + 4 * kn, cells, 8);
  if (framed) store32(b + head + payload, static_cast<std::int32_t>(payload));
  u.wcommit(payload + 2 * head);
  ++u.records;
}

// ---- the walker -------------------------------------------------------------------------------

bool recordwalker::next(framedrecord& r) {
  if (off_ >= n_ || !damage_.empty()) return false;
  std::int64_t at = off_;
  r = {off_, 0, off_ + 4, 0};
  for (bool first = true;; first = false) {
    if (at + 4 > n_) {
      truncated_ = true;
      damage_ = "a length marker at byte " + str(at) + " is cut short by the end of the file (" +
                str(n_ - at) + " bytes left)";
      return false;
    }
    std::int32_t lead;
    std::memcpy(&lead, p_ + at, 4);
    if (lead == INT32_MIN) {
      damage_ = "the length marker at byte " + str(at) + " is " + str(lead) + ", which no record has";
      return false;
    }
    const std::int64_t len = magnitude(lead);
    if (at + 8 + len > n_) {
      truncated_ = true;
      damage_ = "a record at byte " + str(at) + " claims " + str(len) + " bytes with " +
                str(std::max<std::int64_t>(n_ - at - 4, 0)) + " left";
      return false;
    }
    std::int32_t trail;
    std::memcpy(&trail, p_ + at + 4 + len, 4);
    if (magnitude(trail) != len || (trail < 0) == first) {
      damage_ = "the length markers at bytes " + str(at) + " and " + str(at + 4 + len) + " disagree (" +
                str(lead) + ", " + str(trail) + ")";
      return false;
    }
    r.length += len;
    ++r.subrecords;
    at += 8 + len;
    if (lead >= 0) break;
  }
  off_ = at;
  ++count_;
  return true;
}

}  // namespace mod_zelmgrid::io
