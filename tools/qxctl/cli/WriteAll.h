// Writes to a descriptor: every failure is returned, and a signal can end the write.
#pragma once

#include <string>
#include <string_view>

#include "base/File.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Writes every byte, unless it fails or a signal arrives under an InterruptGuard (EINTR). A pipe gets at most PIPE_BUF
// bytes at a time, and each such piece whole or not at all: a signal ends the write while it waits for a slow reader. A
// terminal may get a part of a piece.
[[nodiscard]] file::Progress WriteUntilInterrupted(int descriptor, std::string_view bytes);

// WriteUntilInterrupted with a status; `name` is the name of the file in the message.
Status WriteAll(int descriptor, std::string_view bytes, const std::string& name);

}  // namespace qx::ctl
