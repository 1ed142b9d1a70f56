#include "harness.hpp"

#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

extern char** environ;

namespace zelmbench {

[[noreturn]] void die(const std::string& m) {
  std::fprintf(stderr, "zelmbench: %s\n", m.c_str());
  std::exit(2);
}

double wallnow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
std::int64_t faultsnow() {
  rusage r{};
  getrusage(RUSAGE_SELF, &r);
  return r.ru_minflt + r.ru_majflt;
}
double cpunow() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

std::int64_t statuskb(const char* key) {
  std::ifstream s("/proc/self/status");
  std::string line;
  const std::size_t n = std::strlen(key);
  while (std::getline(s, line))
    if (line.compare(0, n, key) == 0) return std::stoll(line.substr(n));
  return -1;
}

// Free heap pages inherited from the parent are returned to the system first: an allocation that
// reused them would not raise the resident size, and the routine's memory would go uncounted.
std::int64_t resetpeak() {
  ::malloc_trim(0);
  const int fd = ::open("/proc/self/clear_refs", O_WRONLY);
  if (fd >= 0) {
    if (::write(fd, "5", 1) != 1) std::perror("clear_refs");
    ::close(fd);
  }
  return statuskb("VmRSS:");
}

bool noforks = false;

sample inchild(const std::function<sample()>& f) {
  if (noforks) return f();
  int fds[2];
  if (::pipe(fds) != 0) die("pipe failed");
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) die("fork failed");
  if (pid == 0) {
    ::close(fds[0]);
    // Large blocks come from fresh mappings, as in a new process, not from heap pages shared with
    // the parent (whose first writes would be copy-on-write faults that no host program pays).
    ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    ::mallopt(M_TRIM_THRESHOLD, 128 * 1024);
    sample s = f();
    if (::write(fds[1], &s, sizeof s) != static_cast<ssize_t>(sizeof s)) ::_exit(3);
    std::fflush(nullptr);
    ::_exit(0);
  }
  ::close(fds[1]);
  sample s;
  const ssize_t n = ::read(fds[0], &s, sizeof s);
  ::close(fds[0]);
  int st = 0;
  ::waitpid(pid, &st, 0);
  if (n != static_cast<ssize_t>(sizeof s) || !WIFEXITED(st) || WEXITSTATUS(st) != 0) s = sample{};
  return s;
}

std::string runprogram(const std::vector<std::string>& args, int& status) {
  int fds[2];
  if (::pipe(fds) != 0) die("pipe failed");
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
  posix_spawn_file_actions_addclose(&fa, fds[0]);
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  // A program built with the sanitizers must not fail on what its runtime library keeps at exit.
  std::vector<std::string> envs;
  for (char** e = environ; *e != nullptr; ++e)
    if (std::strncmp(*e, "ASAN_OPTIONS=", 13) != 0) envs.emplace_back(*e);
  envs.emplace_back("ASAN_OPTIONS=detect_leaks=0");
  std::vector<char*> envp;
  for (auto& e : envs) envp.push_back(e.data());
  envp.push_back(nullptr);
  pid_t pid = 0;
  std::fflush(nullptr);
  const int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  ::close(fds[1]);
  std::string out;
  if (rc == 0) {
    char buf[65536];
    for (;;) {
      const ssize_t n = ::read(fds[0], buf, sizeof buf);
      if (n <= 0) break;
      out.append(buf, static_cast<std::size_t>(n));
    }
  }
  ::close(fds[0]);
  status = -1;
  if (rc == 0) {
    int st = 0;
    ::waitpid(pid, &st, 0);
    status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  }
  return out;
}

timemark tmark;
void mark() {
  tmark.wall = wallnow();
  tmark.cpu = cpunow();
  tmark.faults = faultsnow();
  tmark.peakkb = statuskb("VmHWM:");
  tmark.set = true;
}

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

std::int64_t filesize(const std::string& p) {
  struct stat sb {};
  return ::stat(p.c_str(), &sb) == 0 ? static_cast<std::int64_t>(sb.st_size) : 0;
}

std::string slurp(const std::string& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(f)), {});
}

void warmfile(const std::string& p) {
  static char buf[1 << 20];
  const int fd = ::open(p.c_str(), O_RDONLY);
  if (fd < 0) return;
  while (::read(fd, buf, sizeof buf) > 0) {
  }
  ::close(fd);
}

}  // namespace zelmbench
