#include "tools/qxctl/store/MissingReport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/File.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/cli/text/NearNames.h"
#include "tools/qxctl/cli/text/Quote.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/store/ReportDirectory.h"
#include "tools/qxctl/store/ReportSettings.h"

namespace qx::ctl {

namespace {

using report::FoundReports;

std::string Counted(std::size_t count) { return std::to_string(count) + (count == 1 ? " report" : " reports"); }

// The end of the message: near names, or how to list or make reports. `list` is the command that lists them.
std::string Advice(const std::string& name, const FoundReports& found, const std::string& list) {
  if (found.error != 0) return std::string("; that directory cannot be read: ") + std::strerror(found.error);
  if (found.names.empty()) return ", which has no reports; \"qxctl report create\" makes one";
  const std::string near = DidYouMean(NearNames(name, found.names));
  return near.empty() ? "; \"" + list + "\" shows the " + Counted(found.names.size()) + " there" : near;
}

// Reports of the report directory whose names are near this one.
std::vector<std::string> NearReports(const std::string& name) {
  return NearNames(name, report::FindReports(ReportDirectory()).names);
}

}  // namespace

Status NoSuchReport(const std::string& name) {
  const std::string directory = ReportDirectory();
  const FoundReports found = report::FindReports(directory);
  if (found.error == ENOENT) return NoReportDirectory(directory);
  return {ExitCode::kNotFound, "no report " + Visible(name) + " in " + Visible(directory) +
                                   Advice(name, found, "qxctl report list") + " (" +
                                   WhatNamesTheDirectory(ReadReportSettings()) + ")"};
}

Status NoSuchReportAt(const std::string& base_path) {
  const std::string directory = file::DirectoryOf(base_path);
  const std::string name = file::NameOf(base_path);
  const FoundReports found = report::FindReportsIn(directory);
  if (found.error == ENOENT && MayBeReportName(base_path) && !NearReports(base_path).empty()) {
    return NoSuchReport(base_path);
  }
  const std::string list = "qxctl report list --reports " + ShellWord(directory);
  const std::string advice = found.error == ENOENT ? "; there is no such directory" : Advice(name, found, list);
  return {ExitCode::kNotFound, "no report " + Visible(name) + " in " + Visible(directory) + advice};
}

Status NoSuchReportNamed(const std::string& name_or_path) {
  const bool is_name = name_or_path.find('/') == std::string::npos;
  return is_name ? NoSuchReport(name_or_path) : NoSuchReportAt(name_or_path);
}

Status NoNamesFile(const std::string& name) {
  const std::string base_path = BasePathOfReport(name);
  if (base_path.empty() || access(report::IndexFileName(base_path).c_str(), F_OK) != 0) return NoSuchReport(name);
  const std::string names = base_path + ".names";
  struct stat status = {};
  const bool is_link = lstat(names.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
  if (is_link && access(names.c_str(), F_OK) == 0) return StatusOfReportFile("cannot open " + Visible(names), ELOOP);
  return {ExitCode::kNotFound,
          "the report " + Visible(name) + " has no instance names: there is no file " + Visible(base_path) + ".names"};
}

Status NoReportDirectory(const std::string& directory) {
  if (directory.empty()) {
    return {ExitCode::kNotFound, "the registry names an empty report directory: " +
                                     std::string(WhatNamesTheDirectory(ReadReportSettings())) +
                                     "; \"qxctl setup\" shows how to name one"};
  }
  const ReportSettings settings = ReadReportSettings();
  if (settings.source == ReportSettings::Source::kNone) {
    return {ExitCode::kNotFound,
            "there is no report directory " + Visible(directory) + " (" + WhatNamesTheDirectory(settings) + ")"};
  }
  return {ExitCode::kNotFound, "there is no report directory " + Visible(directory) + "; \"install -d -m 0755 " +
                                   ShellWord(directory) + "\" makes it (" + WhatNamesTheDirectory(settings) + ")"};
}

}  // namespace qx::ctl
