#include "tools/qxctl/chart/RecordDocument.h"

#include <string>

#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

Json RecordToJson(std::uint64_t index, std::string_view record, const FieldRules& rules) {
  const RecordText parts = TextOfRecord(record);
  Json object = {{"index", index}};
  SetText(object, "text", std::string(parts.text));
  if (parts.end != std::string_view("crlf")) object["end"] = parts.end;
  AddFields(object, parts.text, rules);
  return object;
}

}  // namespace qx::ctl
