// The files a command writes: never half-written, never anyone else's.
//
// Each output is written to a new file next to its destination (same folder, random name, created
// exclusively, not through a link) and renamed over the destination once every output of the
// command is complete and synced. A set of several files (a multi-zone export) replaces all of
// them or none. Only regular files are ever replaced: a folder, device, FIFO, socket or symbolic
// link at a destination is refused, with or without --force. A symbolic link is refused rather
// than followed or replaced: following it writes to a file the user did not name (in a folder the
// command did not check), and replacing it silently turns the link into a plain file, so either
// choice surprises someone; refusing names the link and lets the user say which one was meant.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zelmtool {

class outputset {
 public:
  // What to do with a destination that already exists as a regular file.
  enum class existing {
    refuse,      // without --force
    replace,     // with --force
    keepifsame,  // refuse unless it already holds the same bytes (then it is left alone)
  };
  explicit outputset(existing policy);
  ~outputset();  // an uncommitted set removes its temporaries
  outputset(const outputset&) = delete;
  outputset& operator=(const outputset&) = delete;

  // Checks the destination and creates its temporary; returns the name to write it under (it
  // names the temporary's own descriptor where the system allows, so that nothing can put another
  // file in its place while it is written).
  std::string add(const std::string& destination);

  // Syncs every temporary, then renames them over their destinations: all, or none with the old
  // files back in place. Throws the tool's failure (status 2) when the set cannot be committed.
  void commit();

  // Destinations of a keepifsame set that already held these bytes and were left alone.
  std::vector<std::string> unchanged() const;

  // The message of a writer's failure, with the temporary's names replaced by the destination's.
  std::string explain(const std::string& message) const;

 private:
  struct file {
    std::string destination, temporary, writename;
    int fd = -1;
    dev_t dev = 0;
    ino_t ino = 0;
    bool existed = false, same = false, renamed = false;
    std::string backup;  // a second name of the replaced file until the set is committed
  };
  void check(file& f, bool again);
  void rollback();
  void discard();
  existing policy_;
  std::vector<file> files_;
  bool committed_ = false;
};

// The rename that commits each file of a set (`replace`: an existing destination may be replaced);
// tests put another in its place to make one fail.
using renamecall = int (*)(const char* from, const char* to, bool replace);
renamecall& committingrename();

// SIGINT and SIGTERM remove every temporary before the process ends as the signal says; a write
// past the file size limit (ulimit -f) fails with an error instead of ending the process, so the
// command removes its temporaries and says why. Signals ignored when the tool started stay
// ignored.
void installsignalhandlers();

}  // namespace zelmtool
