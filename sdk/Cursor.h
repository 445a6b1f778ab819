// Internal: converts a reader's position to one line of text (a cursor) and back.
//
//   "qx1 NEXT DELIVERED HASH..."   with single spaces
//
// NEXT is the index of the next record, DELIVERED the number of records returned so far. Up to 32 hashes of the last
// records follow, each of 16 hexadecimal digits.
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
