// Checks the traces: the source of each setting, whether they can be written, and which processes write them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "base/tools/FileText.h"
#include "tools/qxctl/cli/text/Quote.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/doctor/Doctor.h"
#include "tools/qxctl/store/SettingCommands.h"

namespace qx::ctl {

namespace {

namespace fs = std::filesystem;
using debug::SettingSource;

bool IsDecimal(const char* text) {
  if (*text == '-' || *text == '+') ++text;
  return *text != '\0' && std::all_of(text, text + std::strlen(text), [](char c) { return c >= '0' && c <= '9'; });
}

// Returns the trace directory. Adds a finding for each setting that is not at its default.
std::string CheckSettings(const DoctorPlaces& places, DoctorFindings& findings) {
  std::string directory;
  for (const SettingSource& source : debug::ReadSettingSources(places.application, places.trace_settings_directory)) {
    if (source.setting == "trace directory") directory = source.value;
    const bool is_path = source.setting == "trace directory";
    const std::string value = is_path ? InQuotes(source.value) : source.value;
    const std::string fact = source.setting + " is " + value + ", from ";
    if (source.kind == SettingSource::Kind::kEnvironment)
      findings.push_back({"QX401", fact + source.name, "qxctl trace config"});
    if (source.kind != SettingSource::Kind::kFile) continue;
    findings.push_back({"QX401",
                        fact + source.name + " in [" + Visible(source.section) + "] of " + InQuotes(source.file),
                        "qxctl trace config"});
  }
  return directory;
}

// The command that sets the variable to the same number in decimal; for a text that is not a number, that unsets it.
//   "QX_LOG_DEBUG_LEVEL", "0x10" => export QX_LOG_DEBUG_LEVEL=16
std::string InDecimal(const std::string& name, const char* value) {
  char* end = nullptr;
  const unsigned long number = std::strtoul(value, &end, 0);
  const bool is_number = end != value && *end == '\0';
  return is_number ? "export " + name + "=" + std::to_string(number) : "unset " + name;
}

void CheckVariables(DoctorFindings& findings) {
  if (std::getenv("QX_LOG_FILE_DIR") != nullptr)
    findings.push_back(
        {"QX402", "QX_LOG_FILE_DIR is set", "export QX_LOG_RINGBUF_DIR=\"$QX_LOG_FILE_DIR\"; unset QX_LOG_FILE_DIR"});
  for (const char* const name : {"QX_LOG_DEBUG_LEVEL", "QX_LOG_DYNAMIC_UPDATE", "QX_LOG_FILE_MAX_SIZE",
                                 "QX_LOG_NOHDR_TOSDTERR", "QX_LOG_RINGBUF_WEIGHT", "TraceFileLimit"}) {
    const char* const value = std::getenv(name);
    if (value != nullptr && !IsDecimal(value)) {
      findings.push_back({"QX410", std::string(name) + " is " + InQuotes(value), InDecimal(name, value)});
    }
  }
}

// Whether the file is complete: its last "[...]" must be "[EndOfFile]", in letters of either case.
bool IsComplete(const fs::path& path) {
  const std::string text = file::TextOf(path);
  const std::size_t end = text.rfind(']');
  const std::size_t begin = end == std::string::npos ? end : text.rfind('[', end);
  if (begin == std::string::npos) return false;
  const std::string name = text.substr(begin + 1, end - begin - 1);
  return strcasecmp(name.c_str(), "EndOfFile") == 0;
}

void CheckSettingsFiles(const DoctorPlaces& places, DoctorFindings& findings) {
  std::error_code ignored;  // without the directory there is nothing to check
  std::set<fs::path> files;
  for (fs::directory_iterator at(places.trace_settings_directory, ignored), end; !ignored && at != end;
       at.increment(ignored)) {
    if (at->path().filename().string().find(".ini") != std::string::npos) files.insert(at->path());
  }
  for (const fs::path& file : files) {
    if (!IsComplete(file))
      findings.push_back({"QX407", InQuotes(file.string()) + " does not end with [EndOfFile]",
                          "echo '[EndOfFile]' >>" + ShellWord(file.string())});
  }
}

// False if no file can be written in the directory.
bool CheckDirectory(const std::string& directory, DoctorFindings& findings) {
  struct stat found;
  if (stat(directory.c_str(), &found) != 0) {
    findings.push_back({"QX403", "there is no " + InQuotes(directory), MakeDirectoryCommand(directory)});
    return false;
  }
  if (!S_ISDIR(found.st_mode)) {
    findings.push_back({"QX404", InQuotes(directory) + " is not a directory", "ls -ld " + ShellWord(directory)});
    return false;
  }
  const bool is_writable = access(directory.c_str(), W_OK | X_OK) == 0;
  const int error = errno;
  if (!is_writable)
    findings.push_back({"QX404", InQuotes(directory) + ": " + std::strerror(error), "ls -ld " + ShellWord(directory)});
  if (const std::string open = WritableByOthers(directory); !open.empty()) {
    findings.push_back({"QX409", InQuotes(open) + " can be written by everybody", "chmod o-w " + ShellWord(open)});
  }
  if (Space space = SpaceFor(directory); space.state != SpaceState::kEnough) {
    findings.push_back({"QX411", std::move(space.fact), std::move(space.command)});
  }
  return true;
}

// Finds the processes that have a log or a ring file of the directory open.
class OpenFiles {
 public:
  explicit OpenFiles(const std::string& directory) {
    std::error_code error;
    const fs::path canonical = fs::canonical(directory, error);
    head_ = (error ? fs::path(directory) : canonical).string() + "/log.";
  }

  void CheckAll(const std::string& process_directory) {
    std::error_code ignored;
    for (fs::directory_iterator at(process_directory, ignored), end; !ignored && at != end; at.increment(ignored)) {
      const std::string name = at->path().filename().string();
      if (IsDecimal(name.c_str()) && name != std::to_string(getpid())) CheckDescriptors(at->path() / "fd", name);
    }
  }

  const std::map<std::string, std::set<std::string>>& Processes() const { return processes_; }
  std::size_t Unseen() const { return unseen_; }

 private:
  void CheckDescriptors(const fs::path& descriptors, const std::string& process) {
    std::error_code error;
    fs::directory_iterator at(descriptors, error);
    if (error && error != std::errc::no_such_file_or_directory) ++unseen_;  // a process that has ended does not count
    for (const fs::directory_iterator end; !error && at != end; at.increment(error)) {
      std::error_code gone;
      const std::string target = fs::read_symlink(at->path(), gone).string();
      if (target.starts_with(head_)) processes_[target].insert(process);
    }
  }

  std::string head_;
  std::map<std::string, std::set<std::string>> processes_;
  std::size_t unseen_ = 0;
};

void CheckWriters(const DoctorPlaces& places, const std::string& directory, DoctorFindings& findings) {
  OpenFiles files(directory);
  files.CheckAll(places.process_directory);
  for (const auto& [file, processes] : files.Processes()) {
    std::string ids;
    for (const std::string& process : processes) ids += (ids.empty() ? "" : ",") + process;
    findings.push_back(
        {processes.size() > 1 ? "QX405" : "QX406", InQuotes(file) + " is open in process " + ids, "ps -fp " + ids});
  }
  if (files.Unseen() > 0) {
    findings.push_back(
        {"QX408", std::to_string(files.Unseen()) + " processes could not be checked", "sudo qxctl doctor"});
  }
}

}  // namespace

void CheckTraces(const DoctorPlaces& places, DoctorFindings& findings) {
  const std::string directory = CheckSettings(places, findings);
  const std::size_t before = findings.size();
  CheckVariables(findings);
  CheckSettingsFiles(places, findings);
  if (CheckDirectory(directory, findings)) CheckWriters(places, directory, findings);
  const auto is_bad = [](const DoctorFinding& finding) { return SeverityOf(finding.code) == Severity::kWarning; };
  if (std::none_of(findings.begin() + static_cast<std::ptrdiff_t>(before), findings.end(), is_bad)) {
    findings.push_back({"QX400", "traces can be written into " + InQuotes(directory), ""});
  }
}

}  // namespace qx::ctl
