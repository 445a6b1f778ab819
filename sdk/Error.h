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
  kBadArgument = 1,  // an empty path, a ring without slots, a cursor that is not one, a record that is not there
  kBadText = 2,      // a line feed, a NUL or a byte 0xFF, at which readers would end the record
  kTooLong = 3,      // a record that fits into no reply of the module
  kNotOpen = 4,      // not opened, or closed
  kOtherWriter = 5,  // another writer has the report open; the text names the process if it can be found
  kNotFound = 6,     // there is no such report
  kDamaged = 7,      // the files contradict each other; "qxctl report verify" shows how
  kFull = 8,         // the data file has reached 4 GiB, which is as far as the format reaches
  kSystem = 9,       // a system call failed: `system_error` is its error number
  kNoMemory = 10,
};

// Threads: as any value. Owns: the text.
struct [[nodiscard]] Error {
  ErrorCode code = ErrorCode::kNone;
  int system_error = 0;    // the error number of the system, where there is one
  std::size_t record = 0;  // the text of a batch that the error is about, counted from 0
  std::string text = {};   // for people: what failed and why, without a line end

  [[nodiscard]] bool Failed() const { return code != ErrorCode::kNone; }
};

}  // namespace qx
