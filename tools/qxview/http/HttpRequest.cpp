#include "tools/qxview/http/HttpRequest.h"

namespace qx::view {

std::optional<std::string> HttpRequest::Value(std::string_view name) const {
  for (const auto& [key, value] : query) {
    if (key == name) return value;
  }
  return std::nullopt;
}

std::vector<std::string> HttpRequest::Values(std::string_view name) const {
  std::vector<std::string> values;
  for (const auto& [key, value] : query) {
    if (key == name) values.push_back(value);
  }
  return values;
}

}  // namespace qx::view
