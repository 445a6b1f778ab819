// Checks the report directory: its path, who may write there, and whether its reports are whole.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "provider/ServerControlPaths.h"
#include "registry/RegistryPaths.h"
#include "reportfile/StoreFormat.h"
#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxctl/cli/text/Duration.h"
#include "tools/qxctl/cli/text/Quote.h"
#include "tools/qxctl/doctor/Doctor.h"
#include "tools/qxctl/store/ReportSettings.h"
#include "tools/qxctl/store/ReportStates.h"
#include "tools/qxctl/store/SettingCommands.h"

namespace qx::ctl {

namespace {

namespace fs = std::filesystem;
using report::ReportStatus;

std::string DirectoryFromRegistry(const DoctorPlaces& places) {
  registry::ResetRegistry(places.registry_directory.c_str());
  std::string directory;
  CServerControlPaths::GetServerControlReportPath(directory);
  registry::ResetRegistry(nullptr);
  return directory;
}

// The report directory that the module would use in the working directory "/". It differs from the present one only if
// the registry names none.
std::string DirectoryFromElsewhere(const DoctorPlaces& places) {
  std::error_code error;
  const fs::path here = fs::current_path(error);
  DoctorPlaces same = places;
  same.registry_directory = fs::absolute(places.registry_directory, error).string();
  fs::current_path("/", error);
  std::string directory = DirectoryFromRegistry(same);
  fs::current_path(here, error);  // later checks may use paths relative to it
  return directory;
}

// The settings of the registry that is checked.
ReportSettings SettingsOf(const DoctorPlaces& places) {
  registry::ResetRegistry(places.registry_directory.c_str());
  ReportSettings settings = ReadReportSettings();
  registry::ResetRegistry(nullptr);
  return settings;
}

// The registry's own file, which the commands change.
std::string RegistryFile(const DoctorPlaces& places) { return places.registry_directory + "/registry"; }

bool HasCarriageReturn(const std::string& text) { return text.find('\r') != std::string::npos; }

// The command that makes the registry name a report directory, as "qxctl setup" does.
std::string NameCommand(const DoctorPlaces& places) {
  const ReportSettings settings = SettingsOf(places);
  const SettingCommands commands(places.registry_directory);
  const bool has_registry = access(RegistryFile(places).c_str(), F_OK) == 0;
  if (!has_registry) return commands.Setup();
  return commands.Set(settings.setup_key, kReportRoot, kDefaultReportDirectory);
}

// The report directory that the module would use now, in this working directory.
std::string DirectoryOf(const DoctorPlaces& places, DoctorFindings& findings) {
  if (!places.report_directory.empty()) return places.report_directory;
  std::string directory = DirectoryFromRegistry(places);
  if (directory != DirectoryFromElsewhere(places)) {
    findings.push_back({"QX302",
                        "no value of the registry names the report directory; here it would be " + InQuotes(directory),
                        NameCommand(places)});
  }
  return directory;
}

// Why a report's file cannot be read.
std::string ReasonOf(const report::StoreVerdict& verdict) {
  std::error_code error;
  if (fs::is_directory(verdict.file, error)) return InQuotes(verdict.file) + " is a directory";
  return InQuotes(verdict.file) + ": " + std::strerror(verdict.error);
}

void CheckDamage(const ReportStatus& report, DoctorFindings& findings) {
  const report::Finding& first = report.verdict.scan.findings.front();
  const std::string index = report::IndexFileName(report.base_path);
  const std::string data = report::DataFileName(report.base_path);
  if (first.rule != "file.missing") {
    findings.push_back({"QX305", InQuotes(report.base_path) + ": " + std::string(first.rule) + ": " + first.explanation,
                        "qxctl report verify " + ShellWord(report.base_path)});
    return;
  }
  const bool has_data = first.file == report::StoreFile::kIndex;
  findings.push_back(
      {"QX304", InQuotes(has_data ? data : index) + " exists, " + InQuotes(has_data ? index : data) + " does not",
       has_data
           ? "qxctl report salvage " + ShellWord(report.base_path) + " --into " + ShellWord(report.base_path + "-saved")
           : "rm -i " + ShellWord(index)});
}

// The seconds since the report changed: the age of its newest record or, without a record, of its index file.
std::optional<std::int64_t> SilenceOf(const ReportStatus& report) {
  if (const auto age = AgeOf(report)) return age;
  struct stat index;
  if (stat(report::IndexFileName(report.base_path).c_str(), &index) != 0) return std::nullopt;
  return std::time(nullptr) - index.st_mtim.tv_sec;
}

void CheckSilence(const ReportStatus& report, std::int64_t stale_seconds, DoctorFindings& findings) {
  const auto silence = SilenceOf(report);
  if (!silence || *silence <= stale_seconds) return;
  findings.push_back({"QX308", InQuotes(report.base_path) + " has had no new record for " + DurationText(*silence),
                      "qxctl report status " + ShellWord(report.base_path)});
}

void CheckReport(const DoctorPlaces& places, const ReportStatus& report, DoctorFindings& findings) {
  const report::StoreState state = report.verdict.state;
  if (state == report::StoreState::kUnreadable) {
    findings.push_back({"QX303", ReasonOf(report.verdict), "ls -l " + ShellWord(report.verdict.file)});
  }
  if (state == report::StoreState::kDamaged) CheckDamage(report, findings);
  if (places.stale_seconds) CheckSilence(report, *places.stale_seconds, findings);
}

// The absolute path, for printed commands, which must work in another working directory, too.
std::string AbsolutePath(const std::string& path) {
  std::error_code error;
  return fs::absolute(path, error).string();
}

void CheckDirectory(const DoctorPlaces& places, const std::string& directory, const report::FoundReports& found,
                    DoctorFindings& findings) {
  if (const std::string open = WritableByOthers(directory); !open.empty()) {
    findings.push_back({"QX306", InQuotes(open) + " can be written by everybody", "chmod o-w " + ShellWord(open)});
  }
  for (const report::UnlistedDirectory& each : found.unlisted) {
    const std::string path = directory + "/" + each.name;
    findings.push_back({"QX303", InQuotes(path) + ": " + std::strerror(each.error), "ls -ld " + ShellWord(path)});
  }
  if (Space space = SpaceFor(directory); space.state != SpaceState::kEnough) {
    findings.push_back(
        {space.state == SpaceState::kFull ? "QX310" : "QX309", std::move(space.fact), std::move(space.command)});
  }
  if (places.stale_seconds && found.names.empty()) {
    findings.push_back({"QX308", "there is no report in " + InQuotes(directory),
                        "qxctl report create " + ShellWord(AbsolutePath(directory) + "/load") + " --slots 1000"});
  }
}

// The command that makes the directory, if the registry or the operator names it; else the command that makes the
// registry name one.
std::string CommandForMissing(const DoctorPlaces& places, const std::string& directory) {
  const bool is_named = !places.report_directory.empty() || SettingsOf(places).source != ReportSettings::Source::kNone;
  return is_named && !directory.empty() ? MakeDirectoryCommand(directory) : NameCommand(places);
}

// Whether the check of the registry has reported why no value names the report directory: a misspelt name, a value of
// another type, or CR LF. Findings about the directory that is used instead would only repeat it.
bool HasCauseInRegistry(const DoctorPlaces& places) {
  if (!places.report_directory.empty()) return false;
  const ReportSettings settings = SettingsOf(places);
  if (settings.source == ReportSettings::Source::kNone) return !settings.mistakes.empty();
  return HasCarriageReturn(settings.value);
}

}  // namespace

void CheckReports(const DoctorPlaces& places, DoctorFindings& findings) {
  if (HasCauseInRegistry(places)) return;
  const std::size_t before = findings.size();
  const std::string directory = DirectoryOf(places, findings);
  if (!directory.starts_with('/')) {
    findings.push_back({"QX307", "the report directory is " + InQuotes(directory), NameCommand(places)});
  }
  const report::FoundReports found = report::FindReports(directory);
  if (found.error == ENOENT) {
    findings.push_back({"QX301", "there is no " + InQuotes(directory), CommandForMissing(places, directory)});
    return;
  }
  if (found.error != 0) {
    findings.push_back(
        {"QX303", InQuotes(directory) + ": " + std::strerror(found.error), "ls -ld " + ShellWord(directory)});
    return;
  }
  CheckDirectory(places, directory, found, findings);
  std::vector<std::string> base_paths;
  const std::string below = directory + "/";
  for (const std::string& name : found.names) base_paths.push_back(below + name);
  for (const ReportStatus& report : report::StatusOfReports(base_paths, report::ReportCheck::kHeader)) {
    CheckReport(places, report, findings);
  }
  if (findings.size() == before) {
    findings.push_back({"QX300",
                        InQuotes(directory) + " has " + std::to_string(found.names.size()) +
                            (found.names.size() == 1 ? " report" : " reports"),
                        ""});
  }
}

}  // namespace qx::ctl
