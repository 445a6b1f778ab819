#include "tools/qxctl/settings/RegistryText.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/settings/Settings.h"

namespace qx::ctl {

namespace {

using registry::TreeChange;
using registry::TreeDifference;
using registry::TreeValue;

std::int32_t NumberOf(const TreeValue& value) {
  std::int32_t number = 0;
  std::memcpy(&number, value.bytes.data(), sizeof number);
  return number;
}

// "0a ff": as in the registry file, without the space at the end
std::string HexOf(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    std::array<char, 4> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    text += digits.data();
  }
  if (!text.empty()) text.pop_back();
  return text;
}

const char* NameOfType(int type) {
  constexpr std::array<const char*, 5> kNames = {"", "REG_SZ", "REG_EXPAND_SZ", "REG_BINARY", "REG_DWORD"};
  return kNames[static_cast<std::size_t>(type)];
}

Json OptionalToJson(const std::optional<TreeValue>& value) {
  if (!value) return nullptr;
  Json object;
  SetValueJson(object, *value);
  return object;
}

}  // namespace

std::string TextOf(const TreeValue& value) {
  if (value.type == REG_DWORD) return std::to_string(NumberOf(value));
  return value.type == REG_BINARY ? HexOf(value.bytes) : Visible(value.bytes);
}

std::string LineOf(const std::string& name, const TreeValue& value) {
  if (value.type == REG_NODE) return "[" + Visible(name) + "]";
  constexpr std::array<const char*, 5> kMarkers = {"", "=s=", "=es=", "=b=", "=d="};
  return Visible(name) + kMarkers[static_cast<std::size_t>(value.type)] + TextOf(value);
}

void SetValueJson(Json& object, const TreeValue& value) {
  if (value.type == REG_NODE) {
    object["type"] = "key";
    return;
  }
  object["type"] = NameOfType(value.type);
  if (value.type == REG_DWORD) {
    object["value"] = NumberOf(value);
  } else if (value.type == REG_BINARY) {
    object["value"] = HexOf(value.bytes);
  } else {
    SetText(object, "value", value.bytes);
  }
}

std::string ChangesToText(const Output& output, const TreeDifference& difference) {
  std::string text;
  const TreeChange* last = nullptr;
  for (const TreeChange& change : difference.changes) {
    if (last == nullptr || last->key != change.key) {
      text += std::string(last == nullptr ? "" : "\n") + (change.key.empty() ? "(root)" : Visible(change.key)) + ":\n";
    }
    if (change.before) text += Removed(output, LineOf(change.name, *change.before));
    if (change.after) text += Added(output, LineOf(change.name, *change.after));
    last = &change;
  }
  return text;
}

Json ChangesToJson(const TreeDifference& difference) {
  Json changes = Json::Array();
  for (const TreeChange& change : difference.changes) {
    Json entry;
    SetText(entry, "key", change.key);
    SetText(entry, "name", change.name);
    entry["before"] = OptionalToJson(change.before);
    entry["after"] = OptionalToJson(change.after);
    changes.Append(std::move(entry));
  }
  return changes;
}

}  // namespace qx::ctl
