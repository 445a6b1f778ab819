// Internal: lists the names in a directory.
#pragma once

#include <string>
#include <vector>

namespace qx::report {

// The names of a directory, in the order of the system and without "." and "..".
struct Listing {
  std::vector<std::string> names;
  int error = 0;
  bool is_open = false;  // false: opening failed with `error`. If reading failed, `names` is not complete.
};

// Lists the directory at `path`; a symbolic link at its end is followed. Anything else than a directory is not opened.
// [any thread]
[[nodiscard]] Listing ListDirectory(const std::string& path);

// The system's text for an error number, in the language of the program's locale.
[[nodiscard]] const char* ErrorText(int error);

}  // namespace qx::report
