// Unformatted statements: framed records (with sub-records) and the unframed stream.
//
// A framed record is a 4-byte length L, L data bytes and L again. A record longer than the largest
// sub-record is a chain of sub-records: every leading length but the last is negated (more
// follows) and every trailing length but the first is negated (it continues an earlier one).
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "records.hpp"

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

}  // namespace mod_zelmgrid::io
