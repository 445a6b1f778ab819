#include "tools/qxctl/chart/RecordText.h"

namespace qx::ctl {

RecordText TextOfRecord(std::string_view record) {
  if (record.ends_with("\r\n")) return {record.substr(0, record.size() - 2), "crlf"};
  if (record.ends_with('\n')) return {record.substr(0, record.size() - 1), "lf"};
  if (record.ends_with('\xFF')) return {record.substr(0, record.size() - 1), "ff"};
  return {record, "none"};
}

std::vector<std::string_view> FieldsOf(std::string_view text, std::string_view separator, std::size_t count_max) {
  std::vector<std::string_view> fields;
  while (!separator.empty() && fields.size() + 1 < count_max) {
    const std::size_t at = text.find(separator);
    if (at == std::string_view::npos) break;
    fields.push_back(text.substr(0, at));
    text.remove_prefix(at + separator.size());
  }
  fields.push_back(text);
  return fields;
}

}  // namespace qx::ctl
