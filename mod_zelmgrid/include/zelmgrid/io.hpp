// Connections to files for the routines: numbered units that stay connected between calls, the
// handler of run-ending failures, and the settings of the encodings.
//
//   "unformatted"  records framed by 4-byte lengths, split into sub-records past the largest
//                  sub-record length, as a Fortran runtime writes sequential unformatted files;
//   "binary"       the same items back to back, unframed;
//   "formatted"    list-directed text, plus whole lines written as given (format-directed).
//
// The statements that read and write records are internal to the library (src/records.hpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "zelmgrid/error.hpp"

namespace mod_zelmgrid::io {

// ---- run-ending failures and program stop ---------------------------------------------------

// Called with a one-sentence message when an open, write or close fails (or a statement is used
// on a unit that cannot take it). The default prints the message on standard error and ends the
// run with exit status 2. A host's handler must not return normally: it may end the run itself or
// throw; if it returns, the run is aborted.
using failurehandler = void (*)(const std::string& message);
failurehandler setfailurehandler(failurehandler h);  // returns the handler it replaces
[[noreturn]] void fail(const std::string& message);

// What the typed interface throws where a numbered unit would end the run.
using ioerror = zelm::ioerror;

// Called when a routine stops the program (after printing its message). The default flushes and
// closes every unit and exits with status 0, as a plain STOP does.
using stophandler = void (*)();
stophandler setstophandler(stophandler h);
[[noreturn]] void stop();

// ---- operating-system seam ------------------------------------------------------------------

// Every system call of the layer goes through this table, so that tests can make them fail.
struct sysapi {
  int (*open)(const char* path, int flags, int mode);
  long (*read)(int fd, void* buf, std::size_t n);
  long (*write)(int fd, const void* buf, std::size_t n);
  long (*pwrite)(int fd, const void* buf, std::size_t n, std::int64_t offset);
  std::int64_t (*lseek)(int fd, std::int64_t offset, int whence);
  int (*ftruncate)(int fd, std::int64_t length);
  int (*close)(int fd);
};
sysapi& sys();            // the table in use
const sysapi& realsys();  // the operating system's own calls

// ---- settings -------------------------------------------------------------------------------

// Largest data length of one sub-record of a framed record (the Fortran runtime's default is
// 2147483639). Smaller values let tests exercise sub-records with small files.
void setmaxsubrecord(std::int32_t bytes);
std::int32_t maxsubrecord();

// Where list-directed output to standard output (unit 6) goes; nullptr discards it.
void setstdout(std::FILE* f);

// Connects a unit to a file. form is "formatted", "unformatted" or "binary" (trailing blanks and
// case ignored); status "old" requires the file to exist, "unknown" creates it when missing. A unit
// already connected to the same file keeps its connection and position; one connected to another
// file is closed first. A file already connected to another unit cannot be opened again.
void open(int unit, std::string_view file, std::string_view formword, std::string_view status);
void close(int unit);   // harmless when the unit is not connected
void rewind(int unit);  // back to the start of the file
void flush(int unit);   // hand buffered writes to the operating system
void closeall();        // closes every unit (also done when the program ends)
bool isconnected(int unit);

// Text of the last read failure: file, encoding, record, byte offset and cause.
const std::string& lastreaderror();

}  // namespace mod_zelmgrid::io
