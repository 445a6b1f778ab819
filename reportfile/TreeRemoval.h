// Internal: the walk behind CDirectory::RemoveDir.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace qx::report {

// One removal of one tree. Each directory on the way down is a level with the names that are still to be handled.
//
// Threads: one; an object is used for one Run.
// Failure: an error number, 0 for success; the trace holds the steps and, for a failure, a line for each level.
class TreeRemoval {
 public:
  [[nodiscard]] int Run(const std::string& directory, bool remove_parent);

 private:
  struct Level {
    std::string path;
    std::vector<std::string> names;
    std::size_t next = 0;
  };

  [[nodiscard]] int RunLevels(const std::string& directory, bool remove_parent);
  [[nodiscard]] int Enter(const std::string& path);
  [[nodiscard]] int RemoveEntry(const std::string& path);
  [[nodiscard]] int LeaveEmptied(bool remove_parent);

  std::vector<Level> levels_;
};

}  // namespace qx::report
