// Writes the seed corpus of one fuzz target, or tallies what a corpus tries:
//   makeseeds TARGET DIR             the seeds, written by the library's writers, into DIR
//   makeseeds --tally TARGET DIR...  every input of the DIRs run through TARGET, counted by
//                                    encoding and by the cause of the read failure it met
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fuzzentries.hpp"
#include "seeds.hpp"

namespace fs = std::filesystem;

namespace {

// The cause of a failed read, from the end of its account.
std::string causeof(const std::string& d) {
  static const std::pair<const char*, const char*> kinds[] = {
      {"length markers disagree", "length markers disagree"},
      {"invalid record length marker", "invalid length marker"},
      {"holds fewer data than the statement reads", "record shorter than its items"},
      {"ends inside a record", "file ends inside a record"},
      {"ends before the", "file ends inside a record"},
      {"end of file", "end of file"},
      {"cannot read \"", "value that does not parse"},
      {"invalid repeat count", "value that does not parse"},
      {"longer than 4096", "value that does not parse"},
      {"exceeds the", "count larger than its array"},
      {"do not fit", "counts that do not fit the arrays"},
      {"could not be allocated", "counts that do not fit the arrays"},
      {"do not cover", "counts that do not fit the arrays"},
      {"node counts for", "caller's count array too short"},
      {"fewer than nzones", "caller's count array too short"},
      {"connected", "wrong or no connection"},
  };
  for (const auto& [needle, name] : kinds)
    if (d.find(needle) != std::string::npos) return name;
  return "other";
}

int tally(const std::string& target, const std::vector<std::string>& dirs) {
  const zelmfuzz::entry* e = zelmfuzz::findentry(target);
  std::map<std::string, std::map<std::string, long>> byencoding;  // encoding -> cause -> inputs
  long inputs = 0;
  std::vector<std::string> seen;
  zelmfuzz::accounts = &seen;
  for (const auto& dir : dirs) {
    for (const auto& f : fs::directory_iterator(dir)) {
      if (!f.is_regular_file()) continue;
      std::ifstream in(f.path(), std::ios::binary);
      std::ostringstream ss;
      ss << in.rdbuf();
      const std::string input = ss.str();
      seen.clear();
      e->run(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
      const int code = input.empty() ? 0 : static_cast<unsigned char>(input[0]) % 4;
      const bool wide = input.size() > 1 && (input[1] & 1);
      std::string enc = code == 0   ? "unformatted"
                        : code == 1 ? "formatted"
                        : code == 2 ? "binary"
                                    : "invalid code";
      if (target == "listdirected")
        enc = "formatted";
      else if ((code == 0 || code == 2) && target != "gridheader")
        enc += wide ? ", 8-byte" : ", 4-byte";
      ++inputs;
      if (seen.empty()) {
        ++byencoding[enc]["read to the end"];
      } else {
        ++byencoding[enc][causeof(seen.front())];
      }
    }
  }
  std::printf("%s: %ld inputs\n", target.c_str(), inputs);
  for (const auto& [enc, causes] : byencoding) {
    std::printf("  %s\n", enc.c_str());
    for (const auto& [cause, n] : causes) std::printf("    %-36s %ld\n", cause.c_str(), n);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 4 && std::string(argv[1]) == "--tally" && zelmfuzz::findentry(argv[2]) != nullptr)
    return tally(argv[2], std::vector<std::string>(argv + 3, argv + argc));
  if (argc != 3 || zelmfuzz::findentry(argv[1]) == nullptr) {
    std::fprintf(stderr,
                 "usage: makeseeds gridheader|grid|restart|pix|listdirected DIR\n"
                 "       makeseeds --tally TARGET DIR...\n");
    return 2;
  }
  fs::create_directories(argv[2]);
  int n = 0;
  for (const auto& [name, input] : zelmfuzz::seeds(argv[1])) {
    std::ofstream out(fs::path(argv[2]) / name, std::ios::binary | std::ios::trunc);
    out.write(input.data(), static_cast<std::streamsize>(input.size()));
    ++n;
  }
  std::printf("%d seeds for %s in %s\n", n, argv[1], argv[2]);
  return 0;
}
