// Finds the files of a report that a client names.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qx::view {

// DIRECTORY/NAME. Unset for a name that no report below the directory can have: it is empty or too long, begins or ends
// with "/", has a component "", "." or "..", or a NUL. [any thread]
[[nodiscard]] std::optional<std::string> BasePathOf(const std::string& directory, std::string_view name);

}  // namespace qx::view
