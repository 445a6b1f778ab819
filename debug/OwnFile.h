// Opens the files that the trace facility writes, so that no other user can read or change their content.
//
// A process that traces often runs as root, in a directory that other users may write. Such a user may prepare the log
// or the ring file, keep a second name of it, or exchange it while it is opened. But the user must not be able to read
// the traces, or to cut a file that the writer has mapped.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>

#include "base/File.h"

namespace qx::debug {

// True if only root and `user` control the file: one of them owns it, it has one name, and neither its group nor others
// may write it. Only for regular files.
//   owner 0,     1 name,  0640, user 1000  => true
//   owner 1000,  1 name,  0644, user 1000  => true
//   owner 65534, 1 name,  0600, user 0     => false
//   owner 0,     2 names, 0640, user 0     => false
//   owner 0,     1 name,  0660, user 0     => false
[[nodiscard]] bool IsOwnFile(const struct stat& status, uid_t user) noexcept;

struct OwnFile {
  file::Descriptor file;
  bool is_new = false;
  int error = 0;            // why no file is open
  bool is_refused = false;  // no file is open because of the kind of the file at the path
};

// Opens the file `path` for reading and writing, never through a symbolic link. A missing file is created with `mode`
// less the umask, or only for its owner if the directory would give it a foreign group or an access list. A file for
// which IsOwnFile is false is removed and created again, and the system log reports this. An own file that does not
// have `size` bytes is replaced in the same way, without a report. A file that is not regular stays and is refused.
// [any thread]
[[nodiscard]] OwnFile OpenOwnFile(const char* path, mode_t mode, std::optional<std::uint64_t> size = std::nullopt);

}  // namespace qx::debug
