#include "registry/tools/TreeWalk.h"

#include <utility>

#include "registry/RegistryValue.h"

namespace qx::registry {

TreeWalk::TreeWalk(const CRegistryNode& first, std::string path, WalkLimits limits)
    : limits_(limits), levels_{{&first, 0, path.size()}}, path_(std::move(path)) {}

bool TreeWalk::Next() {
  if (!std::exchange(has_begun_, true)) return true;
  while (!levels_.empty() && !is_cut_) {
    path_.resize(levels_.back().path_bytes);
    const StrMapEntry* const entry = NextSubkey();
    if (entry == nullptr) {
      levels_.pop_back();
      continue;
    }
    if (levels_.size() > limits_.depth) {
      ++keys_too_deep_;
      continue;
    }
    if (!path_.empty() && !path_.ends_with('/')) path_ += '/';
    path_ += entry->name;
    return Enter(*NodeOf(entry->value));
  }
  return false;
}

const StrMapEntry* TreeWalk::NextSubkey() {
  Level& level = levels_.back();
  const auto entries = level.key->Entries();
  while (level.next_entry < entries.size()) {
    const StrMapEntry& entry = entries[level.next_entry++];
    if (entry.name != nullptr && NodeOf(entry.value) != nullptr) return &entry;
  }
  return nullptr;
}

bool TreeWalk::Enter(const CRegistryNode& key) {
  path_bytes_ += path_.size();
  is_cut_ = path_bytes_ > limits_.path_bytes;
  if (!is_cut_) levels_.push_back({&key, 0, path_.size()});
  return !is_cut_;
}

}  // namespace qx::registry
