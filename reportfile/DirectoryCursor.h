// Internal: walks through a directory tree, so that no link can lead out of it.
#pragma once

#include <string>
#include <vector>

#include "base/File.h"
#include "reportfile/FileCopy.h"

namespace qx::report {

// The current directory of a walk through a tree, open. Each directory is opened by its name in the one above it, never
// through a symbolic link. On the way up, the device and inode of each directory are compared with those on the way
// down. So a user who exchanges directories of the tree during the walk can end it, but cannot lead it out of the tree.
// At most three descriptors are open, whatever the depth.
//
// Threads: one thread.
// Owns: the current directory and the one above it, both open.
// Failure: an error number. After a failed Leave the cursor cannot be used any more.
class DirectoryCursor {
 public:
  // Begins in `top`, an open directory.
  [[nodiscard]] int Begin(file::Descriptor top);

  // The open directory.
  [[nodiscard]] int Number() const { return current_.Number(); }
  // Enters a subdirectory. ENOTDIR or ELOOP for a symbolic link.
  [[nodiscard]] int Enter(const std::string& name);
  // Returns to the directory from which the current one was entered. ESTALE: the directory above that one is not the
  // same as on the way down, because a directory was moved.
  [[nodiscard]] int Leave();

 private:
  file::Descriptor current_;
  file::Descriptor above_;   // the directory from which `current_` was entered; not open at the top
  std::vector<FileId> way_;  // from the top to the current directory
};

}  // namespace qx::report
