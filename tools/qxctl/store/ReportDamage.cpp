#include "tools/qxctl/store/ReportDamage.h"

#include "reportfile/tools/StoreVerify.h"

namespace qx::ctl {

bool WarnOfDamage(Output& output, const std::string& base_path) {
  if (base_path.empty()) return false;
  const report::StoreVerdict verdict = report::VerifyHeader(base_path);
  if (verdict.state != report::StoreState::kDamaged || verdict.scan.findings.empty()) return false;
  const report::Finding& first = verdict.scan.findings.front();
  if (first.rule == "file.missing") return false;  // the command that opens the report reports it
  output.Problem("warning: " + base_path + " is damaged (" + std::string(first.rule) + ": " + first.explanation +
                 "), so its records may be wrong; \"qxctl report verify\" shows more");
  return true;
}

Status WithDamage(Status status, bool is_damaged) {
  if (!status.IsOk() || !is_damaged) return status;
  return {ExitCode::kFinding, ""};
}

}  // namespace qx::ctl
