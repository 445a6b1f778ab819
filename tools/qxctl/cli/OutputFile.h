// A file that is written as a whole or not at all.
#pragma once

#include <string>
#include <string_view>

#include "base/File.h"
#include "base/tools/ReplacedFile.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Writes to a temporary file next to the target and renames it to the target's name at Commit. A target that exists and
// is not a regular file (a pipe, a terminal, a device) is written directly; for a terminal, ForTerminal masks the text.
// A symbolic link is followed, and its target is replaced. The new file has the permissions of the replaced one,
// without set-id bits; if it replaces none, those that the umask leaves.
//
// A file or link of another user is refused, because that user would decide what others read or run. With `force` such
// a file is replaced, and the new one gets its owner; such a link is still refused, because its owner can lead it
// elsewhere at any time.
//
// Threads: used by one thread.
// Owns: the descriptor and, until Commit, the temporary file; both are gone after destruction.
// Failure: after any failure the target is unchanged.
class OutputFile {
 public:
  // Before Open: a terminal gets every byte as it is.
  void KeepBytes() { keeps_bytes_ = true; }
  Status Open(const std::string& path, bool force = false);
  Status Write(std::string_view bytes);

  // Syncs the file and renames it into place.
  Status Commit();

 private:
  std::string path_;
  ReplacedFile file_;
  file::Descriptor direct_;  // open: the target is written directly
  bool is_terminal_ = false;
  bool keeps_bytes_ = false;
};

}  // namespace qx::ctl
