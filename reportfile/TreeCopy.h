// Internal: the walk behind CDirectory::CopyDir.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <vector>

#include "reportfile/FileCopy.h"

namespace qx::report {

// One copy of one tree. Each directory on the way down is a level with the matches that are still to be handled.
//
// Threads: one; an object is used for one Run.
// Failure: an error number, 0 for success; the trace holds the steps and, for a failure, a line for each level.
class TreeCopy {
 public:
  TreeCopy(const char* pattern, bool overwrite);

  [[nodiscard]] int Run(const std::string& source, const std::string& destination);

 private:
  struct Level {
    std::string destination;
    std::vector<std::string> matches;
    std::size_t next = 0;
    FileId source_id;
  };

  [[nodiscard]] int RunLevels(const std::string& source, const std::string& destination);
  [[nodiscard]] int Enter(const std::string& known, const std::string& expression, Level level);
  [[nodiscard]] int CopyMatch(const std::string& match, const std::string& target);
  [[nodiscard]] int CopySubdirectory(const std::string& match, const struct stat& status, const std::string& target);
  [[nodiscard]] bool IsPartOfThisCopy(const FileId& directory) const;

  std::string pattern_;
  bool overwrite_;
  FileId destination_id_;
  std::vector<Level> levels_;
};

}  // namespace qx::report
