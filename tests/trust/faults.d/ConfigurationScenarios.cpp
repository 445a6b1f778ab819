// Scenarios for edits of the registry's file and of profile files.
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "base/tools/ReplacedFile.h"
#include "debug/Debug.h"
#include "inifile/IniFile.h"
#include "inifile/tools/ProfileEdit.h"
#include "registry/Registry.h"
#include "registry/RegistryPaths.h"
#include "registry/TreeWriter.h"
#include "tests/support/Support.h"
#include "tests/trust/faults.d/Scenario.h"

namespace qx::trust {

namespace {

using test::Exists;
using test::ReadFile;
using test::WriteFile;

// The text is longer than a page and any buffer.
const std::string long_text(900, 'n');
constexpr const char* kOldTree = "[HKEY_LOCAL_MACHINE]\n[A]\na=s=old\nb=b=01 02 \nc=d=7\n\n\n\n";
constexpr const char* kOlderTree = "[HKEY_LOCAL_MACHINE]\n[A]\na=s=older\n\n\n\n";

std::string NewTree() {
  std::string tree = "[HKEY_LOCAL_MACHINE]\n[A]\na=s=" + long_text + "\nb=b=01 02 \nc=d=7\n";
  for (char name = 'd'; name <= 'n'; ++name) tree += std::string(1, name) + "=s=" + long_text + "\n";
  return tree + "\n\n\n";
}

// The variables are global, because the registry keeps a pointer to the text.
std::string registry_directory;
std::unique_ptr<CRegistry> handle;
bool is_set = false;

std::string LoadedTree(const std::string& directory) {
  registry_directory = directory;
  registry::ResetRegistry(registry_directory.c_str());
  CRegistry::SetupTree(false);
  std::string tree;
  return registry::FormatTree(CRegistry::MRoot, tree) ? tree : "no memory";
}

bool SetAll() {
  bool all = handle->SetValue("a", long_text.c_str()) == 0;
  for (char name = 'd'; name <= 'n'; ++name) {
    all = handle->SetValue(std::string(1, name).c_str(), long_text.c_str()) == 0 && all;
  }
  return all;
}

int DescriptorOf(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (std::filesystem::read_symlink(entry, ignored) == path) return std::stoi(entry.path().filename());
  }
  return -1;
}

void StartTrace(const std::string& directory) {
  setenv("QX_LOG_RINGBUF_DIR", directory.c_str(), 1);
  setenv("QX_LOG_DEBUG_LEVEL", "1", 1);
  (void)Debug.Init("Faults");
  ExemptDescriptor(DescriptorOf(directory + "/log.faults"));
}

void OpenRegistry(const std::string& directory) {
  (void)LoadedTree(directory);
  handle = std::make_unique<CRegistry>("A", CRegistry::MLocalMachine, 0);
}

void PrepareSave(const std::string& directory) {
  WriteFile(directory + "/registry", kOldTree);
  WriteFile(directory + "/registry.old", kOlderTree);
  StartTrace(directory);
  OpenRegistry(directory);
}

void RunSave(const std::string&) {
  is_set = SetAll();
  handle.reset();
}

void StopTrace() { (void)Debug.ForceMaxDebug(false), Debug.ClassInit(); }

// Tries the edit again without a fault. It must work, whatever the failed edit has left.
Finding SaveAgain(const std::string& directory) {
  OpenRegistry(directory);
  const bool is_set_now = SetAll();
  handle.reset();
  if (!is_set_now || ReadFile(directory + "/registry") != NewTree()) return Broken("the next save does not work");
  return Exists(directory + "/registry.new") ? Broken("the next save leaves registry.new") : Kept();
}

// A handle that could not store everything has reported this; its destruction saves the values that it has.
bool IsOldOrNewTree(const std::string& tree) {
  if (is_set) return tree == kOldTree || tree == NewTree();
  const std::string new_tree = NewTree();
  std::size_t lines_seen = 0;
  for (std::size_t at = 0; at < tree.size(); at = tree.find('\n', at) + 1) {
    const std::string line = tree.substr(at, tree.find('\n', at) + 1 - at);
    if (new_tree.find(line) == std::string::npos && std::strstr(kOldTree, line.c_str()) == nullptr) return false;
    ++lines_seen;
  }
  return lines_seen >= 8;  // the keys, their ends and the three values that were there
}

Finding JudgeSave(const std::string& directory) {
  const bool is_reported =
      ReadFile(directory + "/log.faults").find("CRegistry: ERROR: Cannot open") != std::string::npos;
  const bool has_file = Exists(directory + "/registry");
  const bool has_leftover = Exists(directory + "/registry.new");
  const std::string tree = LoadedTree(directory);
  if (!IsOldOrNewTree(tree)) return Broken("a third tree:\n" + tree);
  const bool is_saved = !is_set || tree == NewTree();
  if (const Finding next = SaveAgain(directory); next.kind != Finding::Kind::kKept) return next;
  if (!has_file)
    return Noted("renames are not asked for their result: registry.old is the registry until the next save");
  if (has_leftover && !is_reported)
    return Noted("renames are not asked for their result: the old tree stays, without a report");
  if (has_leftover) return Noted("registry.new could not be removed");
  return is_saved || is_reported ? Kept() : Broken("a failed save was not reported");
}

// A load and two saves. The first save renames the old file to registry.old, and the second one replaces this file,
// too.

void PrepareLoad(const std::string& directory) {
  WriteFile(directory + "/registry", kOldTree);
  WriteFile(directory + "/registry.old", kOlderTree);
  registry_directory = directory;
  registry::ResetRegistry(registry_directory.c_str());
}

void ChangeAndSave(const char* text) {
  CRegistry changed("A", CRegistry::MLocalMachine, 0);
  if (changed.CurrentKey() == nullptr) (void)changed.CreateKey(&CRegistry::MRoot, "HKEY_LOCAL_MACHINE\\A", false, 0);
  (void)changed.SetValue("a", text);
}

void RunLoadAndSaves(const std::string&) {
  ChangeAndSave("first");
  ChangeAndSave("second");
}

bool HoldsOldValues(const std::string& path) {
  const std::string text = Exists(path) ? ReadFile(path) : "";
  return text.find("b=b=01 02 \nc=d=7\n") != std::string::npos;
}

Finding JudgeLoadAndSaves(const std::string& directory) {
  const bool is_there = HoldsOldValues(directory + "/registry") || HoldsOldValues(directory + "/registry.unread");
  if (is_there) return Kept();
  if (Exists(directory + "/registry") || !HoldsOldValues(directory + "/registry.old")) return Broken("values are lost");
  return Noted("renames are not asked for their result: registry.old is the registry until the next save");
}

// Profile files.

bool is_edited = false;
std::string profile_path;  // made before the faults, because the caller's allocations are not tested

std::string ProfileTail() {
  std::string tail;
  for (int i = 0; i < 8; ++i) tail += "key" + std::to_string(i) + "=" + std::string(900, 't') + "\n";
  return tail;
}

std::string Profile(const std::string& value) { return "[S]\nx=0\nk=" + value + "\nb=2\n[T]\n" + ProfileTail(); }
std::string ProfilePath(const std::string& directory) { return directory + "/profile.ini"; }

void PrepareProfile(const std::string& directory) {
  profile_path = ProfilePath(directory);
  WriteFile(profile_path, Profile("1"));
}

bool SetKey(const std::string&) {
  return CIniFile::WritePrivateProfileString("S", "k", "longer", profile_path.c_str());
}
void RunSetKey(const std::string& directory) { is_edited = SetKey(directory); }

Finding JudgeSetKey(const std::string& directory) {
  const std::string text = ReadFile(ProfilePath(directory));
  if (is_edited && text != Profile("longer")) return Broken("true, but not edited");
  if (text != Profile("1") && text != Profile("longer")) {
    return Noted("an edit in place that fails after its first write is false and leaves the file as far as written");
  }
  if (!SetKey(directory) || ReadFile(ProfilePath(directory)) != Profile("longer")) return Broken("the next edit fails");
  return Kept();
}

constexpr const char* kAppended = "\n[New]\n\nk=1\n";
bool AppendSection(const std::string&) {
  return CIniFile::WritePrivateProfileString("New", "k", "1", profile_path.c_str());
}
void RunAppendSection(const std::string& directory) { is_edited = AppendSection(directory); }

Finding JudgeAppendSection(const std::string& directory) {
  const std::string text = ReadFile(ProfilePath(directory));
  const std::string with_section = Profile("1") + kAppended;
  if (is_edited && text != with_section) return Broken("true, but not appended");
  if (text != Profile("1") && text != with_section) return Broken("half a section");
  if (text == Profile("1") && !AppendSection(directory)) return Broken("the next edit fails");
  return ReadFile(ProfilePath(directory)) == with_section ? Kept() : Broken("the next edit differs");
}

bool EditCarefully(const std::string& directory) {
  ReplacedFile replacement;
  if (!replacement.Begin(ProfilePath(directory), {}).IsDone()) return false;
  const inifile::ProfileRequest request = {
      .kind = inifile::ProfileRequest::Kind::kSet, .section = "S", .key = {}, .entries = {{"k", "longer"}}};
  const inifile::ProfilePlan plan = inifile::PlanEdit(replacement.Image().bytes, request);
  if (plan.state != inifile::ProfileState::kDone) return false;
  if (!inifile::TryPlan(plan, replacement.Image().bytes).empty()) return false;
  if (!replacement.WriteCopy(plan.text).IsDone()) return false;
  return replacement.Commit(true).IsDone();
}

void RunEditCarefully(const std::string& directory) { is_edited = EditCarefully(directory); }

std::size_t FilesIn(const std::string& directory) {
  const std::filesystem::directory_iterator files(directory);
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

Finding JudgeEditCarefully(const std::string& directory) {
  const std::string text = ReadFile(ProfilePath(directory));
  const std::size_t files = FilesIn(directory);
  const bool has_copy = Exists(ProfilePath(directory) + ".edit");
  if (is_edited && text != Profile("longer")) return Broken("done, but not edited");
  if (text != Profile("1") && text != Profile("longer")) return Broken("neither the old file nor the new one");
  const bool is_new = text == Profile("longer");
  if (!is_new && !EditCarefully(directory)) return Broken("the next edit fails");
  if (ReadFile(ProfilePath(directory)) != Profile("longer")) return Broken("the next edit differs");
  if (files != (is_new ? 2U : 1U)) {
    return has_copy || files > 2
               ? Noted("a file that cannot be looked at or removed is left; the next edit takes it over")
               : Broken("a file is left or missing");
  }
  return Kept();
}

}  // namespace

std::vector<Scenario> ConfigurationScenarios() {
  return {
      {.name = "registry save",
       .promise = "the old tree or the new one; a save that failed is traced; no registry.new is left",
       .prepare = PrepareSave,
       .run = RunSave,
       .finish = StopTrace,
       .judge = JudgeSave},
      {.name = "registry load and two saves",
       .promise = "nothing lost: what was not read is in registry.unread",
       .prepare = PrepareLoad,
       .run = RunLoadAndSaves,
       .finish = nullptr,
       .judge = JudgeLoadAndSaves},
      {.name = "INI edit in place",
       .promise = "true only with the edit in the file; false with the old file unless the writing itself broke off",
       .prepare = PrepareProfile,
       .run = RunSetKey,
       .finish = nullptr,
       .judge = JudgeSetKey},
      {.name = "INI append",
       .promise = "the old file or the new one, and the result says which",
       .prepare = PrepareProfile,
       .run = RunAppendSection,
       .finish = nullptr,
       .judge = JudgeAppendSection},
      {.name = "careful INI edit (qxctl)",
       .promise = "the old file or the new one with its backup; nothing else is left",
       .prepare = PrepareProfile,
       .run = RunEditCarefully,
       .finish = nullptr,
       .judge = JudgeEditCarefully},
  };
}

}  // namespace qx::trust
