// Shows the fields of one record as a table for people.
#pragma once

#include <string>
#include <string_view>

#include "tools/qxctl/chart/RecordFields.h"

namespace qx::ctl {

// The name, type and value of each field, below a heading; the row of the stamp has the name "(stamp)". Control bytes
// are escaped. Empty for a text without fields.
//   field    type     value
//   (stamp)  time     2026-01-31 10:20
//   cpu      integer  12%
[[nodiscard]] std::string FieldTable(std::string_view text, const FieldRules& rules);

}  // namespace qx::ctl
