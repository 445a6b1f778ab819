// Scenarios for reports: a backup of the directory, its restore, and saving the records of a damaged store.
#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "registry/RegistryPaths.h"
#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/tools/StoreSalvage.h"
#include "reportfile/tools/directory/StoreBackup.h"
#include "reportfile/tools/directory/StoreRestore.h"
#include "tests/support/Support.h"
#include "tests/trust/faults.d/Scenario.h"

namespace qx::trust {

namespace {

using Tree = std::map<std::string, std::string>;  // relative path => content

constexpr unsigned kSlots = 4;
constexpr int kRecords = 6;

// Made before the faults: the sweep is not about what the caller allocates.
std::string reports;
std::string target;
std::string store;
std::string registry_directory;
Tree before;

// Empty: memory ran out on the way.
std::optional<report::BackupResult> backup;
std::optional<report::RestoreResult> restore;
std::optional<report::SalvageResult> salvage;

Tree TreeAt(const std::string& directory) {
  Tree tree;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) tree[entry.path().lexically_relative(directory)] = test::ReadFile(entry.path());
  }
  return tree;
}

void MakeReports(const std::string& directory) {
  reports = directory + "/reports";
  target = directory + "/saved";
  store = reports + "/r1";
  std::filesystem::create_directories(reports + "/sub");
  CReportFileBase writer;
  bool is_made = writer.Open(store.c_str(), kSlots);
  for (int i = 0; i < kRecords; ++i) is_made = is_made && writer.writeLine(("record " + std::to_string(i)).c_str());
  if (!is_made) std::abort();
  test::WriteFile(reports + "/sub/notes.txt", "notes");
  before = TreeAt(reports);
}

// A name with `part` in it.
bool HasLeftover(const std::string& directory, const char* part) {
  return std::ranges::any_of(std::filesystem::directory_iterator(directory), [part](const auto& entry) {
    return entry.path().filename().string().find(part) != std::string::npos;
  });
}

// --- backup

void RunBackup(const std::string&) { backup = report::BackupReports(reports, target); }

// The files of the reports that are in the backup, according to its result.
Tree CopiedAsReported(const report::BackupResult& result) {
  Tree tree;
  for (const report::BackupItem& item : result.items) {
    const bool has_bytes =
        item.state == report::BackupItemState::kCopied || item.state == report::BackupItemState::kDamaged;
    if (!has_bytes || item.kind == report::BackupItemKind::kSkipped) continue;
    for (const auto& [name, text] : before) {
      const bool is_part = item.kind == report::BackupItemKind::kStore && name.starts_with(item.name + ".");
      if (is_part || name == item.name) tree[name] = text;
    }
  }
  return tree;
}

bool HasDamaged(const report::BackupResult& result) {
  return std::ranges::any_of(
      result.items, [](const report::BackupItem& item) { return item.state == report::BackupItemState::kDamaged; });
}

Finding JudgeBackup(const std::string& directory) {
  const bool is_done = backup.has_value() && backup->state == report::BackupState::kDone;
  const bool has_target = std::filesystem::exists(target);
  if (TreeAt(reports) != before) return Broken("the reports have changed");
  if (is_done && (!has_target || TreeAt(target) != CopiedAsReported(*backup)))
    return Broken("not what the result says");
  if (!is_done && has_target && TreeAt(target) != before) return Broken("half a backup has the requested name");
  const report::BackupResult again = report::BackupReports(reports, target + "2");
  if (again.state != report::BackupState::kDone || TreeAt(target + "2") != before) return Broken("the next one fails");
  if (is_done && CopiedAsReported(*backup) != before)
    return Noted("what cannot be read is left out, and the result names it");
  if (is_done && HasDamaged(*backup))
    return Noted("a copy that cannot be read again counts as damaged, though it is whole");
  if (is_done && HasLeftover(directory, ".partial-")) return Broken("a backup that is done leaves something over");
  if (!is_done && has_target) return Noted("the backup is there whole, but a sync of its directory failed");
  if (HasLeftover(directory, ".partial-")) return Noted("the directory of a backup that failed could not be removed");
  return Kept();
}

// --- restore, into an empty directory: there is nobody to wait for

void PrepareRestore(const std::string& directory) {
  MakeReports(directory);
  std::filesystem::create_directory(target);
  test::WriteFile(directory + "/registry", test::RegistryWithReportRoot(target));
  std::filesystem::current_path(directory);  // without a registry it goes to Reports here
  registry_directory = directory;
  registry::ResetRegistry(registry_directory.c_str());
}

void RunRestore(const std::string&) { restore = report::RestoreReports(reports, target, {}); }

bool RestoresIntoEmptyDirectory() {
  std::filesystem::remove_all(target);
  std::filesystem::create_directory(target);
  registry::ResetRegistry(registry_directory.c_str());
  return report::RestoreReports(reports, target, {}).state == report::RestoreState::kDone && TreeAt(target) == before;
}

Finding JudgeRestore(const std::string&) {
  const bool is_done = restore.has_value() && restore->state == report::RestoreState::kDone;
  const bool is_reported =
      restore.has_value() && (restore->error != 0 || restore->state != report::RestoreState::kFailed);
  const bool is_whole = TreeAt(target) == before;
  const bool has_leftover = HasLeftover(target, ".restore-");
  if (TreeAt(reports) != before) return Broken("the backup has changed");
  if (is_done && !is_whole) return Broken("done, and files are missing");
  if (!RestoresIntoEmptyDirectory()) return Broken("the next one fails");
  if (is_done && has_leftover) return Broken("a restore that is done leaves something over");
  if (has_leftover) return Noted("a new file of a restore that failed could not be removed");
  if (restore.has_value() && !is_reported) return Noted("a restore that failed names the file, but no reason");
  return Kept();
}

// --- salvage

void RunSalvage(const std::string&) { salvage = report::SalvageStore(store, target, false); }

std::vector<std::string> RecordsAt(const std::string& base_path) {
  CReportFileBase reader;
  std::vector<std::string> records;
  std::string text;
  if (!reader.OpenRead(base_path.c_str())) return {"cannot be opened"};
  for (unsigned i = 0; i < reader.header().highestIndex; ++i) {
    if (reader.readLine(text, report::SlotOfLogical(reader.header(), i)))
      records.push_back(text.substr(0, text.find('\r')));
  }
  return records;
}

Finding JudgeSalvage(const std::string&) {
  const std::vector<std::string> expected = {"record 2", "record 3", "record 4", "record 5"};
  const bool is_done = salvage.has_value() && salvage->state == report::SalvageState::kDone;
  const bool has_index = std::filesystem::exists(target + ".ind");
  const bool has_data = std::filesystem::exists(target + ".dat");
  if (TreeAt(reports) != before) return Broken("the store has changed");
  if (is_done && RecordsAt(target) != expected) return Broken("done, and records are missing");
  if (!is_done && has_index && has_data && RecordsAt(target) != expected)
    return Broken("failed, and left half a store");
  if (report::SalvageStore(store, target + "2", false).state != report::SalvageState::kDone) {
    return Broken("the next one fails");
  }
  if (RecordsAt(target + "2") != expected) return Broken("the next one misses records");
  if (!is_done && has_index != has_data) return Noted("one new file could not be removed; the next salvage names it");
  if (!is_done && has_index) return Noted("the new store is there whole, but a sync of its directory failed");
  return Kept();
}

}  // namespace

std::vector<Scenario> ReportToolScenarios() {
  return {
      {.name = "report backup (qxctl)",
       .promise = "a whole backup of what the result names, or nothing of the requested name; the reports stay",
       .prepare = MakeReports,
       .run = RunBackup,
       .finish = nullptr,
       .judge = JudgeBackup},
      {.name = "report restore (qxctl)",
       .promise = "every file of the backup in its place, or a failure; the backup stays",
       .prepare = PrepareRestore,
       .run = RunRestore,
       .finish = nullptr,
       .judge = JudgeRestore},
      {.name = "report salvage (qxctl)",
       .promise = "every record in the new store, or no new store; the old one stays",
       .prepare = MakeReports,
       .run = RunSalvage,
       .finish = nullptr,
       .judge = JudgeSalvage},
  };
}

}  // namespace qx::trust
