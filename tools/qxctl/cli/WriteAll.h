// Writing to a descriptor so that nothing is lost unnoticed, and so that a signal can end it.
#pragma once

#include <string>
#include <string_view>

#include "base/File.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Writes every byte, unless it fails or a signal arrives under an InterruptGuard (EINTR). A pipe gets at most PIPE_BUF
// bytes at a time, and each such piece whole or not at all: the wait for a slow reader is where a signal ends it.
[[nodiscard]] file::Progress WriteUntilInterrupted(int descriptor, std::string_view bytes);

// The same; `name` is what the message calls the file.
Status WriteAll(int descriptor, std::string_view bytes, const std::string& name);

}  // namespace qx::ctl
