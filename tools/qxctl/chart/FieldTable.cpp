#include "tools/qxctl/chart/FieldTable.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "tools/qxctl/cli/text/Table.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

std::string FieldTable(std::string_view text, const FieldRules& rules) {
  std::vector<TableRow> rows = {{"field", "type", "value"}};
  const std::optional<RecordStamp> stamp = rules.separator.empty() ? StampOfRecord(text, rules.time) : std::nullopt;
  if (stamp) rows.push_back({"(stamp)", "time", Visible(text.substr(0, std::min(stamp->bytes, text.size())))});
  for (const RecordField& field : ParseFields(text, rules)) {
    rows.push_back({Visible(field.name), std::string(NameOf(field.type)), Visible(field.value)});
  }
  return rows.size() > 1 ? TableText(rows, {.left = 2}) : "";
}

}  // namespace qx::ctl
