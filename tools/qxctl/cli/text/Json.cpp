#include "tools/qxctl/cli/text/Json.h"

#include <algorithm>
#include <cassert>

namespace qx::ctl {

namespace {

// {"key", value}
bool IsMember(const Json& item) {
  const auto* const pair = std::get_if<Json::Items>(&item.Value());
  return pair != nullptr && pair->size() == 2 && std::holds_alternative<std::string>(pair->front().Value());
}

}  // namespace

Json::Json() = default;
Json::Json(std::nullptr_t) {}
Json::Json(bool value) : content_(value) {}
Json::Json(double value) : content_(value) {}
Json::Json(const char* text) : content_(std::string(text)) {}
Json::Json(std::string_view text) : content_(std::string(text)) {}
Json::Json(std::string text) : content_(std::move(text)) {}
Json::Json(const std::vector<std::string>& texts) : content_(Items(texts.begin(), texts.end())) {}
Json::Json(Signed number) : content_(number.number) {}
Json::Json(Unsigned number) : content_(number.number) {}
Json::Json(const Json& other) = default;
Json::Json(Json&& other) noexcept = default;
Json& Json::operator=(const Json& other) = default;
Json& Json::operator=(Json&& other) noexcept = default;
Json::~Json() = default;

Json::Json(std::initializer_list<Json> items) {
  if (!std::all_of(items.begin(), items.end(), IsMember)) {
    content_ = Items(items);
    return;
  }
  for (const Json& item : items) {
    const auto& pair = std::get<Items>(item.content_);
    (*this)[std::get<std::string>(pair[0].content_)] = pair[1];
  }
}

Json Json::Array() {
  Json array;
  array.content_ = Items();
  return array;
}

void Json::Append(Json item) {
  if (std::holds_alternative<std::monostate>(content_)) content_ = Items();
  std::get<Items>(content_).push_back(std::move(item));
}

Json& Json::operator[](std::string_view key) {
  if (std::holds_alternative<std::monostate>(content_)) content_ = Members();
  auto& members = std::get<Members>(content_);
  const auto found = std::find_if(members.begin(), members.end(), [&](const auto& each) { return each.first == key; });
  if (found != members.end()) return found->second;
  return members.emplace_back(std::string(key), Json()).second;
}

void Json::Merge(const Json& object) {
  for (const auto& [key, value] : std::get<Members>(object.content_)) (*this)[key] = value;
}

bool Json::IsEmpty() const {
  if (const auto* const items = std::get_if<Items>(&content_)) return items->empty();
  if (const auto* const members = std::get_if<Members>(&content_)) return members->empty();
  return std::holds_alternative<std::monostate>(content_);
}

}  // namespace qx::ctl
