// Tests saves of the registry and edits of files: after a crash, the content is the old one or the new one.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "base/tools/ReplacedFile.h"
#include "registry/Registry.h"
#include "registry/RegistryPaths.h"
#include "registry/TreeWriter.h"
#include "tests/support/Support.h"
#include "tests/trust/crash.d/FileHistory.h"
#include "tests/trust/crash.d/Rows.h"

namespace qx::trust {

namespace {

constexpr std::size_t kReportsMax = 3;

// The change to be tested, and how a state of the directory is read.
struct Case {
  const char* name;
  DirectoryState before;
  std::function<void(const std::string& directory)> prepare;
  std::function<void(const std::string& directory)> work;
  std::function<std::string(const std::string& directory)> read;
};

std::string Tree(const std::string& value) {
  return "[HKEY_LOCAL_MACHINE]\n[A]\na=s=" + value + "\nb=b=01 02 \n[B]\nc=d=7\n\n\n\n\n";
}

const std::string& Kept(const std::string& directory) {
  static std::string kept;  // the registry keeps the pointer
  kept = directory;
  return kept;
}

std::string ReadTree(const std::string& directory) {
  registry::ResetRegistry(Kept(directory).c_str());
  CRegistry::SetupTree(false);
  std::string tree;
  return registry::FormatTree(CRegistry::MRoot, tree) ? tree : "no memory";
}

void LoadTree(const std::string& directory) { (void)ReadTree(directory); }

// Sets so many values that the file becomes `pages` pages long.
void Change(std::size_t pages) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  bool is_set = handle.SetValue("a", "new") == 0;
  for (std::size_t i = 0; i < pages * 4; ++i) {
    const std::string name = "value" + std::to_string(i);
    is_set = handle.SetValue(name.c_str(), std::string(1000, static_cast<char>('a' + i % 26)).c_str()) == 0 && is_set;
  }
  if (!is_set) _exit(3);
}

void DeleteAllValues() {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  if (handle.DeleteValue("a") != 0 || handle.DeleteValue("b") != 0) _exit(3);
  CRegistry key("A\\B", CRegistry::MLocalMachine, 0);
  if (key.DeleteValue("c") != 0) _exit(3);
}

std::vector<Case> RegistryCases(std::size_t pages) {
  const auto change = [pages](const std::string&) { Change(pages); };
  return {
      {"with a backup", {{"registry", Tree("old")}, {"registry.old", Tree("older")}}, LoadTree, change, ReadTree},
      {"without a backup", {{"registry", Tree("old")}}, LoadTree, change, ReadTree},
      {"of a tree that came from the default", {{"registry.default", Tree("old")}}, LoadTree, change, ReadTree},
      {"after a save that was killed",
       {{"registry", Tree("old")}, {"registry.old", Tree("older")}, {"registry.new", "[HKEY_LOC"}},
       LoadTree,
       change,
       ReadTree},
      {"after a save that was killed between its renames",
       {{"registry.old", Tree("old")}, {"registry.new", Tree("lost")}},
       LoadTree,
       change,
       ReadTree},
      {"of a tree that came from the backup of a damaged file",
       {{"registry", "damaged\n"}, {"registry.old", Tree("old")}},
       LoadTree,
       change,
       ReadTree},
      {"over an empty file", {{"registry", ""}, {"registry.old", Tree("old")}}, LoadTree, change, ReadTree},
  };
}

std::string ProfilePath(const std::string& directory) { return directory + "/profile.ini"; }

Case CarefulEdit(std::size_t pages) {
  const std::string text = "[S]\nk=new\n" + std::string(pages * 4096, 't') + "\n";
  const auto edit = [text](const std::string& directory) {
    ReplacedFile replacement;
    const bool is_done = replacement.Begin(ProfilePath(directory), {}).IsDone() &&
                         replacement.WriteCopy(text).IsDone() && replacement.Commit(true).IsDone();
    if (!is_done) _exit(3);
  };
  const auto read = [](const std::string& directory) {
    return test::Exists(ProfilePath(directory)) ? test::ReadFile(ProfilePath(directory)) : "nothing";
  };
  return {"", {{"profile.ini", "[S]\nk=old\n"}}, [](const std::string&) {}, edit, read};
}

void Build(const std::string& directory, const DirectoryState& state) {
  std::filesystem::remove_all(directory);
  std::filesystem::create_directory(directory);
  for (const auto& [name, content] : state) test::WriteFile(directory + "/" + name, content);
}

struct Verdict {
  std::size_t states = 0;
  std::size_t old_ones = 0;
  std::size_t new_ones = 0;
  std::size_t third_ones = 0;
};

void Report(const Case& which, const char* crash, const DirectoryState& state, const std::string& found) {
  std::fprintf(stderr, "BROKEN: %s, %s: neither old nor new but\n%.300s\nfrom", which.name, crash, found.c_str());
  for (const auto& [name, content] : state) std::fprintf(stderr, " %s (%zu bytes)", name.c_str(), content.size());
  std::fprintf(stderr, "\n");
}

// Counts the states with the old content, those with the new one, and those with any other content.
Verdict Judge(const Case& which, const char* crash, const std::string& directory,
              const std::set<DirectoryState>& states, const std::string& old_content, const std::string& new_content) {
  Verdict verdict = {.states = states.size()};
  for (const DirectoryState& state : states) {
    Build(directory, state);
    const std::string found = which.read(directory);
    if (found == new_content) {
      ++verdict.new_ones;
    } else if (found == old_content) {
      ++verdict.old_ones;
    } else if (++verdict.third_ones <= kReportsMax) {
      Report(which, crash, state, found);
    }
  }
  return verdict;
}

bool PrintVerdict(const std::string& what, const char* crash, const Verdict& verdict) {
  std::printf(
      "| %s, %s | %zu states: %zu load the old content, %zu the new one, %zu a third | old or new, never a third |\n",
      what.c_str(), crash, verdict.states, verdict.old_ones, verdict.new_ones, verdict.third_ones);
  std::fflush(stdout);
  return verdict.third_ones == 0;
}

bool CheckCase(const std::string& what, const Case& which) {
  const std::string directory = "/var/log/crash." + std::to_string(getpid());
  Build(directory, which.before);
  const std::string old_content = which.read(directory);
  Build(directory, which.before);
  const FileHistory history(
      directory, [&] { which.prepare(directory); }, [&] { which.work(directory); });
  const std::string new_content = which.read(directory);
  if (new_content == old_content || history.Effects() < 4) {
    std::fprintf(stderr, "BROKEN: %s changes nothing\n", which.name);
    return false;
  }
  const std::string title = what + " " + which.name;
  const bool is_kept = PrintVerdict(
      title, "killed", Judge(which, "killed", directory, history.StatesOfAKill(), old_content, new_content));
  return PrintVerdict(title, "power cut",
                      Judge(which, "power cut", directory, history.StatesOfAPowerCut(), old_content, new_content)) &&
         is_kept;
}

// A tree without values does not load, so the next process loads the backup, which is the old tree.
bool CheckTreeWithoutValues() {
  const std::string directory = "/var/log/crash." + std::to_string(getpid());
  const Case which = {
      "without values", {{"registry", Tree("old")}}, LoadTree, [](const std::string&) { DeleteAllValues(); }, ReadTree};
  Build(directory, which.before);
  const FileHistory history(
      directory, [&] { LoadTree(directory); }, [&] { DeleteAllValues(); });
  const Verdict verdict = Judge(which, "power cut", directory, history.StatesOfAPowerCut(), Tree("old"),
                                "[HKEY_LOCAL_MACHINE]\n[A]\n[B]\n\n\n\n\n");
  std::printf(
      "| registry save of a tree that has no value left, power cut | %zu states: %zu load the old tree, %zu a third "
      "| the old tree (the format cannot hold one without values) |\n",
      verdict.states, verdict.old_ones, verdict.third_ones);
  return verdict.third_ones == 0;
}

}  // namespace

bool CheckSaves(CrashForm form) {
  const std::size_t pages = form == CrashForm::kQuick ? 4 : 40;
  bool is_kept = true;
  for (const Case& which : RegistryCases(pages)) is_kept = CheckCase("registry save", which) && is_kept;
  is_kept = CheckTreeWithoutValues() && is_kept;
  is_kept = CheckCase("careful edit of a file (qxctl)", CarefulEdit(pages)) && is_kept;
  std::filesystem::remove_all("/var/log/crash." + std::to_string(getpid()));
  return is_kept;
}

}  // namespace qx::trust
