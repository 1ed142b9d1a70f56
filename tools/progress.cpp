#include "progress.hpp"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "zelmgrid/io.hpp"

namespace zelmtool {

namespace {

namespace io = mod_zelmgrid::io;
using clock = std::chrono::steady_clock;

bool enabled = false;

// The line being followed (one at a time).
struct line {
  bool active = false;
  std::string label;
  std::int64_t total = -1, moved = 0;
  clock::time_point start, drawn;
  bool shown = false;
} current;

void draw() {
  const auto now = clock::now();
  // Nothing for work that ends quickly; then at most ten redraws a second.
  if (now - current.start < std::chrono::milliseconds(300) ||
      now - current.drawn < std::chrono::milliseconds(100))
    return;
  current.drawn = now;
  const double seconds = std::chrono::duration<double>(now - current.start).count();
  const double mb = static_cast<double>(current.moved) / 1e6;
  char tail[96];
  if (current.total > 0)
    std::snprintf(tail, sizeof tail, " %3.0f%%  %.1f MB/s",
                  100.0 * static_cast<double>(current.moved) / static_cast<double>(current.total),
                  mb / seconds);
  else
    std::snprintf(tail, sizeof tail, " %.1f MB  %.1f MB/s", mb, mb / seconds);
  struct winsize ws {};
  const std::size_t width = ::ioctl(2, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 20 ? ws.ws_col : 80;
  std::string text = current.label;
  const std::size_t room = width - 1 - std::string(tail).size();
  if (text.size() > room) text = "..." + text.substr(text.size() - (room - 3));
  std::fprintf(stderr, "\r%s%s\033[K", text.c_str(), tail);
  std::fflush(stderr);
  current.shown = true;
}

long countedread(int fd, void* buf, std::size_t n) {
  const long got = io::realsys().read(fd, buf, n);
  if (got > 0 && current.active) {
    current.moved += got;
    draw();
  }
  return got;
}

long countedwrite(int fd, const void* buf, std::size_t n) {
  const long put = io::realsys().write(fd, buf, n);
  if (put > 0 && current.active) {
    current.moved += put;
    draw();
  }
  return put;
}

}  // namespace

void progress::enable(bool on) {
  enabled = on;
  if (!on) return;
  io::sys().read = countedread;
  io::sys().write = countedwrite;
}

progress::progress(std::string label, std::int64_t total) {
  if (!enabled) return;
  current = line{true, std::move(label), total, 0, clock::now(), {}, false};
}

progress::~progress() {
  if (current.shown) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
  current = line{};
}

std::int64_t filesize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<std::int64_t>(st.st_size) : -1;
}

}  // namespace zelmtool
