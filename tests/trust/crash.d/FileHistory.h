// Records the changes that a function makes to the files of one directory, call by call, and computes every state of
// the directory that a kill or a loss of power during these calls can leave.
//
// A kill leaves everything that was done before it. An interrupted write may have stored any number of its pages, from
// the first one on.
//
// A loss of power leaves the synced content of a file, and any number of the pages written since, from the first one
// on; after them the file ends, or has zeros up to its new length. Each name that was made, moved or removed since the
// last sync of the directory has either changed or not, independently of the others, as long as that is possible.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace qx::trust {

using DirectoryState = std::map<std::string, std::string>;  // name => content

class FileHistory {
 public:
  // Runs `work` on `directory`, which contains only files and is synced, in a child of its own.
  FileHistory(const std::string& directory, const std::function<void()>& prepare, const std::function<void()>& work);

  [[nodiscard]] std::size_t Effects() const { return effects_.size(); }
  // Every different state, including the one before the first call and the one after the last.
  [[nodiscard]] std::set<DirectoryState> StatesOfAKill() const;
  [[nodiscard]] std::set<DirectoryState> StatesOfAPowerCut() const;

 private:
  struct Effect {
    enum class Kind { kCreate, kTruncate, kWrite, kSyncFile, kSyncDirectory, kRename, kExchange, kLink, kRemove };
    Kind kind;
    int file = -1;  // what is created, written, synced
    std::string from = {};
    std::string to = {};
    std::size_t offset = 0;
    std::string bytes = {};
  };
  struct Disk {
    std::map<std::string, int> names;
    std::map<int, std::string> contents;
  };
  class Recorder;

  static bool IsOfNames(const Effect& effect);
  static bool ApplyToNames(const Effect& effect, std::map<std::string, int>& names);
  static void ApplyToContents(const Effect& effect, std::map<int, std::string>& contents);
  static DirectoryState StateOf(const Disk& disk);
  [[nodiscard]] std::set<std::string> ContentsOnDisk(int file, std::size_t effects_done) const;
  [[nodiscard]] std::set<std::map<std::string, int>> NamesOnDisk(std::size_t effects_done) const;
  void AddCombinations(const std::map<std::string, int>& names, std::size_t effects_done,
                       std::set<DirectoryState>& states) const;

  Disk before_;
  std::vector<Effect> effects_;
};

}  // namespace qx::trust
