// Reads whole text files of the system and of the configuration, such as those below /proc.
#pragma once

#include <string>

namespace qx::file {

// The contents of a regular file, at most 64 MiB of it. Empty if it cannot be opened; up to an error, if a read fails.
// [any thread] Throws std::bad_alloc.
[[nodiscard]] std::string TextOf(const std::string& path);

}  // namespace qx::file
