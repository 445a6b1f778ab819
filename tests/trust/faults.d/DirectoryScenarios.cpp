// Scenarios for directory trees: copy and restore.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "registry/RegistryPaths.h"
#include "reportfile/Directory.h"
#include "reportfile/ReportFileBase.h"
#include "tests/support/Support.h"
#include "tests/trust/faults.d/Scenario.h"

namespace qx::trust {

namespace {

using Tree = std::map<std::string, std::string>;  // relative path => content

bool is_done = false;
int error_number = 0;
std::string registry_directory;

// These texts are made before the faults, because the caller's allocations are not tested.
std::string from_path;
std::string to_path;

Tree FromTree() {
  return {{"a.dat", std::string(70000, 'a')}, {"a.ind", "index"}, {"empty", ""}, {"sub/b.dat", std::string(300, 'b')}};
}

void MakeTree(const std::string& directory, const Tree& tree) {
  for (const auto& [name, text] : tree) {
    const std::filesystem::path path = directory + "/" + name;
    std::filesystem::create_directories(path.parent_path());
    test::WriteFile(path, text);
  }
}

Tree TreeAt(const std::string& directory) {
  Tree tree;
  if (!std::filesystem::exists(directory)) return tree;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) tree[entry.path().lexically_relative(directory)] = test::ReadFile(entry.path());
  }
  return tree;
}

// Each file of the copy must be whole, a part from its start on, or unchanged.
bool IsPartOfCopy(const Tree& to) {
  const Tree from = FromTree();
  for (const auto& [name, text] : to) {
    const auto source = from.find(name);
    const bool is_known = source != from.end() && source->second.compare(0, text.size(), text) == 0;
    if (!is_known && !(name == "a.ind" && text == "older")) return false;
  }
  return true;
}

bool Copy(const std::string&) { return CDirectory::CopyDir(from_path.c_str(), to_path.c_str(), "*.*", true); }

void PrepareCopy(const std::string& directory) {
  from_path = directory + "/from";
  to_path = directory + "/to";
  MakeTree(directory + "/from", FromTree());
  MakeTree(directory + "/to", {{"a.ind", "older"}});
}

void RunCopy(const std::string& directory) {
  is_done = Copy(directory);
  error_number = errno;
}

Finding JudgeCopy(const std::string& directory) {
  const Tree to = TreeAt(directory + "/to");
  if (TreeAt(directory + "/from") != FromTree()) return Broken("the source has changed");
  if (!IsPartOfCopy(to)) return Broken("the copy holds what the source does not");
  if (!is_done && error_number == 0) return Broken("false without an error number");
  if (!Copy(directory) || TreeAt(directory + "/to") != FromTree()) return Broken("the next copy does not work");
  if (is_done && to != FromTree()) {
    return Noted("a copy takes a directory that cannot be opened for an empty one, and leaves out what has no status");
  }
  return Kept();
}

bool Restore(const std::string&) { return CReportFileBase::RestoreReportDataFiles(from_path); }

void PrepareRestore(const std::string& directory) {
  PrepareCopy(directory);
  test::WriteFile(directory + "/registry", test::RegistryWithReportRoot(directory + "/to"));
  if (chdir(directory.c_str()) != 0) std::abort();  // without a registry it goes to Reports here
  registry_directory = directory;
  registry::ResetRegistry(registry_directory.c_str());
}

void RunRestore(const std::string& directory) {
  errno = 0;
  is_done = Restore(directory);
  error_number = errno;
}

Finding JudgeRestore(const std::string& directory) {
  const Tree to = TreeAt(directory + "/to");
  if (!IsPartOfCopy(to)) return Broken("the report directory holds what the backup did not");
  const bool is_whole = to == FromTree();
  const bool has_backup = TreeAt(directory + "/from") == FromTree();
  const bool is_elsewhere = TreeAt(directory + "/Reports") == FromTree();
  registry::ResetRegistry(registry_directory.c_str());
  MakeTree(directory + "/from", FromTree());
  if (!Restore(directory) || TreeAt(directory + "/to") != FromTree()) return Broken("the next restore does not work");
  if (is_whole || has_backup) return Kept();
  if (is_elsewhere) return Noted("without a registry that can be read, the reports are restored into Reports");
  if (is_done) return Broken("true, and files are missing");
  return Noted("a restore is attempted once: the backup goes after a copy that failed and said so");
}

}  // namespace

std::vector<Scenario> DirectoryScenarios() {
  return {
      {.name = "directory copy",
       .promise = "true only for a whole copy of what can be read; the source stays",
       .prepare = PrepareCopy,
       .run = RunCopy,
       .finish = nullptr,
       .judge = JudgeCopy},
      {.name = "restore",
       .promise = "nothing lost: everything is restored, or the backup is kept, or a copy failed and said so",
       .prepare = PrepareRestore,
       .run = RunRestore,
       .finish = nullptr,
       .judge = JudgeRestore},
  };
}

}  // namespace qx::trust
