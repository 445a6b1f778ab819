// Lists the reports of a directory and their states.
//
// `list` reads the header and the sizes of each report, `status` also every record. Neither locks or changes anything.
#include "tools/qxctl/report/ReportListCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Duration.h"
#include "tools/qxctl/cli/text/Table.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/store/ReportStates.h"

namespace qx::ctl {

namespace {

using report::FoundReports;
using report::ReportCheck;
using report::ReportStatus;

// The reports that a command shows, each with the name that a user gives it.
struct Shown {
  std::string directory;
  FoundReports found;
  std::vector<std::string> names;
  std::vector<ReportStatus> reports;
};

// --- text

std::string SlotsText(const ReportStatus& report) {
  return report.slots ? std::to_string(report.records) + " of " + std::to_string(*report.slots) : "0";
}

std::string AgeText(const ReportStatus& report) {
  const auto age = AgeOf(report);
  return age ? DurationText(*age) + " ago" : "-";
}

std::string StateText(const Output& output, const ReportStatus& report) {
  const Style style = NeedsAttention(report) ? Style::kBad : report.IsEmpty() ? Style::kWarning : Style::kGood;
  const std::string writers = WritersOf(report);
  return output.Paint(style, StateOf(report)) + (writers.empty() ? "" : ", " + writers);
}

std::string ListText(const Output& output, const Shown& shown) {
  std::vector<TableRow> rows = {{"report", "records", "bytes", "newest", "state"}};
  for (std::size_t i = 0; i < shown.reports.size(); ++i) {
    const ReportStatus& report = shown.reports[i];
    rows.push_back({Visible(shown.names[i]), SlotsText(report), std::to_string(report.bytes), AgeText(report),
                    StateText(output, report)});
  }
  return rows.size() > 1 ? TableText(rows) : "";
}

std::string StatusText(const Output& output, const Shown& shown) {
  std::string text;
  for (std::size_t i = 0; i < shown.reports.size(); ++i) {
    const ReportStatus& report = shown.reports[i];
    const std::string trouble = TroubleOf(report);
    text += (i == 0 ? "" : "\n") + Visible(shown.names[i]) + ":\n  state    " + StateText(output, report) + "\n" +
            (trouble.empty() ? "" : "           " + Visible(trouble) + "\n") + "  records  " + SlotsText(report) +
            "\n  bytes    " + std::to_string(report.bytes) + "\n  newest   " + AgeText(report) + "\n  files    " +
            Visible(report.base_path) + ".ind, .dat\n";
  }
  return text;
}

// --- JSON

Json ToJson(const ReportStatus& report, const std::string& name) {
  Json processes = Json::Array();
  for (const int process : report.processes) processes.Append(process);
  Json entry;
  SetText(entry, "report", name);
  SetText(entry, "path", report.base_path);
  entry["state"] = StateOf(report);
  entry["trouble"] = TroubleOf(report);
  entry["records"] = report.records;
  entry["slots"] = nullptr;
  if (report.slots) entry["slots"] = *report.slots;
  entry["bytes"] = report.bytes;
  entry["ageSeconds"] = nullptr;
  if (const auto age = AgeOf(report)) entry["ageSeconds"] = *age;
  entry["isWritten"] = report.is_written;
  entry["processes"] = std::move(processes);
  return entry;
}

Json ToJson(const Shown& shown, ExitCode code) {
  Json reports = Json::Array();
  for (std::size_t i = 0; i < shown.reports.size(); ++i) reports.Append(ToJson(shown.reports[i], shown.names[i]));
  Json document;
  SetText(document, "reportDirectory", shown.directory);
  document["reports"] = std::move(reports);
  document["allReports"] = shown.found.unlisted.empty();
  document["exitCode"] = static_cast<int>(code);
  return document;
}

// --- the commands

std::string CountText(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// The status of the command. Reports that need attention are reported rather than an incomplete list.
Status StatusOf(const Shown& shown) {
  const auto bad = static_cast<std::size_t>(std::count_if(shown.reports.begin(), shown.reports.end(), NeedsAttention));
  if (bad > 0) {
    return {ExitCode::kFinding, CountText(bad, "report") + (bad == 1 ? " is" : " are") +
                                    " not in order; \"qxctl report verify NAME\" shows why"};
  }
  if (shown.found.unlisted.empty()) return {};
  const report::UnlistedDirectory& first = shown.found.unlisted.front();
  return {ExitCode::kFinding, "the list is not complete: " + Visible(shown.directory + "/" + first.name) + ": " +
                                  std::strerror(first.error)};
}

Status FindDirectory(const Values& values, Shown& shown) {
  shown.directory = values.Text("--reports");
  const bool is_named = !shown.directory.empty();
  if (!is_named) {
    if (Status status = FindReportDirectory(shown.directory); !status.IsOk()) return status;
  }
  shown.found = report::FindReports(shown.directory);
  if (shown.found.error == 0) return {};
  if (shown.found.error != ENOENT) return Status::Io("cannot list " + Visible(shown.directory), shown.found.error);
  return is_named ? Status(ExitCode::kNotFound, "there is no directory " + Visible(shown.directory))
                  : NoReportDirectory(shown.directory);
}

// All reports of the directory.
Status FindAll(const Values& values, ReportCheck check, Shown& shown) {
  if (Status status = FindDirectory(values, shown); !status.IsOk()) return status;
  std::vector<std::string> base_paths;
  for (const std::string& name : shown.found.names) base_paths.push_back(shown.directory + "/" + name);
  shown.names = shown.found.names;
  shown.reports = report::StatusOfReports(base_paths, check);
  return {};
}

// Finds the reports that the command line names.
Status FindNamed(const std::vector<std::string>& arguments, Shown& shown) {
  shown.directory = ReportDirectory();
  std::vector<std::string> base_paths;
  for (const std::string& argument : arguments) {
    std::string base_path;
    if (Status status = FindBasePath(argument, base_path); !status.IsOk()) return status;
    base_paths.push_back(base_path);
  }
  shown.names = arguments;
  shown.reports = report::StatusOfReports(base_paths, ReportCheck::kRecords);
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (shown.reports[i].verdict.state == report::StoreState::kNotFound) return NoSuchReportNamed(arguments[i]);
  }
  return {};
}

void NoteEmptyDirectory(Context& context, const Shown& shown) {
  if (!shown.reports.empty()) return;
  context.output.Note("qxctl: there are no reports in " + Visible(shown.directory) +
                      "; \"qxctl report create\" makes one");
}

Status List(Context& context, const Values& values) {
  Shown shown;
  if (Status status = FindAll(values, ReportCheck::kHeader, shown); !status.IsOk()) return status;
  const Status status = StatusOf(shown);
  NoteEmptyDirectory(context, shown);
  return ShowResult(
      context, values, [&] { return ToJson(shown, status.Code()); }, [&] { return ListText(context.output, shown); },
      status);
}

Status ShowStatus(Context& context, const Values& values) {
  const std::vector<std::string> arguments = values.Texts("REPORT");
  Shown shown;
  Status found = arguments.empty() ? FindAll(values, ReportCheck::kRecords, shown) : FindNamed(arguments, shown);
  if (!found.IsOk()) return found;
  const Status status = StatusOf(shown);
  NoteEmptyDirectory(context, shown);
  return ShowResult(
      context, values, [&] { return ToJson(shown, status.Code()); }, [&] { return StatusText(context.output, shown); },
      status);
}

constexpr Parameter kListParameters[] = {
    {.name = "--reports",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "Report directory, instead of the one that the registry names"},
    {.name = "--json", .help = "Print the reports as JSON"},
};

constexpr Parameter kStatusParameters[] = {
    {.name = "REPORT",
     .kind = ValueKind::kReportOrStore,
     .help = "A name below the report directory, or a path (with a /); without it: all reports",
     .is_repeatable = true},
    {.name = "--reports",
     .kind = ValueKind::kDirectory,
     .value = "DIR",
     .help = "All reports of this directory, instead of the one that the registry names",
     .excludes = {"REPORT"}},
    {.name = "--json", .help = "Print the result as JSON"},
};

constexpr Example kReportListExamples[] = {
    {"qxctl report list", "List the reports of the report directory"},
    {"qxctl report list --reports backups/monday", "List those of a backup"},
};

constexpr Example kReportStatusExamples[] = {
    {"qxctl report status", "Check every report"},
    {"qxctl report status load disk/sda", "Check two reports"},
};

}  // namespace

constinit const Command kReportListCommand = {.words = "report list",
                                              .help = "List all reports with size, age and state",
                                              .run = List,
                                              .parameters = {kListParameters},
                                              .examples = kReportListExamples};

constinit const Command kReportStatusCommand = {.words = "report status",
                                                .help = "Check reports and show size, age, state and writers",
                                                .run = ShowStatus,
                                                .parameters = {kStatusParameters},
                                                .examples = kReportStatusExamples};

}  // namespace qx::ctl
