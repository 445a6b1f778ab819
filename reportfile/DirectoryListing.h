// Internal: the names in a directory.
#pragma once

#include <string>
#include <vector>

namespace qx::report {

// The names of a directory, in the order of the system and without "." and "..".
struct Listing {
  std::vector<std::string> names;
  int error = 0;
  bool is_open = false;  // false: `error` is that of opening it. With an error, `names` contains what came before it.
};

// Lists the directory at `path`; a symbolic link at its end is followed. Only a directory is ever opened. [any thread]
[[nodiscard]] Listing ListDirectory(const std::string& path);

// The system's text for an error number, in its own language.
[[nodiscard]] const char* ErrorText(int error);

}  // namespace qx::report
