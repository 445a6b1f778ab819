// Prints a line for each problem or possible problem, with the action to take.
#include "tools/qxctl/doctor/DoctorCommand.h"

#include <algorithm>
#include <memory>
#include <string>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/doctor/Doctor.h"
#include "tools/qxctl/doctor/Explanations.h"
#include "tools/qxctl/module/ModuleHost.h"

namespace qx::ctl {

namespace {

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

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

std::string ToText(const DoctorFindings& findings) {
  constexpr std::size_t kSeverityWidth = 8;
  constexpr std::size_t kSectionWidth = 9;
  std::string text;
  for (const DoctorFinding& finding : findings) {
    const Severity severity = SeverityOf(finding.code);
    text += std::string(finding.code) + " " + Padded(NameOf(severity), kSeverityWidth) +
            Padded(SectionOf(finding.code), kSectionWidth) + Visible(finding.fact);
    const bool needs_fix = severity == Severity::kWarning || severity == Severity::kError;
    text += (needs_fix ? ". " + std::string(ExplainFinding(finding.code).action) : "") + "\n";
  }
  return text;
}

Json ToJson(const DoctorFindings& findings, const Status& status) {
  Json json = {{"findings", Json::Array()}};
  for (const DoctorFinding& finding : findings) {
    json["findings"].Append({{"section", SectionOf(finding.code)},
                             {"code", finding.code},
                             {"severity", NameOf(SeverityOf(finding.code))},
                             {"fact", Visible(finding.fact)},
                             {"fix", ExplainFinding(finding.code).action}});
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

DoctorPlaces PlacesOf(const Values& values) {
  DoctorPlaces places;
  places.module = FindModule(values.Text("--module"));
  places.registry_directory = values.Text("--directory", places.registry_directory);
  places.report_directory = values.Text("--reports");
  places.trace_settings_directory = values.Text("--settings", places.trace_settings_directory);
  places.process_directory = values.Text("--proc", places.process_directory);
  places.application = values.Text("--app", places.application);
  return places;
}

Status Doctor(Context& context, const Values& values) {
  const DoctorPlaces places = PlacesOf(values);
  DoctorFindings findings;
  CheckTraces(places, findings);
  CheckReports(places, findings);
  CheckRegistry(places, findings);
  CheckLimits(findings);
  if (Status status = context.traces.ProtectService(); !status.IsOk()) return status;
  CheckModule(places, findings);
  std::stable_sort(findings.begin(), findings.end(),
                   [](const DoctorFinding& a, const DoctorFinding& b) { return a.code < b.code; });
  const Status status = StatusOf(findings);
  return ShowResult(
      context, values, [&] { return ToJson(findings, status); }, [&] { return ToText(findings); }, status);
}

constexpr Parameter kParameters[] = {
    {.name = "--module",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help = "The module (default: QX_MODULE, next to qxctl, in ../lib of it, where the suite installs it)"},
    {.name = "--directory",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Directory of the registry files, instead of the system's"},
    {.name = "--reports",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Report directory, instead of the one that the registry names"},
    {.name = "--settings",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Directory of the trace settings files, instead of the system's"},
    {.name = "--proc", .kind = ValueKind::kDirectory, .value = "DIR", .help = "Process file system, instead of /proc"},
    {.name = "--app",
     .kind = ValueKind::kText,
     .value = "NAME",
     .help = "Name of the application in the trace settings",
     .default_value = "QXRemConXfer"},
    {.name = "--json", .help = "Print the findings as JSON"},
};

}  // namespace

constinit const Command kDoctorCommand = {.words = "doctor",
                                          .help = "Check everything that the module needs to serve",
                                          .run = Doctor,
                                          .parameters = {kParameters}};

}  // namespace qx::ctl
