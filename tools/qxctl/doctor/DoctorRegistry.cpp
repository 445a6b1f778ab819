// Checks the registry: which of its files is used, and whether this file is protected and whole.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <string_view>

#include "base/File.h"
#include "base/tools/ReplacedFile.h"
#include "registry/Registry.h"
#include "registry/tools/FileLint.h"
#include "tools/qxctl/cli/text/Quote.h"
#include "tools/qxctl/doctor/Doctor.h"
#include "tools/qxctl/store/ReportSettings.h"
#include "tools/qxctl/store/SettingCommands.h"

namespace qx::ctl {

namespace {

const char kLocalMachine[] = "HKEY_LOCAL_MACHINE";

bool HasHive(CRegistryNode& root) {
  const LockScope lock(root.Lock());
  for (const StrMapEntry& entry : root.Entries()) {
    if (entry.name != nullptr && std::strcmp(entry.name, kLocalMachine) == 0) return true;
  }
  return false;
}

// Whether there is a file at `path`; adds findings about the file itself.
bool CheckFile(const std::string& path, DoctorFindings& findings) {
  struct stat found;
  if (lstat(path.c_str(), &found) != 0) return false;
  const std::string word = ShellWord(path);
  if (S_ISLNK(found.st_mode)) {
    findings.push_back({"QX205", InQuotes(path) + " is a symbolic link",
                        "cp --remove-destination \"$(readlink -f " + word + ")\" " + word});
  }
  const file::Descriptor opened = file::Open(path.c_str(), O_RDONLY);
  const int error = errno;
  if (!opened.IsOpen()) {
    findings.push_back({"QX203", InQuotes(path) + ": " + std::strerror(error),
                        error == EACCES ? "sudo chmod a+r " + word : "ls -l " + word});
    return true;
  }
  if (const std::string open_to_all = WritableByOthers(path); !open_to_all.empty()) {
    findings.push_back(
        {"QX206", InQuotes(open_to_all) + " can be written by everybody", "chmod o-w " + ShellWord(open_to_all)});
  }
  return true;
}

// Adds the first finding of each rule, and how many more there are of this rule. False if lines end with CR LF: the
// content of the file can be checked only after each CR is removed.
bool CheckLines(const std::string& path, DoctorFindings& findings) {
  FileImage image;
  if (!ReadFileImage(path, image).IsDone()) return true;  // reported already
  const registry::LintResult lint = registry::LintFile(image.bytes);
  constexpr std::string_view kCarriageReturn = "carriage-return";
  const bool has_crlf =
      std::any_of(lint.findings.begin(), lint.findings.end(),
                  [&](const registry::LintFinding& finding) { return finding.rule == kCarriageReturn; });
  std::set<std::string_view> shown;
  for (const registry::LintFinding& finding : lint.findings) {
    const std::string_view rule = finding.rule;
    if (!shown.insert(rule).second) continue;
    const auto is_alike = [&](const registry::LintFinding& other) { return other.rule == rule; };
    const auto more = std::count_if(lint.findings.begin(), lint.findings.end(), is_alike) - 1;
    const std::string fact = "line " + std::to_string(finding.line) + " of " + InQuotes(path) + ": " +
                             std::string(rule) + ": " + finding.explanation +
                             (more > 0 ? " (and " + std::to_string(more) + " more lines)" : "");
    if (has_crlf && rule != kCarriageReturn) continue;  // they follow from the CRs
    if (rule == kCarriageReturn) {
      findings.push_back({"QX212", fact, RemoveCarriageReturnsCommand(path)});
    } else {
      const bool is_error = finding.severity == registry::LintSeverity::kError;
      findings.push_back({is_error ? "QX209" : "QX213", fact, "qxctl registry lint --file " + ShellWord(path)});
    }
  }
  return !has_crlf;
}

void CheckMistakes(const DoctorPlaces& places, const ReportSettings& settings, DoctorFindings& findings) {
  const SettingCommands commands(places.registry_directory);
  for (const SettingMistake& mistake : settings.mistakes) {
    const std::string fix = commands.Fix(mistake, settings.setup_key);
    const std::string place = mistake.key.empty() ? "at the root" : "in " + InQuotes(mistake.key);
    switch (mistake.kind) {
      case SettingMistake::Kind::kNearValue:
        findings.push_back({"QX210",
                            "the value " + InQuotes(mistake.found) + " " + place + " is not read; the module reads " +
                                InQuotes(mistake.expected),
                            fix});
        break;
      case SettingMistake::Kind::kNearKey:
        findings.push_back({"QX210",
                            "the key " + InQuotes(mistake.found) + " " + place + " is not read; the module reads " +
                                InQuotes(mistake.expected),
                            fix});
        break;
      case SettingMistake::Kind::kNoString:
        findings.push_back({"QX211", "the value " + InQuotes(mistake.found) + " " + place + " is not a string", fix});
        break;
    }
  }
}

void CheckTree(const DoctorPlaces& places, const std::string& path, bool is_first, CRegistryNode& tree,
               DoctorFindings& findings) {
  const SettingCommands commands(places.registry_directory);
  const ReportSettings settings = ReadReportSettings(tree);
  if (!is_first) findings.push_back({"QX202", "the registry comes from " + InQuotes(path), commands.Import(path)});
  if (!HasHive(tree)) {
    findings.push_back({"QX207", InQuotes(path) + " has no hive " + kLocalMachine,
                        commands.Set(settings.setup_key, kReportRoot, kDefaultReportDirectory)});
  }
  const bool has_line_feeds = CheckLines(path, findings);
  if (has_line_feeds) CheckMistakes(places, settings, findings);
}

}  // namespace

void CheckRegistry(const DoctorPlaces& places, DoctorFindings& findings) {
  const std::size_t before = findings.size();
  const SettingCommands commands(places.registry_directory);
  bool has_file = false;
  std::string source;
  for (const char* const name : {"registry", "registry.old", "registry.default"}) {
    const std::string path = places.registry_directory + "/" + name;
    has_file |= CheckFile(path, findings);
    CRegistryNode tree;
    if (!source.empty() || !CRegistry::ReadTree(path.c_str(), tree)) continue;
    source = path;
    CheckTree(places, path, std::strcmp(name, "registry") == 0, tree, findings);
  }
  const std::string unread = places.registry_directory + "/registry.unread";
  const std::string registry = places.registry_directory + "/registry";
  if (access(unread.c_str(), F_OK) == 0) {
    findings.push_back({"QX208", "there is a " + InQuotes(unread),
                        "qxctl registry diff " + ShellWord(unread) + " " + ShellWord(registry)});
  }
  if (!has_file) {
    findings.push_back({"QX201", "there is no registry in " + InQuotes(places.registry_directory), commands.Setup()});
  } else if (source.empty()) {
    findings.push_back(
        {"QX204", "no registry file in " + InQuotes(places.registry_directory) + " has a value",
         commands.Set(ReadReportSettings(CRegistryNode()).setup_key, kReportRoot, kDefaultReportDirectory)});
  }
  if (findings.size() == before) findings.push_back({"QX200", InQuotes(source) + " loads", ""});
}

}  // namespace qx::ctl
