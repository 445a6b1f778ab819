// Internal: a reader's place as one line of text, and back.
//
//   "qx1 NEXT DELIVERED HASH..."   two numbers, then 0 to 32 hashes of 16 hexadecimal digits, one space between
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "reportfile/tools/ReportFollower.h"

namespace qx::sdk {

[[nodiscard]] std::string TextOfCursor(const report::ReportPosition& position);

// Unset for a text that is not a cursor.
[[nodiscard]] std::optional<report::ReportPosition> CursorOfText(std::string_view text);

}  // namespace qx::sdk
