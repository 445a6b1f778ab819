// Changes registry trees that belong to a tool. If a function changes nothing, it returns the reason, and it never
// removes more than was requested. Handles (CRegistry) are not used, because they would save the system's registry.
#pragma once

#include <string>
#include <string_view>

#include "registry/tools/TreeDiff.h"

namespace qx::registry {

enum class EditState {
  kDone,
  kNoHive,    // the path does not begin with a hive
  kNoKey,     // there is no such key
  kNoValue,   // the key has no such value
  kIsValue,   // a name on the path belongs to a value
  kIsKey,     // the name belongs to a subkey
  kNotEmpty,  // the key is not empty
  kHoldsNul,  // a name or a text has a NUL
  kBadType,   // there is no such type, or a number does not have 4 bytes
  kNoMemory,
};

// Rules for all functions: no other thread may use the trees. A path has the form of CRegistry: it begins with a hive,
// its names are separated by "\" or "/", and it may end with a separator. If the result is not kDone, the tree is
// unchanged, except after kNoMemory: then new keys on the path, or a part of a merge, may stay. [owning thread]

// Stores a value, and makes the missing keys of its path.
[[nodiscard]] EditState SetValue(CRegistryNode& tree, std::string_view key, std::string_view name,
                                 const TreeValue& value);
[[nodiscard]] EditState DeleteValue(CRegistryNode& tree, std::string_view key, std::string_view name);
// Deletes the key. If it is not empty, it is deleted only if `recursive` is true, together with its content.
[[nodiscard]] EditState DeleteKey(CRegistryNode& tree, std::string_view key, bool recursive);

// The key at `key`, or null. An empty path is the root.
[[nodiscard]] const CRegistryNode* FindKey(const CRegistryNode& tree, std::string_view key);

// Copies every value and key of `from` into `tree`; other entries of `tree` stay. A value replaces a subkey of the same
// name, and a subkey replaces a value.
[[nodiscard]] EditState MergeInto(CRegistryNode& tree, const CRegistryNode& from);

// Removes the content of the key at `key` (empty: the root), if the key exists.
void EmptyKey(CRegistryNode& tree, std::string_view key);

// Copies only the key at `key` of `tree`, with its content, into the empty tree `part`, at the same path.
[[nodiscard]] EditState CopyPart(const CRegistryNode& tree, std::string_view key, CRegistryNode& part);

}  // namespace qx::registry
