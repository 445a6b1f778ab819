// Prints a line for each problem or possible problem, with the action to take.
#include "tools/qxctl/doctor/DoctorCommand.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Duration.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/doctor/Doctor.h"
#include "tools/qxctl/doctor/DoctorDocument.h"
#include "tools/qxctl/doctor/Explanations.h"
#include "tools/qxctl/module/ModuleHost.h"

namespace qx::ctl {

namespace {

std::string Padded(std::string text, std::size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text;
}

Style StyleOf(Severity severity) {
  switch (severity) {
    case Severity::kOk:
      return Style::kGood;
    case Severity::kInfo:
      return Style::kFaint;
    case Severity::kWarning:
      return Style::kWarning;
    case Severity::kError:
      return Style::kBad;
  }
  return Style::kStrong;
}

std::string ToText(const Output& output, const DoctorFindings& findings) {
  constexpr std::size_t kSeverityWidth = 8;
  constexpr std::size_t kSectionWidth = 9;
  std::string text;
  for (const DoctorFinding& finding : findings) {
    const Severity severity = SeverityOf(finding.code);
    text += std::string(finding.code) + " " +
            output.Paint(StyleOf(severity), Padded(NameOf(severity), kSeverityWidth)) +
            Padded(SectionOf(finding.code), kSectionWidth) + Visible(finding.fact);
    const bool needs_fix = severity == Severity::kWarning || severity == Severity::kError;
    text += (needs_fix ? ". " + std::string(ExplainFinding(finding.code).action) : "") + "\n";
    if (!finding.command.empty()) text += "    " + finding.command + "\n";
  }
  return text;
}

// --- for a monitor

// The exit codes of a check that a monitor runs. They have other meanings than those of commands.
enum class MonitorCode : std::uint8_t { kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

const char* NameOf(MonitorCode code) {
  constexpr std::array<const char*, 4> kNames = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
  return kNames[static_cast<std::size_t>(code)];
}

// Whether this user may not read something; it might be in order.
bool IsUnreadable(const DoctorFinding& finding) { return finding.code == "QX203" || finding.code == "QX303"; }

MonitorCode CodeOf(const DoctorFinding& finding) {
  const Severity severity = SeverityOf(finding.code);
  if (severity == Severity::kWarning) return MonitorCode::kWarning;
  if (severity != Severity::kError) return MonitorCode::kOk;
  return IsUnreadable(finding) ? MonitorCode::kUnknown : MonitorCode::kCritical;
}

// The most serious code of any finding: critical before unknown, unknown before warning.
MonitorCode CodeOf(const DoctorFindings& findings) {
  for (const MonitorCode code : {MonitorCode::kCritical, MonitorCode::kUnknown, MonitorCode::kWarning}) {
    const auto has_code = [&](const DoctorFinding& finding) { return CodeOf(finding) == code; };
    if (std::any_of(findings.begin(), findings.end(), has_code)) return code;
  }
  return MonitorCode::kOk;
}

// "QXRemConXfer WARNING: QX304 "/srv/reports/a.ind" exists, ... (and 2 more)"
std::string MonitorLine(const DoctorFindings& findings, MonitorCode code) {
  const std::string head = std::string("QXRemConXfer ") + NameOf(code) + ": ";
  if (code == MonitorCode::kOk) return head + "module, registry, reports, traces and limits are in order\n";
  const auto first = std::find_if(findings.begin(), findings.end(),
                                  [&](const DoctorFinding& finding) { return CodeOf(finding) == code; });
  const auto bad = std::count_if(findings.begin(), findings.end(),
                                 [](const DoctorFinding& finding) { return CodeOf(finding) != MonitorCode::kOk; });
  const std::string more = bad > 1 ? " (and " + std::to_string(bad - 1) + " more)" : "";
  return head + std::string(first->code) + " " + Visible(first->fact) + more + "\n";
}

Status MonitorStatus(MonitorCode code) { return {static_cast<ExitCode>(code), ""}; }

// Prints the line of a monitor for a check that has no result: it says why.
Status Unknown(Context& context, const Status& why) {
  const std::string line = "QXRemConXfer UNKNOWN: " + Visible(why.Message()) + "\n";
  if (Status printed = context.output.Data(line); !printed.IsOk()) return printed;
  return MonitorStatus(MonitorCode::kUnknown);
}

DoctorPlaces PlacesOf(const Values& values) {
  DoctorPlaces places;
  places.module = FindModule(values.Text("--module"));
  places.registry_directory = values.Text("--directory", places.registry_directory);
  places.report_directory = values.Text("--reports");
  places.trace_settings_directory = values.Text("--settings", places.trace_settings_directory);
  places.process_directory = values.Text("--proc", places.process_directory);
  places.application = values.Text("--app", places.application);
  if (values.Has("--stale")) places.stale_seconds = ParseDuration(values.Text("--stale"));
  return places;
}

std::string_view CheckStale(std::string_view text) {
  return ParseDuration(text) ? "" : "a length of time has a unit, such as 90s, 10m, 2h or 1d";
}

Status Examine(Context& context, const Values& values, DoctorFindings& findings) {
  const DoctorPlaces places = PlacesOf(values);
  CheckTraces(places, findings);
  CheckReports(places, findings);
  CheckRegistry(places, findings);
  CheckLimits(findings);
  if (Status status = context.traces.ProtectService(); !status.IsOk()) return status;
  CheckModule(places, findings);
  std::stable_sort(findings.begin(), findings.end(),
                   [](const DoctorFinding& a, const DoctorFinding& b) { return a.code < b.code; });
  return {};
}

Status Monitor(Context& context, const Values& values) {
  DoctorFindings findings;
  if (Status status = Examine(context, values, findings); !status.IsOk()) return Unknown(context, status);
  const MonitorCode code = CodeOf(findings);
  if (Status printed = context.output.Data(MonitorLine(findings, code)); !printed.IsOk()) return printed;
  return MonitorStatus(code);
}

Status Doctor(Context& context, const Values& values) {
  if (values.Flag("--monitor")) return Monitor(context, values);
  DoctorFindings findings;
  if (Status status = Examine(context, values, findings); !status.IsOk()) return status;
  const Status status = StatusOf(findings);
  return ShowResult(
      context, values, [&] { return ToJson(findings, status); }, [&] { return ToText(context.output, findings); },
      status);
}

constexpr Parameter kParameters[] = {
    {.name = "--module",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help = "The module (default: QX_MODULE; otherwise the first one in qxctl's folder, in ../lib, in the suite's "
             "folder)"},
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
    {.name = "--stale",
     .kind = ValueKind::kText,
     .value = "TIME",
     .help = "Warn about reports that have had no new record for this time: 90s, 10m, 2h, 1d",
     .check = CheckStale},
    {.name = "--monitor",
     .help = "Print one line for a monitoring system; the exit code is 0 OK, 1 warning, 2 critical, 3 unknown"},
    {.name = "--json", .help = "Print the findings as JSON", .excludes = {"--monitor"}},
};

constexpr Example kDoctorExamples[] = {
    {"qxctl doctor", "Check everything and print commands that repair what is wrong"},
    {"qxctl doctor --monitor --stale 10m",
     "Print one line for a monitoring system, and warn about reports without new records"},
};

}  // namespace

constinit const Command kDoctorCommand = {.words = "doctor",
                                          .help = "Check everything that the module needs to serve reports",
                                          .group = kTroubleHeading,
                                          .run = Doctor,
                                          .parameters = {kParameters},
                                          .examples = kDoctorExamples};

}  // namespace qx::ctl
