// A file that appears whole or not at all.
#pragma once

#include <string>
#include <string_view>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Writes to a temporary file beside the target and renames it over the target at Commit; a target that exists and is
// not a regular file (a pipe, a device) is written directly. A symbolic link is followed, and its target is replaced.
// The new file has the permissions of the one it replaces, or those that the umask leaves.
//
// Threads: used by one thread.
// Owns: the descriptor and, until Commit, the temporary file; both are gone after destruction.
// Failure: after any failure the target is as it was.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  Status Open(const std::string& path);
  Status Write(std::string_view bytes);

  // Syncs, closes and puts the file in place.
  Status Commit();

 private:
  Status OpenTemporary();

  std::string target_;
  std::string temporary_;  // empty: the target is written directly
  int descriptor_ = -1;
};

}  // namespace qx::ctl
