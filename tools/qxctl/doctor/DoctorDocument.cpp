#include "tools/qxctl/doctor/DoctorDocument.h"

#include <algorithm>
#include <string>

#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/doctor/Explanations.h"

namespace qx::ctl {

const char* NameOf(Severity severity) {
  switch (severity) {
    case Severity::kOk:
      return "ok";
    case Severity::kInfo:
      return "info";
    case Severity::kWarning:
      return "warning";
    case Severity::kError:
      return "error";
  }
  return "";
}

Json ToJson(const DoctorFindings& findings, const Status& status) {
  Json json = {{"findings", Json::Array()}};
  for (const DoctorFinding& finding : findings) {
    json["findings"].Append({{"section", SectionOf(finding.code)},
                             {"code", finding.code},
                             {"severity", NameOf(SeverityOf(finding.code))},
                             {"fact", Visible(finding.fact)},
                             {"fix", ExplainFinding(finding.code).action},
                             {"command", finding.command}});
  }
  json["exitCode"] = static_cast<int>(status.Code());
  return json;
}

Status StatusOf(const DoctorFindings& findings) {
  const auto count = std::count_if(findings.begin(), findings.end(), [](const DoctorFinding& finding) {
    return SeverityOf(finding.code) == Severity::kWarning || SeverityOf(finding.code) == Severity::kError;
  });
  if (count == 0) return {};
  return {ExitCode::kFinding,
          std::to_string(count) + (count == 1 ? " finding needs" : " findings need") + " attention"};
}

}  // namespace qx::ctl
