// Internal: a walk through a directory tree that no link can lead out of.
#pragma once

#include <string>
#include <vector>

#include "base/File.h"
#include "reportfile/FileCopy.h"

namespace qx::report {

// The open directory in which a walk through a tree is. Each directory is opened by its name in the one above it, never
// through a symbolic link, and the way up is checked. So a user who exchanges directories of the tree during the walk
// can end it, but cannot lead it out of the tree. At most three descriptors are open, whatever the depth.
//
// Threads: one thread.
// Owns: the directory and the one above it.
// Failure: an error number. After a failed Leave the cursor cannot be used any more.
class DirectoryCursor {
 public:
  // Begins in `top`, an open directory.
  [[nodiscard]] int Begin(file::Descriptor top);

  // The open directory.
  [[nodiscard]] int Number() const { return current_.Number(); }
  // Enters a subdirectory. ENOTDIR or ELOOP for a symbolic link.
  [[nodiscard]] int Enter(const std::string& name);
  // Returns to the directory from which the current one was entered. ESTALE: a directory was moved elsewhere.
  [[nodiscard]] int Leave();

 private:
  file::Descriptor current_;
  file::Descriptor above_;   // the directory from which `current_` was entered; not open at the top
  std::vector<FileId> way_;  // from the top to the current directory
};

}  // namespace qx::report
