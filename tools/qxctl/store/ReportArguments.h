// Finds the reports that a command line names.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

inline constexpr std::string_view kReportHelp = "A name below the report directory, or a path (with a /)";

// Exactly one report.
inline constexpr Parameter kReportParameter[] = {
    {.name = "REPORT", .kind = ValueKind::kReportOrStore, .help = kReportHelp, .is_required = true},
};

// One report or several.
inline constexpr Parameter kReportsParameter[] = {
    {.name = "REPORT",
     .kind = ValueKind::kReportOrStore,
     .help = kReportHelp,
     .is_required = true,
     .is_repeatable = true},
};

// One report, several, or all.
inline constexpr Parameter kReportsOrAllParameters[] = {
    {.name = "REPORT",
     .kind = ValueKind::kReportOrStore,
     .help = kReportHelp,
     .is_repeatable = true,
     .excludes = {"--all"}},
    {.name = "--all", .help = "Every report of the report directory, also in subdirectories"},
};

// For a command with kReportParameter.
Status BasePathOf(const Values& values, std::string& base_path);

// A report of a command line: what was typed, or with --all its name, and the path of its files without their endings.
struct ReportArgument {
  std::string text;
  std::string base_path;
};

struct ReportArguments {
  std::vector<ReportArgument> reports;
  ExitCode code = ExitCode::kOk;  // worse if a subdirectory could not be listed, which is printed
};

// The reports of a command with kReportsParameter or kReportsOrAllParameters, in the given order. kUsage without a
// report.
Status ReportsOf(const Values& values, Output& output, ReportArguments& arguments);

// Makes the subdirectories of a name such as "disk/sda" in the directory, but not through another user's link. If one
// cannot be made, the later write there fails and reports it.
void MakeSubdirectories(const std::string& directory, const std::string& name);

// Runs a command for one report after the other. If there are several, each failure is printed here, and the result has
// the worst code without a message.
template <typename Run>
Status ForEachReport(Output& output, const ReportArguments& arguments, Run run) {
  ExitCode worst = arguments.code;
  for (const ReportArgument& report : arguments.reports) {
    Status status = run(report);
    if (arguments.reports.size() == 1 && status.Code() >= worst) return status;
    output.Problem(status);
    worst = std::max(worst, status.Code());
  }
  return {worst, ""};
}

}  // namespace qx::ctl
