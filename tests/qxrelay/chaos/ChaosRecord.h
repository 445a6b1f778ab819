// Records that identify themselves: the text contains report, number, length and a checksum. So a check of one record
// shows whether it is whole, and where it belongs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qx::chaos {

// The text of record `number` of the report, 60 to 180 characters without a line end: "h2/r1 000000001234 0097 .......
// 1f2e3d4c"
[[nodiscard]] std::string ChaosRecord(std::string_view report, std::uint64_t number);

// The number of a whole record of this report; unset for any other text. The text may have a line end.
[[nodiscard]] std::optional<std::uint64_t> NumberOfRecord(std::string_view report, std::string_view text);

}  // namespace qx::chaos
