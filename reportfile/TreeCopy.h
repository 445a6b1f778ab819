// Internal: copies a directory tree, for CDirectory::CopyDir and for a restore.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/FileCopy.h"
#include "reportfile/TreeListing.h"

namespace qx::report {

// One copy of one tree. Each directory on the way down is a level with the matches that are still to be handled.
//
// Threads: one; an object is used for one run.
// Failure: an error number, 0 for success; the trace contains the steps and, for a failure, a line for each level.
class TreeCopy {
 public:
  TreeCopy(const char* pattern, bool overwrite);

  // Copies what the expression source + "/" + pattern matches.
  [[nodiscard]] int Run(const std::string& source, const std::string& destination);
  // Copies everything that `listing` contains below `source`, and nothing that is not in it.
  [[nodiscard]] int RunListed(const std::string& source, const TreeListing& listing, const std::string& destination);

 private:
  struct Match {
    std::string path;
    std::optional<FileKind> kind = {};  // none: not known yet
  };
  struct Level {
    std::string destination;
    std::vector<Match> matches = {};
    std::size_t next = 0;
    FileId source_id = {};
    int listing_error = 0;  // if not 0, `matches` may not be complete
  };
  // What is to be copied from a directory, or why there is nothing.
  struct Found {
    std::vector<Match> matches;
    int error = 0;
    int listing_error = 0;
  };

  [[nodiscard]] int Start(const std::string& known, const std::string& expression, Level top);
  [[nodiscard]] int RunLevels(const std::string& destination);
  [[nodiscard]] int Enter(const std::string& known, const std::string& expression, Level level);
  [[nodiscard]] int Leave();
  [[nodiscard]] Found FindMatches(const std::string& known, std::string_view expression) const;
  [[nodiscard]] int CopyMatch(const Match& match, const std::string& target);
  [[nodiscard]] int CopySubdirectory(const std::string& match, const FileKind& kind, const std::string& target);
  [[nodiscard]] bool IsPartOfThisCopy(const FileId& directory) const;

  std::string pattern_;
  bool overwrite_;
  const TreeListing* listing_ = nullptr;
  FileId destination_id_;
  std::vector<Level> levels_;
};

}  // namespace qx::report
