// The exceptions of the library. Every one derives from zelm::error, so that a host catches one
// type; the two kinds below carry what a program needs to act on the failure, besides the message.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace zelm {

// Anything the library cannot do with a file: a read that fails, counts a file cannot hold, a
// file that is not a regular file, arguments that do not fit each other.
struct error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A read that failed at a known place. what() is the whole one-line message; the fields are its
// parts: the file as named, its encoding ("unformatted", "formatted", "binary"), the record (or,
// for text, the line) counted from 1, the byte offset where that statement began, and the cause.
struct readerror : error {
  readerror(const std::string& message, std::string file_, std::string encoding_, std::int64_t record_,
            std::int64_t offset_, std::string cause_)
      : error(message),
        file(std::move(file_)),
        encoding(std::move(encoding_)),
        record(record_),
        offset(offset_),
        cause(std::move(cause_)) {}
  std::string file, encoding;
  std::int64_t record = 0;
  std::int64_t offset = 0;
  std::string cause;
};

// A file that cannot be opened, written or closed. operation is the verb ("open", "write",
// "close", ...) and err the operating system's errno (0 when the library itself refused).
struct ioerror : error {
  explicit ioerror(const std::string& message, std::string file_ = {}, std::string operation_ = {},
                   int err_ = 0)
      : error(message), file(std::move(file_)), operation(std::move(operation_)), err(err_) {}
  std::string file, operation;
  int err = 0;
};

}  // namespace zelm
