// The result of calls of the classes in sdk/: success, or the reason for a failure.
//
//   if (const qx::Error error = report.Append(text); error.Failed()) std::fputs(error.text.c_str(), stderr);
#pragma once

#if __cplusplus < 202002L
#error "QXRemConXfer needs C++20: compile with -std=c++20, or use the C interface sdk/qxreport.h."
#endif

#include <cstddef>
#include <string>

namespace qx {

// The numbers are those of sdk/qxreport.h, and do not change.
enum class ErrorCode : int {
  kNone = 0,
  kBadArgument = 1,  // such as an empty path, a ring without slots, an invalid cursor, a record that does not exist
  kBadText = 2,      // a line feed, a NUL or a byte 0xFF, at which readers would end the record
  kTooLong = 3,      // a record that fits into no reply of the module
  kNotOpen = 4,      // not opened, or closed
  kOtherWriter = 5,  // another writer has the report open; the text names the process if it can be found
  kNotFound = 6,     // there is no such report
  kDamaged = 7,      // the files are damaged, or one is missing; "qxctl report verify" shows more
  kFull = 8,         // the data file has reached 4 GiB, the limit of the format
  kSystem = 9,       // a system call failed: `system_error` is its error number
  kNoMemory = 10,
};

// The result of a call. Owns: the text.
struct [[nodiscard]] Error {
  ErrorCode code = ErrorCode::kNone;
  int system_error = 0;    // the error number of the system, if there is one
  std::size_t record = 0;  // the index, in a batch, of the text that the error is about
  std::string text = {};   // for people: what failed and why, without a line end

  [[nodiscard]] bool Failed() const { return code != ErrorCode::kNone; }
};

}  // namespace qx
