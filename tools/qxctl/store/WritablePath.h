// Finds files and directories that other users may exchange.
#pragma once

#include <string>

namespace qx::ctl {

// The first file or directory on the way to `path` that everybody may write; symbolic links are followed. A directory
// with the sticky bit does not count, because it protects its entries. Empty if there is no such file or directory.
[[nodiscard]] std::string WritableByOthers(const std::string& path);

}  // namespace qx::ctl
