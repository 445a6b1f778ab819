#include "tools/qxctl/store/ReportArguments.h"

#include <cerrno>

#include "base/File.h"
#include "base/tools/FilePlace.h"
#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/store/MissingReport.h"
#include "tools/qxctl/store/ReportDirectory.h"

namespace qx::ctl {

namespace {

Status AllReports(Output& output, ReportArguments& arguments) {
  std::string directory;
  if (Status status = FindReportDirectory(directory); !status.IsOk()) return status;
  const report::FoundReports found = report::FindReports(directory);
  if (found.error == ENOENT) return NoReportDirectory(directory);
  if (found.error != 0) return Status::Io("cannot list " + Visible(directory), found.error);
  const std::string below = directory + "/";
  for (const std::string& name : found.names) arguments.reports.push_back({name, below + name});
  for (const report::UnlistedDirectory& each : found.unlisted) {
    output.Problem(Status::Io("cannot list " + Visible(below + each.name), each.error));
    arguments.code = ExitCode::kIo;
  }
  return {};
}

}  // namespace

Status BasePathOf(const Values& values, std::string& base_path) {
  return FindBasePath(values.Text("REPORT"), base_path);
}

Status ReportsOf(const Values& values, Output& output, ReportArguments& arguments) {
  if (values.Knows("--all") && values.Flag("--all")) return AllReports(output, arguments);
  for (const std::string& text : values.Texts("REPORT")) {
    std::string path;
    if (Status status = FindBasePath(text, path); !status.IsOk()) return status;
    arguments.reports.push_back({text, path});
  }
  if (!arguments.reports.empty()) return {};
  return {ExitCode::kUsage, "name a report, or use --all; \"qxctl report list\" shows the reports"};
}

void MakeSubdirectories(const std::string& directory, const std::string& name) {
  for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
    FilePlace place;
    if (!FindPlace(directory + "/" + name.substr(0, slash), LinkRule::kTrusted, place).IsDone()) return;
    (void)file::MakeDirectory(place.name.c_str(), 0777, place.directory.Number());
  }
}

}  // namespace qx::ctl
