// The result of a command of qxctl: its exit code, and a sentence for the operator or an empty text.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

namespace qx::ctl {

// The exit code of the process. Scripts rely on the numbers; docs/qxctl.md lists them.
enum class ExitCode : int {
  kOk = 0,
  kFinding = 1,   // done, and something needs attention
  kUsage = 2,     // the command line is wrong; nothing was done
  kChanged = 3,   // a file changed while it was read or edited
  kNotFound = 4,  // no such report, store, module or input file
  kRefused = 5,   // refused by the module, the store or qxctl itself
  kIo = 6,        // a read, write, load or close failed
};

class [[nodiscard]] Status {
 public:
  Status() = default;
  Status(ExitCode code, std::string message) : code_(code), message_(std::move(message)) {}

  // "WHAT: the text of ERROR"
  static Status Io(const std::string& what, int error) {
    return {ExitCode::kIo, what + ": " + std::strerror(error)};  // only one thread, so strerror's buffer is safe
  }

  bool IsOk() const { return code_ == ExitCode::kOk; }
  ExitCode Code() const { return code_; }
  const std::string& Message() const { return message_; }

 private:
  ExitCode code_ = ExitCode::kOk;
  std::string message_;
};

}  // namespace qx::ctl
