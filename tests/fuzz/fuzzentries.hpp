// Entry points of the fuzz targets: each takes one input (leading bytes that choose the encoding,
// precision, flags and caller-side counts, then the bytes of the file) and runs one reading routine
// of the module over it. The fuzz targets, the seed generator and the regression suite all go
// through these functions, so a saved input replays exactly as it was found.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zelmfuzz {

// Leading bytes of every input; the file's bytes follow them.
inline constexpr std::size_t headerbytes = 16;

// An input's leading bytes, as the targets decode them.
struct params {
  std::uint8_t code = 0;        // byte 0: file-type code (0, 1, 2; 3 stands for an invalid code, 7)
  std::uint8_t flags = 0;       // byte 1: bit 0 dblprec, bit 1 readconn / readallvars, bit 2 caller's
                                //         count array one shorter than nzones, bit 3 count array
                                //         allocated by the caller before the read
  std::uint8_t nzones = 0;      // byte 2: nzones = byte % 8 - 1 (-1 .. 6)
  std::uint8_t nvar = 0;        // byte 3: numrstrtvar or the number of next-variable calls (countof)
  std::uint8_t counts[8] = {};  // bytes 4..11: per-zone counts (countof)
  std::uint8_t extra[4] = {};   // bytes 12..15: target-specific
};

// A count byte: 0 .. 239 stand for themselves; the rest pick values that a caller or a file may
// hold by mistake.
int countof(std::uint8_t b);
std::uint8_t bytefor(int count);  // inverse of countof for the values it can give

// Builds an input from its parameters and the file's bytes.
std::string makeinput(const params& p, const std::string& file);

struct entry {
  const char* name;
  int (*run)(const std::uint8_t* data, std::size_t size);
};
// Every target: gridheader, grid, restart, pix, listdirected.
const std::vector<entry>& entries();
const entry* findentry(const std::string& name);

// Where the inputs are written: an anonymous file in memory, named by its descriptor in /proc
// (short enough for a 40-character name; nothing is left on disk when a run ends, even by a crash).
const std::string& inputpath();
int inputfd();

// Checks made after every routine call; a broken one aborts, so that the fuzzer saves the input.
//   - a read failure's account names the file (or the unconnected unit), the record and the byte
//     offset, and says what was wrong;
//   - nothing ended the run (a reader never does).
void checkreport(const char* routine);

// When set, every account that checkreport sees is appended here (to tally what a corpus tried).
extern std::vector<std::string>* accounts;

}  // namespace zelmfuzz
