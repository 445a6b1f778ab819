// Reads whole text files of the system and of the configuration, such as those below /proc.
#pragma once

#include <string>

namespace qx::file {

// The contents of a regular file, at most 64 MiB of it. Empty if it cannot be opened. If a read fails, the result is
// what was read before. [any thread] Throws std::bad_alloc.
[[nodiscard]] std::string TextOf(const std::string& path);

}  // namespace qx::file
