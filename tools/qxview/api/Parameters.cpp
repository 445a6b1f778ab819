#include "tools/qxview/api/Parameters.h"

#include <algorithm>
#include <charconv>

namespace qx::view {

void Parameters::Refuse(std::string_view name, const std::string& why) {
  if (problem_.empty()) problem_ = "the parameter " + std::string(name) + " " + why;
}

std::optional<std::int64_t> Parameters::Number(std::string_view name) {
  const std::optional<std::string> text = request_.Value(name);
  if (!text.has_value()) return std::nullopt;
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
  if (error == std::errc() && end == text->data() + text->size()) return number;
  Refuse(name, "is not an integer");
  return std::nullopt;
}

std::int64_t Parameters::Number(std::string_view name, std::int64_t min, std::int64_t max, std::int64_t otherwise) {
  const std::int64_t number = Number(name).value_or(otherwise);
  if (number >= min && number <= max) return number;
  Refuse(name, "is not between " + std::to_string(min) + " and " + std::to_string(max));
  return otherwise;
}

std::string Parameters::Text(std::string_view name) {
  std::string text = request_.Value(name).value_or("");
  if (text.size() > kTextBytesMax) Refuse(name, "has more than " + std::to_string(kTextBytesMax) + " bytes");
  return text;
}

std::vector<std::string> Parameters::Texts(std::string_view name, std::size_t count_max) {
  std::vector<std::string> texts;
  for (const std::string& text : request_.Values(name)) {
    const bool is_new = std::find(texts.begin(), texts.end(), text) == texts.end();
    if (is_new) texts.push_back(text);
    if (text.empty() || text.size() > kTextBytesMax) Refuse(name, "is empty or too long");
  }
  if (texts.size() > count_max) Refuse(name, "comes more than " + std::to_string(count_max) + " times");
  return texts;
}

}  // namespace qx::view
