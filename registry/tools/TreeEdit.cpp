#include "registry/tools/TreeEdit.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "registry/RegistryValue.h"

namespace qx::registry {

namespace {

constexpr std::array<std::string_view, 5> kHives = {"HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER", "HKEY_USERS",
                                                    "HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG"};

// Removes the first name and the separator after it from a path, and returns the name.
//   "A\B/C" => "A", "B/C"   "A\" => "A", ""   "\A" => "", "A"
std::string_view TakeName(std::string_view& path) {
  const std::size_t length = std::min(path.find_first_of("\\/"), path.size());
  const std::string_view name = path.substr(0, length);
  path.remove_prefix(std::min(length + 1, path.size()));
  return name;
}

StrMapEntry* FindPresent(const CRegistryNode& key, std::string_view name) {
  StrMapEntry* const entry = key.Find(name);
  return entry != nullptr && entry->value.IsPresent() ? entry : nullptr;
}

struct Walked {
  EditState state = EditState::kDone;
  CRegistryNode* key = nullptr;
};

Walked Walk(CRegistryNode& tree, std::string_view path) {
  CRegistryNode* key = &tree;
  while (!path.empty()) {
    const StrMapEntry* const entry = FindPresent(*key, TakeName(path));
    if (entry == nullptr) return {EditState::kNoKey};
    key = NodeOf(entry->value);
    if (key == nullptr) return {EditState::kIsValue};
  }
  return {EditState::kDone, key};
}

OwnedValue NewValue(const TreeValue& value) {
  switch (value.type) {
    case REG_SZ:
    case REG_EXPAND_SZ:
      return {value.type, NewText(value.bytes)};
    case REG_BINARY:
      return {REG_BINARY, NewBlock(value.bytes)};
    case REG_DWORD: {
      std::int32_t number;
      std::memcpy(&number, value.bytes.data(), sizeof number);
      return OwnedValue(number);
    }
    default:
      return {REG_NODE, new (std::nothrow) CRegistryNode};
  }
}

// Stores the value; an old value of the name is freed.
EditState Put(CRegistryNode& key, std::string_view name, OwnedValue value) {
  OwnedValue displaced;
  if (!value.IsPresent() || !key.Put(name, value.Get(), displaced.Place())) return EditState::kNoMemory;
  (void)value.Release();
  return EditState::kDone;
}

Walked MakeKey(CRegistryNode& above, std::string_view name) {
  const StrMapEntry* entry = FindPresent(above, name);
  if (entry == nullptr) {
    if (Put(above, name, NewValue({.type = REG_NODE, .bytes = {}})) != EditState::kDone) return {EditState::kNoMemory};
    entry = above.Find(name);
  }
  CRegistryNode* const key = NodeOf(entry->value);
  return {key != nullptr ? EditState::kDone : EditState::kIsValue, key};
}

Walked MakeKeys(CRegistryNode& tree, std::string_view path) {
  Walked walked = {EditState::kDone, &tree};
  while (!path.empty() && walked.state == EditState::kDone) walked = MakeKey(*walked.key, TakeName(path));
  return walked;
}

bool HoldsNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

EditState CheckValue(std::string_view key, std::string_view name, const TreeValue& value) {
  const bool is_text = value.type == REG_SZ || value.type == REG_EXPAND_SZ;
  if (HoldsNul(key) || HoldsNul(name) || (is_text && HoldsNul(value.bytes))) return EditState::kHoldsNul;
  if (value.type == REG_DWORD) {
    return value.bytes.size() == sizeof(std::int32_t) ? EditState::kDone : EditState::kBadType;
  }
  return is_text || value.type == REG_BINARY ? EditState::kDone : EditState::kBadType;
}

// True if the path begins with a hive or with an existing entry of the root. Other keys are not made at the root,
// because no program would read them.
bool BeginsWithHive(const CRegistryNode& tree, std::string_view path) {
  const std::string_view name = TakeName(path);
  return FindPresent(tree, name) != nullptr || std::find(kHives.begin(), kHives.end(), name) != kHives.end();
}

// "A/B/C" => "A/B/" and "C"; a separator at the end is ignored
std::pair<std::string_view, std::string_view> SplitLast(std::string_view path) {
  if (path.ends_with('/') || path.ends_with('\\')) path.remove_suffix(1);
  const std::size_t separator = path.find_last_of("\\/");
  if (separator == std::string_view::npos) return {{}, path};
  // The separator is part of the result: without it, the path of the empty name in "/A" would be the path of the root.
  return {path.substr(0, separator + 1), path.substr(separator + 1)};
}

}  // namespace

// Checks the whole path before it makes the first key.
EditState SetValue(CRegistryNode& tree, std::string_view key, std::string_view name, const TreeValue& value) {
  if (const EditState checked = CheckValue(key, name, value); checked != EditState::kDone) return checked;
  if (!BeginsWithHive(tree, key)) return EditState::kNoHive;
  Walked walked = Walk(tree, key);
  if (walked.state == EditState::kIsValue) return EditState::kIsValue;
  if (walked.state == EditState::kNoKey) walked = MakeKeys(tree, key);
  if (walked.state != EditState::kDone) return walked.state;
  const StrMapEntry* const entry = FindPresent(*walked.key, name);
  if (entry != nullptr && NodeOf(entry->value) != nullptr) return EditState::kIsKey;
  return Put(*walked.key, name, NewValue(value));
}

EditState DeleteValue(CRegistryNode& tree, std::string_view key, std::string_view name) {
  const Walked walked = Walk(tree, key);
  if (walked.state != EditState::kDone) return walked.state;
  StrMapEntry* const entry = FindPresent(*walked.key, name);
  if (entry == nullptr) return EditState::kNoValue;
  if (NodeOf(entry->value) != nullptr) return EditState::kIsKey;
  const OwnedValue removed(walked.key->Remove(entry));
  return EditState::kDone;
}

EditState DeleteKey(CRegistryNode& tree, std::string_view key, bool recursive) {
  const auto [above_path, name] = SplitLast(key);
  const Walked walked = Walk(tree, above_path);
  if (walked.state != EditState::kDone) return walked.state;
  StrMapEntry* const entry = FindPresent(*walked.key, name);
  if (entry == nullptr || key.empty()) return EditState::kNoKey;
  const CRegistryNode* const node = NodeOf(entry->value);
  if (node == nullptr) return EditState::kIsValue;
  const bool is_empty = std::none_of(node->Entries().begin(), node->Entries().end(),
                                     [](const StrMapEntry& each) { return each.value.IsPresent(); });
  if (!recursive && !is_empty) return EditState::kNotEmpty;
  const OwnedValue removed(walked.key->Remove(entry));
  return EditState::kDone;
}

const CRegistryNode* FindKey(const CRegistryNode& tree, std::string_view key) {
  return Walk(const_cast<CRegistryNode&>(tree), key).key;  // Walk changes nothing
}

EditState MergeInto(CRegistryNode& tree, const CRegistryNode& from) {
  std::vector<std::pair<CRegistryNode*, const CRegistryNode*>> pending = {{&tree, &from}};
  while (!pending.empty()) {
    const auto [to, source] = pending.back();
    pending.pop_back();
    for (const StrMapEntry& entry : source->Entries()) {
      if (!entry.value.IsPresent()) continue;
      const CRegistryNode* const subkey = NodeOf(entry.value);
      const StrMapEntry* const old = FindPresent(*to, entry.name);
      const bool is_kept = subkey != nullptr && old != nullptr && NodeOf(old->value) != nullptr;
      if (!is_kept && Put(*to, entry.name, NewValue(ValueOf(entry.value))) != EditState::kDone) {
        return EditState::kNoMemory;
      }
      if (subkey != nullptr) pending.emplace_back(NodeOf(to->Find(entry.name)->value), subkey);
    }
  }
  return EditState::kDone;
}

void EmptyKey(CRegistryNode& tree, std::string_view key) {
  if (CRegistryNode* const found = Walk(tree, key).key; found != nullptr) found->Clear();
}

EditState CopyPart(const CRegistryNode& tree, std::string_view key, CRegistryNode& part) {
  const CRegistryNode* const from = FindKey(tree, key);
  if (from == nullptr) return EditState::kNoKey;
  const Walked walked = MakeKeys(part, key);
  return walked.state == EditState::kDone ? MergeInto(*walked.key, *from) : walked.state;
}

}  // namespace qx::registry
