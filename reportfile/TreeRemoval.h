// Internal: removes a directory tree, for CDirectory::RemoveDir.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "base/File.h"
#include "reportfile/DirectoryCursor.h"

namespace qx::report {

// One removal of one tree. Each directory on the way down is a level with the names that are still to be handled.
// Everything is removed by its name in an open directory. So a user who exchanges a directory of the tree for a link
// cannot lead the removal elsewhere.
//
// Threads: one; an object is used for one Run.
// Failure: an error number, 0 for success; the trace contains the steps and, for a failure, a line for each level.
class TreeRemoval {
 public:
  [[nodiscard]] int Run(const std::string& directory, bool remove_parent);

 private:
  struct Level {
    std::string path;
    std::string name;  // in the directory above it
    std::vector<std::string> names = {};
    std::size_t next = 0;
  };

  [[nodiscard]] int RunLevels(const std::string& directory, bool remove_parent);
  [[nodiscard]] int Enter(Level level);
  [[nodiscard]] int Open(const Level& level);
  [[nodiscard]] int RemoveEntry(const std::string& name, const std::string& path);
  [[nodiscard]] int LeaveLevel(bool remove_parent);
  [[nodiscard]] int RemoveParent(const Level& level, bool is_top);

  file::Descriptor above_top_;
  DirectoryCursor cursor_;
  std::vector<Level> levels_;
};

}  // namespace qx::report
