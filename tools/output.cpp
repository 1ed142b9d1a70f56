#include "output.hpp"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "cli.hpp"

namespace zelmtool {

namespace {

// ---- names the signal handler removes -------------------------------------------------------

// Each slot holds a heap copy of a temporary's name, or null. The handler only loads the slots and
// calls unlink, both safe in a signal handler; a name is taken out of its slot before it is freed.
constexpr int maxtemporaries = 4096;
std::atomic<char*> temporaries[maxtemporaries];

void forget(const std::string& name) {
  for (auto& slot : temporaries) {
    char* p = slot.load();
    if (p != nullptr && name == p && slot.compare_exchange_strong(p, nullptr)) {
      std::free(p);
      return;
    }
  }
}

void remember(const std::string& name) {
  char* copy = ::strdup(name.c_str());
  for (auto& slot : temporaries) {
    char* expected = nullptr;
    if (copy != nullptr && slot.compare_exchange_strong(expected, copy)) return;
  }
  std::free(copy);
  die("too many output files at once", status::environment);
}

void removetemporaries() {
  for (auto& slot : temporaries)
    if (const char* p = slot.load()) ::unlink(p);
}

void onsignal(int sig) {
  const int saved = errno;
  removetemporaries();
  // The handler was installed with SA_RESETHAND: the signal, raised again, does what it does by
  // default once this handler returns.
  ::raise(sig);
  errno = saved;
}

void onfilesizelimit(int) {}  // the write fails with EFBIG instead; the command reports it

// Blocks SIGINT and SIGTERM while renames are under way, so that a set is never left half
// replaced by an interrupt.
class signalsblocked {
 public:
  signalsblocked() {
    sigset_t s;
    sigemptyset(&s);
    sigaddset(&s, SIGINT);
    sigaddset(&s, SIGTERM);
    sigprocmask(SIG_BLOCK, &s, &old_);
  }
  ~signalsblocked() { sigprocmask(SIG_SETMASK, &old_, nullptr); }
  signalsblocked(const signalsblocked&) = delete;
  signalsblocked& operator=(const signalsblocked&) = delete;

 private:
  sigset_t old_;
};

// ---- names -----------------------------------------------------------------------------------

std::string quoted(const std::string& s) {
  return "\"" + s + "\"";
}

std::string folderof(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string leafof(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A name next to `path` that no one can guess: ".LEAF.zelm-" and twelve random letters.
std::string randomsibling(const std::string& path, const char* tag) {
  static const char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char r[12];
  if (::getrandom(r, sizeof r, 0) != static_cast<ssize_t>(sizeof r))
    die("no random numbers for a temporary name: " + std::string(std::strerror(errno)), status::environment);
  std::string s = leafof(path).substr(0, 200);  // room for the rest within a file name's 255 bytes
  s = "." + s + "." + tag + "-";
  for (unsigned char c : r) s += letters[c % (sizeof letters - 1)];
  const std::string folder = folderof(path);
  return path.find('/') == std::string::npos ? s : (folder == "/" ? "/" : folder + "/") + s;
}

mode_t filecreationmask() {
  static const mode_t mask = [] {
    const mode_t m = ::umask(022);
    ::umask(m);
    return m;
  }();
  return mask;
}

bool samebytes(int fd, const std::string& path) {
  const int other = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (other < 0) return false;
  struct stat a {
  }, b{};
  bool same = ::fstat(fd, &a) == 0 && ::fstat(other, &b) == 0 && a.st_size == b.st_size;
  char x[65536], y[65536];
  for (off_t at = 0; same && at < a.st_size;) {
    const ssize_t n = ::pread(fd, x, sizeof x, at);
    same = n > 0 && ::pread(other, y, static_cast<std::size_t>(n), at) == n && std::memcmp(x, y, n) == 0;
    at += n;
  }
  ::close(other);
  return same;
}

// rename, except that an existing destination is never replaced.
int renamenoreplace(const char* from, const char* to) {
  if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return -1;
  // A file system without that flag: a second name is made only where none exists.
  if (::link(from, to) != 0) return -1;
  ::unlink(from);
  return 0;
}

int systemrename(const char* from, const char* to, bool replace) {
  return replace ? ::rename(from, to) : renamenoreplace(from, to);
}

}  // namespace

renamecall& committingrename() {
  static renamecall call = systemrename;
  return call;
}

void installsignalhandlers() {
  for (int sig : {SIGINT, SIGTERM, SIGXFSZ}) {
    struct sigaction old {};
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    struct sigaction sa {};
    sa.sa_handler = sig == SIGXFSZ ? onfilesizelimit : onsignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = sig == SIGXFSZ ? 0 : SA_RESETHAND;
    sigaction(sig, &sa, nullptr);
  }
  std::atexit(removetemporaries);  // an exit from deep inside a library call
}

// ---- the set ---------------------------------------------------------------------------------

outputset::outputset(existing policy) : policy_(policy) {}

outputset::~outputset() {
  if (!committed_) discard();
}

void outputset::discard() {
  for (auto& f : files_) {
    if (f.fd >= 0) ::close(f.fd);
    f.fd = -1;
    if (!f.renamed) ::unlink(f.temporary.c_str());
    forget(f.temporary);
  }
}

// What stands at the destination now: nothing, or a regular file that the policy lets us replace.
void outputset::check(file& f, bool again) {
  const std::string& d = f.destination;
  struct stat st {};
  if (::lstat(d.c_str(), &st) != 0) {
    if (errno != ENOENT) die("cannot write " + quoted(d) + ": " + std::strerror(errno), status::environment);
    f.existed = false;
    return;
  }
  f.existed = true;
  if (S_ISLNK(st.st_mode))
    die(quoted(d) +
            " is a symbolic link: zelm replaces only regular files (name the file it points to, "
            "or remove the link)",
        status::environment);
  if (!S_ISREG(st.st_mode))
    die(quoted(d) + " is not a regular file (" +
            (S_ISDIR(st.st_mode)                          ? "a folder"
             : S_ISFIFO(st.st_mode)                       ? "a FIFO"
             : S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) ? "a device"
                                                          : "a socket") +
            "): zelm replaces only regular files, even with --force",
        status::environment);
  if (policy_ == existing::replace) return;
  if (policy_ == existing::keepifsame && again && samebytes(f.fd, d)) {
    f.same = true;
    return;
  }
  if (policy_ == existing::refuse || again)
    die(quoted(d) + (policy_ == existing::refuse ? " exists" : " exists and differs from what zelm writes") +
            ": give --force to replace it",
        status::environment);
}

std::string outputset::add(const std::string& destination) {
  file f;
  f.destination = destination;
  check(f, false);
  f.temporary = randomsibling(destination, "zelm");
  remember(f.temporary);
  f.fd = ::open(f.temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (f.fd < 0) {
    const int err = errno;
    forget(f.temporary);
    die("cannot write " + quoted(destination) + ": cannot create a file in " + quoted(folderof(destination)) +
            ": " + std::strerror(err),
        status::environment);
  }
  struct stat st {};
  ::fstat(f.fd, &st);
  f.dev = st.st_dev;
  f.ino = st.st_ino;
  // Writers reach the temporary through its descriptor where /proc offers it: the name cannot be
  // swapped for a link while they write, and it fits the export's 40-character file names.
  const std::string byfd = "/proc/self/fd/" + std::to_string(f.fd);
  struct stat viafd {};
  f.writename = ::stat(byfd.c_str(), &viafd) == 0 && viafd.st_ino == f.ino ? byfd : f.temporary;
  files_.push_back(f);
  return files_.back().writename;
}

std::string outputset::explain(const std::string& message) const {
  std::string m = message;
  for (const auto& f : files_)
    for (const std::string& name : {f.writename, f.temporary})
      for (auto at = m.find(quoted(name)); at != std::string::npos; at = m.find(quoted(name)))
        m.replace(at, name.size() + 2, quoted(f.destination));
  return m;
}

void outputset::rollback() {
  for (auto& f : files_) {
    if (!f.renamed) continue;
    if (!f.backup.empty())
      ::rename(f.backup.c_str(), f.destination.c_str());
    else if (!f.existed)
      ::unlink(f.destination.c_str());
    f.renamed = false;
    f.temporary.clear();  // it was renamed: nothing left under that name
  }
}

void outputset::commit() {
  std::set<std::string> folders;
  for (auto& f : files_) {
    if (::fsync(f.fd) != 0)
      die("cannot write " + quoted(f.destination) + " (left as it was): " + std::strerror(errno),
          status::environment);
    struct stat st {};
    if (::lstat(f.temporary.c_str(), &st) != 0 || st.st_dev != f.dev || st.st_ino != f.ino)
      die("cannot write " + quoted(f.destination) + " (left as it was): its temporary " +
              quoted(f.temporary) + " was moved or replaced while it was written",
          status::environment);
    folders.insert(folderof(f.destination));
  }
  signalsblocked quiet;
  for (auto& f : files_) check(f, true);  // what may have appeared since the outputs were begun
  for (auto& f : files_) {
    if (f.same) continue;
    struct stat old {};
    const mode_t mode = f.existed && ::stat(f.destination.c_str(), &old) == 0 ? old.st_mode & 07777
                                                                              : 0666 & ~filecreationmask();
    ::fchmod(f.fd, mode);
  }
  // A second name for each file that will be replaced, so that a failed rename later in the set
  // can put back the ones before it.
  if (files_.size() > 1)
    for (auto& f : files_) {
      if (!f.existed || f.same) continue;
      f.backup = randomsibling(f.destination, "zelm-old");
      remember(f.backup);
      if (::link(f.destination.c_str(), f.backup.c_str()) != 0) {
        forget(f.backup);
        f.backup.clear();  // no hard links here: this one cannot be put back
      }
    }
  const auto dropbackups = [&] {
    for (auto& f : files_)
      if (!f.backup.empty()) {
        ::unlink(f.backup.c_str());
        forget(f.backup);
      }
  };
  for (auto& f : files_) {
    if (f.same) continue;
    const bool replace = f.existed && policy_ == existing::replace;
    if (committingrename()(f.temporary.c_str(), f.destination.c_str(), replace) != 0) {
      const int err = errno;
      rollback();
      dropbackups();
      die("cannot replace " + quoted(f.destination) + ": " + std::strerror(err) +
              (files_.size() > 1 ? "; every output was left as it was" : "; it was left as it was"),
          status::environment);
    }
    f.renamed = true;
    forget(f.temporary);
  }
  dropbackups();
  for (const auto& folder : folders) {  // the new names, on disk as well
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
      ::fsync(fd);
      ::close(fd);
    }
  }
  committed_ = true;
  for (auto& f : files_) {
    if (f.same) {
      ::unlink(f.temporary.c_str());
      forget(f.temporary);
    }
    ::close(f.fd);
    f.fd = -1;
  }
}

std::vector<std::string> outputset::unchanged() const {
  std::vector<std::string> v;
  for (const auto& f : files_)
    if (f.same) v.push_back(f.destination);
  return v;
}

}  // namespace zelmtool
