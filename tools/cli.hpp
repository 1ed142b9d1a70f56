// The zelm command line: exit statuses, failures, and the options as users of Unix tools expect
// them (global options anywhere, "--" to end options, a missing value named as missing).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zelmtool {

// Exit statuses of the command (the table in zelm --help and the README).
namespace status {
constexpr int done = 0;
constexpr int badfile = 1;      // a file is not what was asked: not of the family, damaged, does not fit
constexpr int environment = 2;  // usage, or what is around the files: missing, unwritable, refused
}  // namespace status

extern const char* const statustable;  // the table as the help prints it

// A failure that ends the command: the message (one line) and the exit status.
struct failure {
  std::string message;
  int status = status::badfile;
};
[[noreturn]] void die(const std::string& message, int status);

// Options taken by every verb, before or after it.
struct globaloptions {
  bool quiet = false;    // -q, --quiet: no progress line and no notes (warnings and errors stay)
  bool verbose = false;  // -v, --verbose: the library's own progress lines, on standard error
  bool help = false;     // -h, --help
  bool version = false;  // --version
};

// The options of one verb.
struct verbspec {
  std::string name;
  std::vector<std::string> valued;  // options that take a value: "--grid GRID", "--grid=GRID", "-oOUT"
  std::vector<std::string> flags;
};

struct commandline {
  globaloptions global;
  std::string verb;  // empty when none was given
  std::vector<std::string> positional;
  std::map<std::string, std::string> options;
  bool has(const std::string& k) const { return options.count(k) != 0; }
  std::string get(const std::string& k) const {
    auto it = options.find(k);
    return it == options.end() ? "" : it->second;
  }
};

// The verb is the first word that is not a global option. Throws failure (status 2) for an unknown
// verb or option, or an option without its value.
commandline parse(int argc, const char* const* argv, const std::vector<verbspec>& verbs);

}  // namespace zelmtool
