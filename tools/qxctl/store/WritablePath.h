// Files and directories that other users may exchange.
#pragma once

#include <string>

namespace qx::ctl {

// The first file or directory on the way to `path`, with its symbolic links followed too, that everybody may write; a
// directory with the sticky bit protects what is in it. Empty if there is no such file or directory.
[[nodiscard]] std::string WritableByOthers(const std::string& path);

}  // namespace qx::ctl
