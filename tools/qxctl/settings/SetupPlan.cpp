#include "tools/qxctl/settings/SetupPlan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>

#include "base/File.h"
#include "base/tools/FilePlace.h"
#include "base/tools/ReplacedFile.h"
#include "registry/Registry.h"
#include "registry/tools/FileLint.h"
#include "registry/tools/TreeDiff.h"
#include "registry/tools/TreeEdit.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/cli/text/Quote.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/settings/Settings.h"
#include "tools/qxctl/store/ReportSettings.h"
#include "tools/qxctl/store/SettingCommands.h"
#include "tools/qxctl/store/WritablePath.h"

namespace qx::ctl {

namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr const char* kRegistryNames[] = {"registry", "registry.old", "registry.default"};

// Sets the umask until destruction, so that directories get the mode that is shown, not one that depends on the
// caller's umask. The umask belongs to the process, so no other thread may make files meanwhile.
class OpenMask {
 public:
  OpenMask() : before_(umask(S_IWGRP | S_IWOTH)) {}
  ~OpenMask() { umask(before_); }
  OpenMask(const OpenMask&) = delete;
  OpenMask& operator=(const OpenMask&) = delete;

 private:
  mode_t before_;
};

// --- the steps

// "/a/b" => "/a", "/a/b"
std::vector<std::string> DirectoriesTo(const std::string& path) {
  std::vector<std::string> way;
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    way.push_back(path.substr(0, slash));
  }
  way.push_back(path);
  return way;
}

Status NotADirectory(const std::string& path) {
  return {ExitCode::kRefused, Visible(path) + " is not a directory; move it away, or name another directory"};
}

Status OpenToAll(const std::string& open, const std::string& path) {
  return {ExitCode::kRefused, Visible(open) + " can be written by everybody, so others could replace " + Visible(path) +
                                  "; \"chmod o-w " + ShellWord(open) + "\" prevents that"};
}

bool IsPlanned(const std::vector<SetupStep>& steps, const std::string& path) {
  return std::any_of(steps.begin(), steps.end(), [&](const SetupStep& step) { return step.path == path; });
}

Status AddDirectory(const std::string& directory, std::vector<SetupStep>& steps) {
  for (const std::string& path : DirectoriesTo(directory)) {
    if (IsPlanned(steps, path)) continue;
    struct stat status;
    const int error = file::StatusOf(path.c_str(), status);
    if (error == ENOTDIR || (error == 0 && !S_ISDIR(status.st_mode))) return NotADirectory(path);
    if (error == 0 && path != directory) continue;
    if (error != 0 && error != ENOENT) return Status::Io("cannot use " + Visible(path), error);
    const std::string open = error != 0 ? WritableByOthers(file::DirectoryOf(path)) : "";
    if (!open.empty()) return OpenToAll(open, path);
    SetupStep step = {.path = path, .owner = geteuid(), .group = getegid(), .mode = kDirectoryMode};
    if (error == 0) step = {path, true, true, status.st_uid, status.st_gid, status.st_mode & 07777};
    steps.push_back(std::move(step));
  }
  return {};
}

Status MakeOne(const SetupStep& step) {
  FilePlace place;
  if (ReplaceResult found = FindPlace(step.path, LinkRule::kTrusted, place); !found.IsDone()) {
    return StatusOfFile("cannot make", found);
  }
  const int error = file::MakeDirectory(place.name.c_str(), step.mode, place.directory.Number());
  if (error == 0) return {};
  const Status failed = Status::Io("cannot make " + Visible(step.path), error);
  const bool is_forbidden = error == EACCES || error == EPERM;
  return is_forbidden ? Status(ExitCode::kIo, failed.Message() + "; do this as root") : failed;
}

Status MakeFile(const SetupStep& step, const std::string& text) {
  ReplacedFile file;
  const EditOptions options = {.apply = true, .force = false};
  if (Status status = BeginEdit(file, step.path, options, true); !status.IsOk()) return status;
  if (file.Image().exists) return {ExitCode::kChanged, Visible(step.path) + " was made meanwhile and is left as it is"};
  if (Status status = StatusOfEdit(file.WriteCopy(text)); !status.IsOk()) return status;
  return StatusOfEdit(file.Commit(false));
}

// --- an existing registry

// The bytes of a registry file; unset if it does not load.
std::optional<std::string> LoadableBytes(const std::string& path) {
  FileImage image;
  if (!ReadFileImage(path, image).IsDone()) return std::nullopt;
  CRegistryNode tree;
  if (!registry::ParseTree(image.bytes, tree)) return std::nullopt;
  return std::move(image.bytes);
}

bool HasCarriageReturns(std::string_view bytes) {
  const registry::LintResult lint = registry::LintFile(bytes);
  return std::any_of(lint.findings.begin(), lint.findings.end(), [](const registry::LintFinding& finding) {
    return std::string_view(finding.rule) == "carriage-return";
  });
}

std::string WithoutCarriageReturns(std::string_view bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const bool ends_line = bytes.substr(i).starts_with("\r\n");
    if (!ends_line) text.push_back(bytes[i]);
  }
  return text;
}

// The bytes of the registry file after its repair. Adds the commands of the repair to `needed`.
std::string RepairedBytes(const SetupPlaces& places, const SettingCommands& commands,
                          std::vector<std::string>& needed) {
  const std::string path = places.RegistryFile();
  std::optional<std::string> bytes = LoadableBytes(path);
  for (const char* const name : kRegistryNames) {
    if (bytes) break;
    const std::string fallback = places.registry + "/" + name;
    bytes = LoadableBytes(fallback);
    if (bytes) needed.push_back(commands.Import(fallback));
  }
  if (!bytes || !HasCarriageReturns(*bytes)) return bytes.value_or("");
  needed.push_back(RemoveCarriageReturnsCommand(path));
  return WithoutCarriageReturns(*bytes);
}

// Sets `directory` to the report directory of the settings. If they do not name a usable one, adds the command that
// sets it.
void AddSettings(const ReportSettings& settings, const SetupPlaces& places, const SettingCommands& commands,
                 std::vector<std::string>& needed, std::string& directory) {
  directory = settings.value;
  if (settings.source == ReportSettings::Source::kDirectoryAbove) directory += "/Reports";
  const bool is_other = places.names_reports && directory != places.reports;
  if (settings.source == ReportSettings::Source::kNone && !settings.mistakes.empty() && !places.names_reports) {
    const SettingMistake& first = settings.mistakes.front();
    needed.push_back(commands.Fix(first, settings.setup_key));
    directory = first.value.empty() ? std::string(kDefaultReportDirectory) : first.value;
  } else if (is_other || settings.source == ReportSettings::Source::kNone || !directory.starts_with('/')) {
    needed.push_back(commands.Set(settings.setup_key, kReportRoot, places.reports));
    directory = places.reports;
  }
}

}  // namespace

Status PlanSteps(const SetupPlaces& places, std::vector<SetupStep>& steps) {
  for (const std::string& directory : {places.traces, places.reports, places.registry}) {
    if (Status status = AddDirectory(directory, steps); !status.IsOk()) return status;
  }
  steps.push_back({places.RegistryFile(), false, false, geteuid(), getegid(), kFileMode});
  return {};
}

Status MakeSteps(const std::vector<SetupStep>& steps, const std::string& text) {
  const OpenMask mask;
  for (const SetupStep& step : steps) {
    if (step.exists) continue;
    Status made = step.is_directory ? MakeOne(step) : MakeFile(step, text);
    if (!made.IsOk()) return made;
  }
  return {};
}

Status FirstRegistry(const SetupPlaces& places, std::string& text) {
  std::string root(kDefaultRoot);
  std::replace(root.begin(), root.end(), '/', '\\');
  const std::string setup_key = "HKEY_LOCAL_MACHINE/" + std::string(kDefaultRoot) + "/Setup";
  CRegistryNode tree;
  const bool is_made =
      registry::SetValue(tree, kPointerKey, kRootPointer, {REG_SZ, root}) == registry::EditState::kDone &&
      registry::SetValue(tree, setup_key, kReportRoot, {REG_SZ, places.reports}) == registry::EditState::kDone;
  if (!is_made) return {ExitCode::kIo, "there is not enough memory"};
  if (const auto refusal = registry::WhyNotStorable(tree, text)) {
    return {ExitCode::kRefused,
            "the registry cannot name the report directory " + Visible(places.reports) + ": " + refusal->reason};
  }
  return {};
}

bool HasRegistry(const std::string& directory) {
  return std::any_of(std::begin(kRegistryNames), std::end(kRegistryNames), [&](const char* name) {
    struct stat status;
    const std::string path = directory + "/" + name;
    return file::StatusOf(path.c_str(), status, AT_SYMLINK_NOFOLLOW) == 0;
  });
}

std::vector<std::string> CommandsFor(const SetupPlaces& places) {
  const SettingCommands commands(places.registry);
  std::vector<std::string> needed;
  CRegistryNode tree;
  (void)registry::ParseTree(RepairedBytes(places, commands, needed), tree);  // without a value it is empty
  std::string reports;
  AddSettings(ReadReportSettings(tree), places, commands, needed, reports);
  for (const std::string& directory : {reports, places.traces}) {
    struct stat status;
    if (file::StatusOf(directory.c_str(), status) != 0) needed.push_back(MakeDirectoryCommand(directory));
  }
  return needed;
}

}  // namespace qx::ctl
