// The meaning of codes and trace texts, their causes and the actions to take: one table for `qxctl explain`, `qxctl
// doctor` and docs/troubleshooting.md.
#pragma once

#include <span>
#include <string_view>
#include <vector>

namespace qx::ctl {

enum class ExplainedKind {
  kResult,       // the result of a request function
  kErrorNumber,  // "LastError" of a reply, or a system error number in a trace line
  kExitCode,     // of qxctl
  kFinding,      // of qxctl doctor
  kView,         // of qxview
  kMessage,      // "Msg" of a reply, with its conversions (%s)
  kTrace,        // a text of a trace line or of the system log, with its conversions (%s)
};

struct Explanation {
  ExplainedKind kind;
  std::string_view code;
  std::string_view meaning;
  std::string_view cause;
  std::string_view action;
};

// "result code", "error number", "exit code", "doctor code", "view code", "message", "trace text"
[[nodiscard]] const char* NameOf(ExplainedKind kind);

// All explanations, by kind; those of one kind in the order of codes. [any thread]
[[nodiscard]] std::span<const Explanation> AllExplanations();

// Finds the explanations of `text`: a code, the name or the hexadecimal form of an error number, a whole line that
// contains a trace text or a message with any values, or a part of such a text. Empty if it is not known. If a line
// contains several texts, a trace text is preferred to a message, and a text with a longer fixed part to a shorter one.
//   "12"                                         => the result code 12 and the error number 12
//   "ENOENT"                                     => the error number 2
//   "0x521"                                      => the error number 1313
//   "... ## ERROR! Could not read data file ..." => that trace text
[[nodiscard]] std::vector<const Explanation*> Explain(std::string_view text);

// The explanation of `code`, which must be a code of qxctl doctor. [any thread]
[[nodiscard]] const Explanation& ExplainFinding(std::string_view code);

}  // namespace qx::ctl
