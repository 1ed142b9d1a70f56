// Units: the table of numbered connections, their buffers, and the run-ending failure path.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "records.hpp"
#include "zelmgrid/farray.hpp"

namespace mod_zelmgrid::io {

namespace {

constexpr std::size_t smallbuffer = std::size_t{4} << 10;  // one page
constexpr std::size_t hugepage = std::size_t{2} << 20;
constexpr std::size_t stdoutbuffer = std::size_t{1} << 16;
constexpr int stdoutunit = 6;
constexpr int largestunit = 99999;

int sysopen(const char* p, int flags, int mode) {
  return ::open(p, flags, mode);
}
long sysread(int fd, void* b, std::size_t n) {
  return ::read(fd, b, n);
}
long syswrite(int fd, const void* b, std::size_t n) {
  return ::write(fd, b, n);
}
long syspwrite(int fd, const void* b, std::size_t n, std::int64_t o) {
  return ::pwrite(fd, b, n, o);
}
std::int64_t syslseek(int fd, std::int64_t o, int w) {
  return ::lseek(fd, o, w);
}
int sysftruncate(int fd, std::int64_t l) {
  return ::ftruncate(fd, l);
}
int sysclose(int fd) {
  return ::close(fd);
}

const sysapi realcalls{sysopen, sysread, syswrite, syspwrite, syslseek, sysftruncate, sysclose};
sysapi calls = realcalls;

std::int32_t maxsub = 2147483639;
std::FILE* stdoutsink = stdout;
std::string lasterror;  // the numbered units' last read failure, for the routines' hosts

void defaultfailure(const std::string& message) {
  std::fflush(stdout);
  std::fprintf(stderr, "zelmgrid: I/O error: %s\n", message.c_str());
  std::exit(2);
}
void defaultstop() {
  std::exit(0);
}

failurehandler onfailure = defaultfailure;
stophandler onstop = defaultstop;
bool failing = false;  // a failure is being handled: a second one (while closing) must not recurse

// The unit table; its destructor closes every unit when the program ends, as a Fortran runtime does.
struct unittable {
  std::vector<std::unique_ptr<unit>> units;
  ~unittable() {
    failing = true;  // no handler calls while the program is ending
    for (auto& u : units)
      if (u && u->connected()) close(u->number());
  }
};
unittable& table() {
  static unittable t;
  return t;
}

std::string lower(std::string_view s) {
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  std::string r(s);
  for (char& c : r) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  return r;
}

std::string quoted(std::string_view s) {
  return '"' + std::string(s) + '"';
}

// File buffers. A large one is a whole huge page where the array type uses them (first-touching it
// costs one fault instead of 512), and 1 MiB of 4 KiB pages otherwise. A unit keeps its buffer
// when it is disconnected, so that a routine that opens its unit call after call reuses memory that
// is already touched; nothing is shared between units.
std::size_t largebuffer() {
  return fortran::hugepages ? hugepage : unit::bufferlimit;
}

char* newbuffer(std::size_t cap) {
  if (cap == hugepage && fortran::hugepages) {
    void* p = std::aligned_alloc(hugepage, hugepage);
    if (p != nullptr) madvise(p, hugepage, MADV_HUGEPAGE);
    return static_cast<char*>(p);
  }
  return static_cast<char*>(std::malloc(cap));
}

}  // namespace

const char* formname(form f) {
  switch (f) {
    case form::formatted: return "formatted";
    case form::unformatted: return "unformatted";
    case form::binary: return "binary";
    default: return "not connected";
  }
}

failurehandler setfailurehandler(failurehandler h) {
  auto old = onfailure;
  onfailure = h != nullptr ? h : defaultfailure;
  return old;
}

void fail(const std::string& message) {
  if (failing) {  // failing again while closing units at the end of the run
    std::fprintf(stderr, "zelmgrid: I/O error: %s\n", message.c_str());
    std::_Exit(2);
  }
  onfailure(message);
  std::abort();  // a handler must not return
}

stophandler setstophandler(stophandler h) {
  auto old = onstop;
  onstop = h != nullptr ? h : defaultstop;
  return old;
}

void stop() {
  std::fflush(stdout);
  onstop();
  std::abort();
}

sysapi& sys() {
  return calls;
}
const sysapi& realsys() {
  return realcalls;
}

void setmaxsubrecord(std::int32_t bytes) {
  maxsub = bytes > 0 ? bytes : 2147483639;
}
std::int32_t maxsubrecord() {
  return maxsub;
}
void setstdout(std::FILE* f) {
  stdoutsink = f;
}
const std::string& lastreaderror() {
  return lasterror;
}

// ---- unit -------------------------------------------------------------------------------------

unit::unit(int number) : number_(number) {
  if (number == stdoutunit) {
    tostdout_ = true;
    form_ = form::formatted;
    cap_ = stdoutbuffer;
    buf_ = static_cast<char*>(std::malloc(cap_));
    if (buf_ == nullptr) fail("out of memory for the standard output buffer");
  }
}

unit::~unit() {
  if (number_ < 0 && fd_ >= 0) {
    try {
      disconnect();
    } catch (const ioerror&) {  // nothing to report to from a destructor
    }
  }
  std::free(buf_);
}

void unit::failure(const std::string& message, const char* operation, int err) const {
  if (number_ < 0) throw ioerror(message, path_, operation, err);
  fail(message);
}

void unit::throwreaderror() const {
  throw zelm::readerror(lastread.message, path_, formname(form_), lastread.record, lastread.offset,
                        lastread.cause);
}

void unit::oserror(const char* action, int err) {
  const std::string where = number_ < 0 ? "" : "unit " + std::to_string(number_) + ", ";
  const std::string message = std::string("cannot ") + action + " " + quoted(path_) + " (" + where +
                              formname(form_) + "): " + std::strerror(err);
  // The file is in no known state: the connection is dropped (buffered data with it) before the
  // failure is reported, so that a host whose handler throws finds the unit closed and can go on.
  abandon();
  failure(message, action, err);
}

void unit::abandon() {
  if (fd_ >= 0) (void)calls.close(fd_);
  fd_ = -1;
  if (!tostdout_) {
    form_ = form::none;
    path_.clear();
    dev_ = ino_ = 0;
    bufstart_ = 0;
    mode_ = mode::idle;
    truncated_ = false;
    records = lines = 0;
  }
  rpos_ = rend_ = wlen_ = 0;
}

void unit::openfile(const std::string& file, form f, bool create) {
  if (connected()) disconnect();
  connect(file, f, create);
}

// A standalone unit's file: opened without waiting (a FIFO with no writer would block), then
// refused unless it is a regular file, so that a device, pipe or folder never reaches a reader.
int unit::openregular(const std::string& name, bool create) {
  const int fd =
      calls.open(name.c_str(), (create ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC | O_NONBLOCK, 0666);
  if (fd < 0) {
    const int e = errno;
    failure("cannot open " + quoted(name) + (create ? " for writing: " : ": ") + std::strerror(e), "open", e);
  }
  struct stat sb {};
  const int err = ::fstat(fd, &sb) != 0 ? errno : S_ISREG(sb.st_mode) ? 0 : -1;
  if (err == 0 && ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK) == 0) return fd;
  (void)calls.close(fd);
  if (err > 0) failure("cannot open " + quoted(name) + ": " + std::strerror(err), "open", err);
  const char* what = S_ISDIR(sb.st_mode)                          ? "a folder"
                     : S_ISFIFO(sb.st_mode)                       ? "a pipe or FIFO"
                     : S_ISCHR(sb.st_mode) || S_ISBLK(sb.st_mode) ? "a device"
                     : S_ISSOCK(sb.st_mode)                       ? "a socket"
                                                                  : "not a regular file";
  failure(quoted(name) + " is " + what + ", not a regular file", "open", 0);
}

void unit::closefile() {
  if (fd_ >= 0) disconnect();
}

void unit::connect(const std::string& name, form f, bool create) {
  const std::string on = number_ < 0 ? "" : " on unit " + std::to_string(number_);
  if (name.empty()) failure("cannot open a file with an empty name" + on, "open");
  const int fd = number_ < 0 ? openregular(name, create) : openbyname(name, f, create, on);
  if (tostdout_) {  // unit 6 leaves standard output for the file
    tostdout_ = false;
    std::free(buf_);
    buf_ = nullptr;
    cap_ = 0;
  }
  struct stat fb {};
  if (::fstat(fd, &fb) == 0) {
    dev_ = fb.st_dev;
    ino_ = fb.st_ino;
  }
  fd_ = fd;  // the buffer the unit had stays for this file
  form_ = f;
  path_ = name;
  rpos_ = rend_ = wlen_ = 0;
  bufstart_ = 0;
  mode_ = mode::idle;
  truncated_ = false;
  records = lines = 0;
}

int unit::openbyname(const std::string& name, form f, bool create, const std::string& on) {
  struct stat sb {};
  const bool exists = ::stat(name.c_str(), &sb) == 0;
  if (!create && !exists)
    failure("cannot open " + quoted(name) + on + " as " + formname(f) +
            " (status \"old\"): " + std::strerror(ENOENT));
  if (exists && S_ISDIR(sb.st_mode))
    failure("cannot open " + quoted(name) + on + ": " + std::strerror(EISDIR), "open", EISDIR);
  int fd = calls.open(name.c_str(), O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0666);
  if (fd < 0 && !create && (errno == EACCES || errno == EROFS))
    fd = calls.open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);  // readable only: enough for reading
  if (fd < 0)
    failure("cannot open " + quoted(name) + on + " as " + formname(f) + " (status " +
            (create ? "\"unknown\"" : "\"old\"") + "): " + std::strerror(errno));
  return fd;
}

// Replaces the buffer by one that holds at least n bytes: the small one for a first transfer that
// fits it, the large one otherwise. What the buffer holds moves along.
void unit::grow(std::size_t n) {
  const std::size_t large = largebuffer();
  const std::size_t cap = buf_ == nullptr && n <= smallbuffer ? smallbuffer : std::max(n, large);
  char* p = newbuffer(cap);
  if (p == nullptr) failure("out of memory for the buffer of " + quoted(path_), "allocate", ENOMEM);
  const std::size_t live = mode_ == mode::writing ? wlen_ : rend_;
  if (live > 0) std::memcpy(p, buf_, live);
  std::free(buf_);
  buf_ = p;
  cap_ = cap;
}

void unit::makeroom(std::size_t n) {
  flushwrites();
  // A file that has filled its small buffer is being streamed: it gets the large one.
  if (cap_ < n || (cap_ < largebuffer() && !tostdout_)) grow(n);
}

bool unit::refill(std::size_t n) {
  if (fd_ < 0) return false;
  if (rpos_ > 0) {
    std::memmove(buf_, buf_ + rpos_, rend_ - rpos_);
    bufstart_ += static_cast<std::int64_t>(rpos_);
    rend_ -= rpos_;
    rpos_ = 0;
  }
  // A file that has been read past its small buffer is being streamed: it gets the large one.
  const auto readsofar = bufstart_ + static_cast<std::int64_t>(rend_);
  if (cap_ < n || (cap_ < largebuffer() && readsofar >= static_cast<std::int64_t>(cap_))) grow(n);
  while (rend_ < n) {
    const long got = calls.read(fd_, buf_ + rend_, cap_ - rend_);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    rend_ += static_cast<std::size_t>(got);
  }
  return true;
}

std::size_t unit::readbulk(void* dst, std::size_t n) {
  char* d = static_cast<char*>(dst);
  std::size_t done = 0;
  while (done < n) {
    if (avail() == 0) {
      const std::size_t rest = n - done;
      if (rest >= bufferlimit / 2 && fd_ >= 0) {  // large transfer: straight into the destination
        bufstart_ += static_cast<std::int64_t>(rend_);
        rpos_ = rend_ = 0;
        const long got = calls.read(fd_, d + done, rest);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return done;
        bufstart_ += got;
        done += static_cast<std::size_t>(got);
        continue;
      }
      if (!refill(1)) return done;
    }
    const std::size_t take = std::min(avail(), n - done);
    std::memcpy(d + done, rp(), take);
    consume(take);
    done += take;
  }
  return done;
}

std::int64_t unit::remaining() const {
  struct stat sb {};
  if (fd_ < 0 || ::fstat(fd_, &sb) != 0 || !S_ISREG(sb.st_mode)) return INT64_MAX;
  return static_cast<std::int64_t>(sb.st_size) - position();
}

void unit::switchtoread() {
  if (mode_ == mode::writing) flushwrites();
  // After writing, the operating system's offset is at bufstart_; after nothing, at the start.
  rpos_ = rend_ = 0;
  mode_ = mode::reading;
}

void unit::switchtowrite() {
  if (tostdout_) {
    mode_ = mode::writing;
    truncated_ = true;
    return;
  }
  if (mode_ == mode::reading) {
    const std::int64_t pos = position();
    if (calls.lseek(fd_, pos, SEEK_SET) < 0) oserror("position", errno);
    bufstart_ = pos;
    rpos_ = rend_ = 0;
  }
  mode_ = mode::writing;
  if (!truncated_) {
    // Writing a sequential record ends the file after it: drop whatever followed.
    flushwrites();
    if (calls.ftruncate(fd_, bufstart_) != 0) oserror("truncate", errno);
    truncated_ = true;
  }
}

void unit::flushwrites() {
  if (tostdout_) {
    if (stdoutsink != nullptr && wlen_ > 0) {
      std::fwrite(buf_, 1, wlen_, stdoutsink);
      std::fflush(stdoutsink);
    }
    wlen_ = 0;
    return;
  }
  std::size_t done = 0;
  while (done < wlen_) {
    const long put = calls.write(fd_, buf_ + done, wlen_ - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) oserror("write", errno);
    if (put == 0) oserror("write", ENOSPC);
    done += static_cast<std::size_t>(put);
  }
  bufstart_ += static_cast<std::int64_t>(wlen_);
  wlen_ = 0;
}

void unit::writebulk(const void* src, std::size_t n) {
  const char* s = static_cast<const char*>(src);
  if (n < bufferlimit / 2 || tostdout_) {
    while (n > 0) {
      const std::size_t take = std::min(n, tostdout_ ? cap_ : bufferlimit);
      std::memcpy(wspace(take), s, take);
      wcommit(take);
      s += take;
      n -= take;
    }
    return;
  }
  flushwrites();
  while (n > 0) {
    const long put = calls.write(fd_, s, n);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) oserror("write", errno);
    if (put == 0) oserror("write", ENOSPC);
    s += put;
    n -= static_cast<std::size_t>(put);
    bufstart_ += put;
  }
}

void unit::patch(std::int64_t offset, const void* src, std::size_t n) {
  if (offset >= bufstart_) {
    std::memcpy(buf_ + (offset - bufstart_), src, n);
    return;
  }
  if (offset + static_cast<std::int64_t>(n) > bufstart_) flushwrites();
  if (calls.pwrite(fd_, src, n, offset) != static_cast<long>(n)) oserror("write", errno ? errno : ENOSPC);
}

void unit::endstatement() {
  if (tostdout_) flushwrites();
}

void unit::disconnect() {
  if (fd_ >= 0) {
    if (mode_ == mode::writing) flushwrites();
    if (calls.close(fd_) != 0) {
      const int err = errno;
      fd_ = -1;  // closed all the same: the descriptor is released whatever close says
      oserror("close", err);
    }
    fd_ = -1;
  }
  form_ = form::none;
  path_.clear();
  dev_ = ino_ = 0;
  rpos_ = rend_ = wlen_ = 0;
  bufstart_ = 0;
  mode_ = mode::idle;
  truncated_ = false;
  records = lines = 0;
}

// ---- the table and the connection statements -------------------------------------------------

unit& getunit(int number) {
  if (number < 0 || number > largestunit) fail("invalid unit number " + std::to_string(number));
  auto& units = table().units;
  if (units.size() <= static_cast<std::size_t>(number)) units.resize(static_cast<std::size_t>(number) + 1);
  auto& slot = units[static_cast<std::size_t>(number)];
  if (!slot) slot = std::make_unique<unit>(number);
  return *slot;
}

void open(int number, std::string_view file, std::string_view formword, std::string_view status) {
  unit& u = getunit(number);
  while (!file.empty() && file.back() == ' ') file.remove_suffix(1);
  const std::string name(file);
  const std::string unitname = "unit " + std::to_string(number);
  const std::string fw = lower(formword);
  const form f = fw == "formatted"     ? form::formatted
                 : fw == "unformatted" ? form::unformatted
                 : fw == "binary"      ? form::binary
                                       : form::none;
  if (f == form::none)
    fail("cannot open " + quoted(name) + " on " + unitname + ": invalid form " + quoted(fw) +
         " (expected \"formatted\", \"unformatted\" or \"binary\")");
  const std::string st = lower(status);
  if (st != "old" && st != "unknown")
    fail("cannot open " + quoted(name) + " on " + unitname + ": invalid status " + quoted(st));
  if (name.empty()) fail("cannot open a file with an empty name on " + unitname);

  struct stat sb {};
  const bool exists = ::stat(name.c_str(), &sb) == 0;
  if (u.connected() && !u.tostdout_) {
    const bool same = exists ? (sb.st_dev == u.dev_ && sb.st_ino == u.ino_) : name == u.path_;
    if (same) {
      if (u.form_ != f)
        fail("cannot reopen " + quoted(name) + " on " + unitname + " as " + formname(f) +
             ": it is connected as " + formname(u.form_));
      return;  // the same file: connection and position stay as they are
    }
    close(number);
  }
  if (exists) {
    for (auto& other : table().units)
      if (other && other.get() != &u && other->fd_ >= 0 && other->dev_ == sb.st_dev &&
          other->ino_ == sb.st_ino)
        fail("cannot open " + quoted(name) + " on " + unitname + ": the file is already connected to unit " +
             std::to_string(other->number_));
  }
  u.connect(name, f, st == "unknown");
}

void close(int number) {
  if (number < 0 || number > largestunit) return;
  auto& units = table().units;
  if (static_cast<std::size_t>(number) >= units.size() || !units[static_cast<std::size_t>(number)]) return;
  unit& u = *units[static_cast<std::size_t>(number)];
  if (u.tostdout_) {
    u.flushwrites();
    return;
  }
  if (u.fd_ < 0) return;
  u.disconnect();
}

void rewind(int number) {
  unit& u = getunit(number);
  if (u.fd_ < 0) return;
  if (u.mode_ == unit::mode::writing) u.flushwrites();
  if (calls.lseek(u.fd_, 0, SEEK_SET) < 0) u.oserror("rewind", errno);
  u.bufstart_ = 0;
  u.rpos_ = u.rend_ = u.wlen_ = 0;
  u.mode_ = unit::mode::idle;
  u.truncated_ = false;
  u.records = u.lines = 0;
}

void flush(int number) {
  unit& u = getunit(number);
  if (u.mode_ == unit::mode::writing) u.flushwrites();
}

void closeall() {
  for (auto& u : table().units)
    if (u && u->connected()) close(u->number());
}

bool isconnected(int number) {
  if (number < 0 || number > largestunit) return false;
  auto& units = table().units;
  return static_cast<std::size_t>(number) < units.size() && units[static_cast<std::size_t>(number)] &&
         units[static_cast<std::size_t>(number)]->connected();
}

namespace detail {

void setreaderror(unit& u, rstat st, std::int64_t offset, const std::string& reason) {
  std::string m;
  if (u.connected())
    m = quoted(u.file()) + " (" + formname(u.connectedform()) +
        (u.number() < 0 ? std::string(")") : ", unit " + std::to_string(u.number()) + ")");
  else
    m = "unit " + std::to_string(u.number()) + " (not connected to a file)";
  if (u.connectedform() == form::formatted)
    m += ", line " + std::to_string(u.lines + 1);
  else if (u.records > 0)
    m += ", record " + std::to_string(u.records);
  if (u.context.a != nullptr) {
    m += " (" + std::string(u.context.a);
    if (u.context.i != 0) m += " " + std::to_string(u.context.i);
    if (u.context.b != nullptr) m += " " + std::string(u.context.b) + " " + std::to_string(u.context.j);
    m += ")";
  }
  if (u.connected()) m += " at byte " + std::to_string(offset);
  m += ": " + reason;
  (void)st;
  const bool text = u.connectedform() == form::formatted;
  u.lastread = {text ? u.lines + 1 : u.records, offset, reason, std::move(m)};
  if (u.number() >= 0) lasterror = u.lastread.message;
}

}  // namespace detail

}  // namespace mod_zelmgrid::io
