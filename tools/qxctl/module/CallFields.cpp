#include "tools/qxctl/module/CallFields.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "markup/Markup.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

bool DecodeInto(const std::string& text, std::optional<std::string>& bytes) {
  const int size = CMarkup::DecodeBase64(text.c_str(), nullptr, 0);
  if (size < 0) return false;
  std::string decoded(static_cast<std::size_t>(size), '\0');
  const int count = CMarkup::DecodeBase64(text.c_str(), reinterpret_cast<unsigned char*>(decoded.data()), size);
  if (count == size) bytes = std::move(decoded);
  return count == size;
}

}  // namespace

bool Fails(std::string& problem, std::string reason) {
  problem = std::move(reason);
  return false;
}

void SetBytes(CallJson& object, const std::string& key, const std::string& bytes) {
  if (IsUtf8(bytes)) {
    object[key] = bytes;
  } else {
    object[key + "Base64"] = CMarkup::EncodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  }
}

const CallJson* FieldReader::Find(const char* key) const {
  const auto found = object_.find(key);
  return found == object_.end() ? nullptr : &*found;
}

bool FieldReader::Wrong(const char* key, const char* kind) const {
  return Fails(problem_, "\"" + std::string(key) + "\" is not " + kind);
}

bool FieldReader::Only(std::initializer_list<std::string_view> keys) const {
  for (const auto& item : object_.items()) {
    if (std::find(keys.begin(), keys.end(), item.key()) == keys.end()) {
      return Fails(problem_, "it has an unknown key, \"" + Visible(item.key()) + "\"");
    }
  }
  return true;
}

bool FieldReader::Text(const char* key, std::string& text) const {
  const CallJson* const field = Find(key);
  if (field == nullptr || !field->is_string()) return Wrong(key, "a text");
  text = field->get<std::string>();
  return true;
}

bool FieldReader::Bytes(const char* key, std::optional<std::string>& bytes) const {
  const CallJson* const encoded = Find((std::string(key) + "Base64").c_str());
  if (encoded != nullptr) {
    if (!encoded->is_string()) return Wrong(key, "in base64");
    return DecodeInto(encoded->get<std::string>(), bytes) || Wrong(key, "in base64");
  }
  const CallJson* const field = Find(key);
  if (field == nullptr || (!field->is_string() && !field->is_null())) return Wrong(key, "a text or null");
  if (field->is_null()) {
    bytes.reset();
  } else {
    bytes = field->get<std::string>();
  }
  return true;
}

bool FieldReader::Integer(const char* key, std::int32_t& number) const {
  using Int32 = std::numeric_limits<std::int32_t>;
  const CallJson* const field = Find(key);
  if (field == nullptr || !field->is_number_integer()) return Wrong(key, "an integer");
  const bool is_too_large = field->is_number_unsigned() && field->get<std::uint64_t>() > Int32::max();
  const std::int64_t value = is_too_large ? 0 : field->get<std::int64_t>();
  if (is_too_large || value < Int32::min() || value > Int32::max()) return Wrong(key, "an integer of 32 bits");
  number = static_cast<std::int32_t>(value);
  return true;
}

bool FieldReader::Number(const char* key, std::uint32_t& number) const {
  const CallJson* const field = Find(key);
  const bool is_good = field != nullptr && field->is_number_unsigned() &&
                       field->get<std::uint64_t>() <= std::numeric_limits<std::uint32_t>::max();
  if (!is_good) return Wrong(key, "a number from 0 to 4294967295");
  number = field->get<std::uint32_t>();
  return true;
}

bool FieldReader::OptionalNumber(const char* key, std::optional<std::uint32_t>& number) const {
  const CallJson* const field = Find(key);
  if (field != nullptr && field->is_null()) {
    number.reset();
    return true;
  }
  std::uint32_t value = 0;
  if (!Number(key, value)) return false;
  number = value;
  return true;
}

}  // namespace qx::ctl
