// qxctl doctor: one line for each thing that is or might be wrong, with what to do.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/qxctl/cli/Commands.h"
#include "tools/qxctl/cli/Text.h"
#include "tools/qxctl/doctor/Doctor.h"
#include "tools/qxctl/doctor/Explanations.h"
#include "tools/qxctl/module/ModuleHost.h"

namespace qx::ctl {

namespace {

struct Options {
  DoctorPlaces places;
  bool json = false;
};

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
  Json json = {{"findings", Json::array()}};
  for (const DoctorFinding& finding : findings) {
    json["findings"].push_back({{"section", SectionOf(finding.code)},
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
  return {ExitCode::kFinding, std::to_string(count) + (count == 1 ? " finding needs" : " findings need") + " a look"};
}

Status Doctor(Context& context, Options& options) {
  DoctorPlaces& places = options.places;
  places.module = FindModule(places.module);
  DoctorFindings findings;
  LookAtTraces(places, findings);
  LookAtReports(places, findings);
  LookAtRegistry(places, findings);
  LookAtLimits(findings);
  if (Status status = context.traces.ProtectService(); !status.IsOk()) return status;
  LookAtModule(places, findings);
  std::stable_sort(findings.begin(), findings.end(),
                   [](const DoctorFinding& a, const DoctorFinding& b) { return a.code < b.code; });
  const Status status = StatusOf(findings);
  const Status printed =
      options.json ? context.output.Document(ToJson(findings, status)) : context.output.Data(ToText(findings));
  return printed.IsOk() ? status : printed;
}

}  // namespace

void AddDoctorCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  DoctorPlaces& places = options->places;
  CLI::App& command = *app.add_subcommand("doctor", "Look for what keeps the module from serving");
  command
      .add_option("--module", places.module,
                  "The module (default: QX_MODULE, beside qxctl, in ../lib of it, where the suite installs it)")
      ->type_name("FILE");
  command
      .add_option("--directory", places.registry_directory, "Directory of the registry files, instead of the system's")
      ->type_name("DIR");
  command
      .add_option("--reports", places.report_directory, "Report directory, instead of the one that the registry names")
      ->type_name("DIR");
  command
      .add_option("--settings", places.trace_settings_directory,
                  "Directory of the trace settings files, instead of the system's")
      ->type_name("DIR");
  command.add_option("--proc", places.process_directory, "Process file system, instead of /proc")->type_name("DIR");
  command.add_option("--app", places.application,
                     "Name of the application in the trace settings (default QXRemConXfer)");
  command.add_flag("--json", options->json, "Print the findings as JSON");
  command.callback([&context, options] { context.run = [&context, options] { return Doctor(context, *options); }; });
}

}  // namespace qx::ctl
