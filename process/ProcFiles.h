// Internal: parses texts of files under /proc. Opens no files, so that tests can pass any text.
#pragma once

#include <optional>
#include <string_view>

namespace qx::process {

// The number on the line whose first word is `key`. A number with a unit, such as kB, is converted to bytes.
//   "VmSwap:\t       2 MB\n"  VmSwap:  => 2097152
//   "Threads:\t5\n"           Threads: => 5
//   "Name:\tcat\n"            Name:    => nothing
[[nodiscard]] std::optional<unsigned long> BytesOnStatusLine(std::string_view status_text, std::string_view key);

// A number of bytes in units of 1024 to the power of `unit`, rounded down.
[[nodiscard]] unsigned long InUnit(unsigned long bytes, int unit);

// The process id of a directory under /proc with this name: "17" => 17; "self", "0", "17x" => nothing.
[[nodiscard]] std::optional<int> PidOfDirectoryName(std::string_view name);

}  // namespace qx::process
