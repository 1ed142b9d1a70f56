// The harness of zelmbench: clocks, peak resident memory, child processes, and the programs the
// baselines run in.
//
// Each measurement runs in a child process forked for it, so that every routine allocates its
// arrays in fresh memory as a host program would, and its peak resident memory can be taken on
// its own: the child resets the high-water mark (/proc/self/clear_refs), notes the resident size,
// makes the call(s), and reads VmHWM.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "zelmgrid/farray.hpp"

namespace zelmbench {

[[noreturn]] void die(const std::string& m);

double wallnow();
double cpunow();
std::int64_t faultsnow();
std::int64_t statuskb(const char* key);  // a "kB" line of /proc/self/status, e.g. "VmHWM:"

// Starts a new high-water mark of the resident size at the present size; returns that size.
std::int64_t resetpeak();

// What one child reports.
struct sample {
  double wall = 0, cpu = 0;  // per call
  std::int64_t basekb = 0, peakkb = 0;
  std::int64_t faults = 0;  // minor page faults per call
  std::int64_t checksum = 0;
  int ok = 0;
};

extern bool noforks;  // --in-process

// Runs f in a forked child and returns what it reports; a child that fails or dies reports ok = 0.
sample inchild(const std::function<sample()>& f);

// Runs a program with the arguments given and returns its standard output (and its exit status).
std::string runprogram(const std::vector<std::string>& args, int& status);

// The end of the timed part of a call that goes on to compute the checksum of what it read.
struct timemark {
  double wall = 0, cpu = 0;
  std::int64_t peakkb = 0, faults = 0;
  bool set = false;
};
extern timemark tmark;
void mark();

// Reads every page of an array, so that a child's first access to the arrays it shares with its
// parent (several microseconds a page on this kind of machine) is not timed as the routine's.
template <class T, int R>
void prefault(const fortran::farray<T, R>& a) {
  using fortran::index_t;
  volatile T sink{};
  const index_t step = std::max<index_t>(1, 512 / static_cast<index_t>(sizeof(T)));
  for (index_t i = 0; i < a.size(); i += step) sink = a.data()[i];
  (void)sink;
}

double median(std::vector<double> v);

std::int64_t filesize(const std::string& p);
std::string slurp(const std::string& p);
// Reads a file through, so that a reader's measurement starts with the file in the page cache (a
// machine's proactive reclaim may have dropped it since it was written).
void warmfile(const std::string& p);

}  // namespace zelmbench
