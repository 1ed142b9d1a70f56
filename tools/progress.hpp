// One progress line on a terminal's standard error while a file is read or written: the file,
// the share done (when its size is known) and the rate, redrawn in place and erased at the end.
// The bytes are counted where the encoding layer makes its system calls, so every reader and
// writer of the library is followed without their knowing.
#pragma once

#include <cstdint>
#include <string>

namespace zelmtool {

class progress {
 public:
  // Whether lines are drawn at all (standard error is a terminal, and neither -q nor -v).
  static void enable(bool on);

  // `total` is the number of bytes the work will move, or -1 when it is not known.
  progress(std::string label, std::int64_t total);
  ~progress();  // erases the line
  progress(const progress&) = delete;
  progress& operator=(const progress&) = delete;
};

// The size of a file, or -1.
std::int64_t filesize(const std::string& path);

}  // namespace zelmtool
