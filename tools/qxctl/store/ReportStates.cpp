#include "tools/qxctl/store/ReportStates.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "base/tools/FileText.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

using report::ReportStatus;
using report::StoreState;

// The name of a process in parentheses, after a space; empty if the process has ended.
std::string NameOf(int process) {
  const std::string text = file::TextOf("/proc/" + std::to_string(process) + "/comm");
  if (text.empty()) return "";
  return " (" + Visible(text.substr(0, text.find('\n'))) + ")";
}

}  // namespace

const char* NameOfState(StoreState state) {
  switch (state) {
    case StoreState::kSound:
      return "sound";
    case StoreState::kDamaged:
      return "damaged";
    case StoreState::kChanged:
      return "changed";
    case StoreState::kNotFound:
      return "not found";
    case StoreState::kUnreadable:
      return "unreadable";
  }
  return "";
}

const char* StateOf(const ReportStatus& status) {
  return status.IsEmpty() ? "empty" : NameOfState(status.verdict.state);
}

bool NeedsAttention(const ReportStatus& status) { return status.verdict.state != StoreState::kSound; }

std::string WritersOf(const ReportStatus& status) {
  if (!status.is_written) return "";
  std::string text = status.processes.size() > 1 ? "being written by processes" : "being written by process";
  const char* separator = " ";
  for (const int process : status.processes) {
    text += separator + std::to_string(process) + NameOf(process);
    separator = ", ";
  }
  return text;
}

std::string TroubleOf(const ReportStatus& status) {
  switch (status.verdict.state) {
    case StoreState::kSound:
      return "";
    case StoreState::kDamaged: {
      if (status.verdict.scan.findings.empty()) return "";
      const report::Finding& first = status.verdict.scan.findings.front();
      return std::string(first.rule) + ": " + first.explanation;
    }
    case StoreState::kChanged:
      return "it changed each time it was read";
    case StoreState::kNotFound:
      return "it was removed";
    case StoreState::kUnreadable:
      return Visible(status.verdict.file) + ": " + std::strerror(status.verdict.error);
  }
  return "";
}

std::optional<std::int64_t> AgeOf(const ReportStatus& status) {
  if (!status.newest) return std::nullopt;
  return std::max<std::int64_t>(std::time(nullptr) - status.newest->tv_sec, 0);
}

}  // namespace qx::ctl
