// Internal: the names in a directory.
#pragma once

#include <string>
#include <vector>

namespace qx::report {

enum class FinalLink {
  kFollowed,
  kRefused,  // a symbolic link at the path's end is not a directory (ELOOP or ENOTDIR)
};

// Appends the names of all entries but "." and ".." to `names`, in the order of the system. Returns 0 or the error
// number; `names` then holds what came before it. Nothing but a directory is opened.
[[nodiscard]] int ListDirectory(const char* path, FinalLink link, std::vector<std::string>& names);

// The system's text for an error number, in its own language.
[[nodiscard]] const char* ErrorText(int error);

}  // namespace qx::report
