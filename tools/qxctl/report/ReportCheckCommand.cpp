// Checks whether a report is sound, and salvages a damaged one.
#include "tools/qxctl/report/ReportCheckCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "base/File.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/StoreSalvage.h"
#include "reportfile/tools/StoreVerify.h"
#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/cli/LongStep.h"
#include "tools/qxctl/cli/Result.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportArguments.h"
#include "tools/qxctl/store/ReportStates.h"
#include "tools/qxctl/store/StoreFiles.h"

namespace qx::ctl {

namespace {

using report::Finding;
using report::StoreScan;
using report::StoreState;
using report::StoreVerdict;

std::string Counted(std::uint64_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

// --- verify

std::string FileOf(const Finding& finding, const std::string& path) {
  return finding.file == report::StoreFile::kIndex ? report::IndexFileName(path) : report::DataFileName(path);
}

// The remarks that apply to the report, as texts.
std::vector<std::string> RemarksOf(const StoreScan& scan) {
  std::vector<std::string> remarks;
  if (scan.record_in_flight) remarks.emplace_back("a record is being written, or its writer was killed");
  if (scan.record_cut_short) remarks.emplace_back("the text of a record that was never counted is at the end");
  if (scan.marker_cut_short) remarks.emplace_back("the end marker is cut short");
  if (scan.count_wrapped) remarks.emplace_back("more than 4294967296 records were written");
  if (scan.beyond_offsets) remarks.emplace_back("the data file is larger than 4 GiB: its records were not checked");
  if (scan.overwritten_records != 0) {
    remarks.push_back("newer, longer records have overwritten " +
                      Counted(scan.overwritten_records, "record", "records"));
  }
  if (scan.cut_records != 0) {
    remarks.push_back(Counted(scan.cut_records, "record holds", "records hold") +
                      " a line feed or a byte 0xFF, where readers end " + (scan.cut_records == 1 ? "it" : "them"));
  }
  return remarks;
}

Status StatusOf(const StoreVerdict& verdict, const std::string& report, const std::string& path) {
  switch (verdict.state) {
    case StoreState::kSound:
      return {};
    case StoreState::kDamaged:
      return {ExitCode::kFinding, path + " is damaged; \"qxctl report salvage\" saves what can be saved"};
    case StoreState::kChanged:
      return {ExitCode::kChanged, path + " changed each time it was read; back it up and verify the copy"};
    case StoreState::kNotFound:
      return NoSuchReportNamed(report);
    case StoreState::kUnreadable:
      return StatusOfReportFile("cannot read " + verdict.file, verdict.error);
  }
  return {};
}

Json ToJson(const Finding& finding, const std::string& path) {
  Json entry = {{"rule", finding.rule}};
  SetText(entry, "file", FileOf(finding, path));
  entry["offset"] = finding.offset;
  entry["value"] = finding.value;
  entry["explanation"] = finding.explanation;
  return entry;
}

Json ToJson(const StoreVerdict& verdict, const std::string& path, ExitCode code) {
  const StoreScan& scan = verdict.scan;
  Json findings = Json::Array();
  for (const Finding& finding : scan.findings) findings.Append(ToJson(finding, path));
  Json document;
  SetText(document, "path", path);
  document["state"] = NameOfState(verdict.state);
  document["records"] = scan.header.highestIndex;
  document["indexFileBytes"] = scan.index_bytes;
  document["dataFileBytes"] = scan.data_bytes;
  document["remarks"] = RemarksOf(scan);
  document["findings"] = std::move(findings);
  document["allFindings"] = scan.findings.size() < report::kFindingsMax;
  document["exitCode"] = static_cast<int>(code);
  return document;
}

// The first finding of each rule, and how many more there are of this rule: a damaged ring contradicts the same rule in
// every slot.
std::string ToText(const std::vector<Finding>& findings, const std::string& path) {
  std::string text;
  std::vector<std::string_view> shown;
  for (const Finding& finding : findings) {
    if (std::find(shown.begin(), shown.end(), finding.rule) != shown.end()) continue;
    shown.push_back(finding.rule);
    text += "  " + std::string(finding.rule) + ": " + FileOf(finding, path) + " offset " +
            std::to_string(finding.offset) + " value " + std::to_string(finding.value) + ": " + finding.explanation +
            "\n";
    const auto is_alike = [&](const Finding& other) { return other.rule == finding.rule; };
    const auto more = std::count_if(findings.begin(), findings.end(), is_alike) - 1;
    if (more > 0) text += "    and " + std::to_string(more) + " more like this\n";
  }
  return text;
}

std::string ToText(const Output& output, const StoreVerdict& verdict, const std::string& path) {
  const StoreScan& scan = verdict.scan;
  const Style style = verdict.state == StoreState::kSound ? Style::kGood : Style::kBad;
  std::string text = path + ": " + output.Paint(style, NameOfState(verdict.state));
  if (scan.findings.empty()) text += ", " + Counted(scan.header.highestIndex, "record", "records");
  text += "\n";
  for (const std::string& remark : RemarksOf(scan)) text += "  remark: " + remark + "\n";
  return text + ToText(scan.findings, path);
}

StoreVerdict VerifyWithProgress(const Output& output, const std::string& path) {
  const LongStep step(output, "checking " + path, [&] { return BytesOfReport(path); });
  return report::VerifyStore(path);
}

Status VerifyReport(Context& context, const Values& values, const std::string& report, const std::string& path) {
  const StoreVerdict verdict = VerifyWithProgress(context.output, path);
  Status status = StatusOf(verdict, report, path);
  const bool was_looked_at = verdict.state != StoreState::kNotFound && verdict.state != StoreState::kUnreadable;
  if (!was_looked_at) return status;
  return ShowResult(
      context, values, [&] { return ToJson(verdict, path, status.Code()); },
      [&] { return ToText(context.output, verdict, path); }, status);
}

Status Verify(Context& context, const Values& values) {
  ReportArguments arguments;
  if (Status status = ReportsOf(values, context.output, arguments); !status.IsOk()) return status;
  std::size_t sound = 0;
  Status status = ForEachReport(context.output, arguments, [&](const ReportArgument& report) {
    Status one = VerifyReport(context, values, report.text, report.base_path);
    sound += one.IsOk() ? 1 : 0;
    return one;
  });
  if (!values.Flag("--all")) return status;
  context.output.Note(std::to_string(sound) + " of " +
                      Counted(arguments.reports.size(), "report is sound", "reports are sound"));
  return status;
}

// --- salvage

bool IsDirectory(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_directory(path, error);
}

// In a directory, the new store gets the name of the report; with --all this name may contain a "/".
std::string TargetOf(const std::string& into, const ReportArgument& report, bool is_all) {
  if (!IsDirectory(into)) return into;
  return into + "/" + (is_all ? report.text : file::NameOf(report.base_path));
}

Status StatusOf(const report::SalvageResult& result, const std::string& report) {
  switch (result.state) {
    case report::SalvageState::kDone:
      break;
    case report::SalvageState::kTargetExists:
      return {ExitCode::kRefused,
              result.file + " exists already, and a salvage never replaces a file; name another target"};
    case report::SalvageState::kNotFound:
      return NoSuchReportNamed(report);
    case report::SalvageState::kFailed:
      return StatusOfReportFile("cannot salvage: " + result.file, result.error);
  }
  if (result.counts.is_cut_short) {
    return {ExitCode::kFinding, "the report has more slots or more text than a salvage reads; the rest was left out"};
  }
  if (result.counts.lost == 0) return {};
  return {ExitCode::kFinding, Counted(result.counts.lost, "slot leads", "slots lead") + " to no record"};
}

Json ToJson(const report::SalvageResult& result, const std::string& path, const std::string& target, ExitCode code) {
  Json document;
  SetText(document, "path", path);
  SetText(document, "into", target);
  document["indexedRecords"] = result.counts.indexed;
  document["unindexedLines"] = result.counts.unindexed;
  document["lostSlots"] = result.counts.lost;
  document["maxRecord"] = result.ring_size;
  document["exitCode"] = static_cast<int>(code);
  return document;
}

std::string ToText(const report::SalvageResult& result, const std::string& target) {
  return target + ": " + Counted(result.counts.indexed, "indexed record", "indexed records") + ", " +
         Counted(result.counts.unindexed, "line without a slot", "lines without a slot") + ", a ring of " +
         std::to_string(result.ring_size) + "\n";
}

report::SalvageResult SalvageWithProgress(const Output& output, const std::string& path, const std::string& target,
                                          bool with_lines) {
  const LongStep step(output, "saving " + path, [&] { return BytesOfReport(path); });
  return report::SalvageStore(path, target, with_lines);
}

Status SalvageReport(Context& context, const Values& values, const ReportArgument& report) {
  const std::string target = TargetOf(values.Text("--into"), report, values.Flag("--all"));
  if (values.Flag("--all")) MakeSubdirectories(values.Text("--into"), report.text);
  const report::SalvageResult result =
      SalvageWithProgress(context.output, report.base_path, target, !values.Flag("--indexed-only"));
  Status status = StatusOf(result, report.text);
  if (result.state != report::SalvageState::kDone) return status;
  return ShowResult(
      context, values, [&] { return ToJson(result, report.base_path, target, status.Code()); },
      [&] { return ToText(result, target); }, status);
}

Status Salvage(Context& context, const Values& values) {
  ReportArguments arguments;
  if (Status status = ReportsOf(values, context.output, arguments); !status.IsOk()) return status;
  const std::string into = values.Text("--into");
  const bool needs_directory = values.Flag("--all") || arguments.reports.size() > 1;
  if (needs_directory && !IsDirectory(into)) {
    return {ExitCode::kUsage, "--into: " + Visible(into) + " is not a directory; several reports need one"};
  }
  return ForEachReport(context.output, arguments,
                       [&](const ReportArgument& report) { return SalvageReport(context, values, report); });
}

// --- the commands

constexpr Parameter kParameters[] = {{.name = "--json", .help = "Print the result as JSON"}};

constexpr Parameter kSalvageParameters[] = {
    {.name = "--into",
     .kind = ValueKind::kFile,
     .value = "DIR|PATH",
     .help = "Directory for the new report, or its path without .ind and .dat",
     .is_required = true},
    {.name = "--indexed-only", .help = "Leave out lines of the data file that no slot leads to"},
};

constexpr Example kReportVerifyExamples[] = {
    {"qxctl report verify load", "Check one report"},
    {"qxctl report verify --all --quiet", "Check every report"},
};

constexpr Example kReportSalvageExamples[] = {
    {"qxctl report salvage load --into saved/", "Save the records of a damaged report into a directory"},
    {"qxctl report salvage --all --into saved/", "Save those of every report"},
};

}  // namespace

constinit const Command kReportVerifyCommand = {.words = "report verify",
                                                .help = "Check whether a report's files are as a writer leaves them",
                                                .run = Verify,
                                                .parameters = {kReportsOrAllParameters, kParameters},
                                                .examples = kReportVerifyExamples};

constinit const Command kReportSalvageCommand = {
    .words = "report salvage",
    .help = "Save what is left of a damaged report into a new one",
    .run = Salvage,
    .parameters = {kReportsOrAllParameters, kParameters, kSalvageParameters},
    .examples = kReportSalvageExamples};

}  // namespace qx::ctl
