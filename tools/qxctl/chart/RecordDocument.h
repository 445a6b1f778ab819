// Writes a record as a JSON document.
#pragma once

#include <cstdint>
#include <string_view>

#include "tools/qxctl/chart/RecordFields.h"
#include "tools/qxctl/cli/text/Json.h"

namespace qx::ctl {

// {"index":7,"text":"a"}, with "end" if the record does not end with CR LF, and with the members that AddFields adds.
[[nodiscard]] Json RecordToJson(std::uint64_t index, std::string_view record, const FieldRules& rules);

}  // namespace qx::ctl
