// Opens files in directories that other users may write, so that symbolic links of these users do not decide what is
// opened.
//
// A privileged process that follows such a link opens the file that the link's owner chose, with the rights of the
// process. So a link counts only if its owner could have reached that file anyway:
//
//   the link's owner      to write   to read
//   root                  yes        yes
//   the effective user    yes        yes
//   the file's owner      no         yes
//   anybody else          no         no
//
// Each component of the path is opened from the descriptor of the one before it, and the open descriptor is checked. So
// it has no effect to exchange a link during the walk. Hard links, and links above the directory that the caller begins
// at, are not checked.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include "base/File.h"

namespace qx::file {

enum class TrustedLinks {
  kToWrite,  // links of root and of the effective user
  kToRead,   // also links of the owner of the file that they lead to
};

// Opens a regular file as OpenRegular does. ELOOP if the path leads through a link that is not trusted; then no file
// was created or changed. A relative `path` begins at the descriptor `directory`. For a path without a link this opens
// with one system call. [any thread]
[[nodiscard]] Descriptor OpenThroughOwnedLinks(const char* path, int flags, mode_t mode, TrustedLinks trusted,
                                               int directory = AT_FDCWD);

}  // namespace qx::file
