// Prepares report names for the trace: they come from clients, and may have any byte except NUL.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qx::provider {

// The name with "." for each control byte (below 0x20, and 0x7F): a line feed would look like the end of the entry, and
// ESC would reach the terminal on which the log is read.
//   "a\nb\x1B[31m" => "a.b.[31m"    "K\xC3\xA4lte" => "K\xC3\xA4lte"
// [any thread]
[[nodiscard]] std::string ShownName(std::string_view name);

// Traces the hex dump of a name. The dump is long, so it is made only if the trace shows `level`. [any thread]
void TraceNameDump(std::uint32_t level, const std::string& name);

}  // namespace qx::provider
