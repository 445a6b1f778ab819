// A damaged report reads like a sound one, only with the wrong records. Commands that read or extend a report check its
// header first.
#pragma once

#include <string>

#include "provider/ServerControlPaths.h"
#include "reportfile/tools/StoreVerify.h"
#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// The report of the report directory that the module transfers under this name. Empty for a name that no report can
// have, because it has a component "..".
//   "a/load"  => "/srv/reports/a/load"
inline std::string BasePathOfReport(const std::string& name) {
  if (("/" + name + "/").find("/../") != std::string::npos) return {};
  std::string directory;
  (void)CServerControlPaths::GetServerControlReportPath(directory);
  return directory + "/" + name;
}

// Checks header and sizes of the report at `base_path`. If both of two looks find the same contradiction, prints a
// warning that names "qxctl report verify". True if it did; a report that is missing or cannot be read is not damaged.
[[nodiscard]] inline bool WarnOfDamage(Output& output, const std::string& base_path) {
  if (base_path.empty()) return false;
  const report::StoreVerdict verdict = report::VerifyHeader(base_path);
  if (verdict.state != report::StoreState::kDamaged || verdict.look.findings.empty()) return false;
  const report::Finding& first = verdict.look.findings.front();
  if (first.rule == "file.missing") return false;  // the open says so
  output.Problem("warning: " + base_path + " is damaged (" + std::string(first.rule) + ": " + first.explanation +
                 "), so its records may be wrong; \"qxctl report verify\" shows more");
  return true;
}

// Code 1 without a message for a success with a damaged report; any other status as it is.
[[nodiscard]] inline Status WithDamage(Status status, bool is_damaged) {
  return status.IsOk() && is_damaged ? Status(ExitCode::kFinding, "") : status;
}

}  // namespace qx::ctl
