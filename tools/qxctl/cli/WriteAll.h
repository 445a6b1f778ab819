// Writes to a descriptor: every failure is returned, and a signal can end the write.
#pragma once

#include <string>
#include <string_view>

#include "base/File.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Writes every byte, unless it fails or a signal arrives under an InterruptGuard (EINTR). A pipe gets only what it
// takes without waiting: PIPE_BUF bytes at a time, or as many as it can hold while it is empty, and each such piece
// whole or not at all. So a signal ends the write while it waits for a slow reader. A terminal may get a part of a
// piece.
[[nodiscard]] file::Progress WriteUntilInterrupted(int descriptor, std::string_view bytes);

// WriteUntilInterrupted with a status; `name` is the name of the file in the message.
Status WriteAll(int descriptor, std::string_view bytes, const std::string& name);

}  // namespace qx::ctl
