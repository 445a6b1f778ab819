// Writes to a descriptor. Every failure is returned, and a signal can end the write.
#pragma once

#include <string>
#include <string_view>

#include "base/File.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Writes every byte, unless it fails or a signal arrives under an InterruptGuard (EINTR). A pipe gets pieces that it
// takes without waiting, each whole or not at all: PIPE_BUF bytes, or, while it is empty, as many as it can hold. So
// the call waits only between pieces, where a signal can end it, even if the reader is slow. A terminal may take a part
// of a piece.
[[nodiscard]] file::Progress WriteUntilInterrupted(int descriptor, std::string_view bytes);

// WriteUntilInterrupted with a status; `name` is the name of the file in the message.
Status WriteAll(int descriptor, std::string_view bytes, const std::string& name);

}  // namespace qx::ctl
