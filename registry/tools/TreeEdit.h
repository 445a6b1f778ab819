// Changes of a separate registry tree, for tools: each function returns why it changed nothing, and never removes more
// than was requested. Handles (CRegistry) are not used, because they would save the system's registry.
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
  kIsValue,   // a name on the path is that of a value
  kIsKey,     // the name is that of a subkey
  kNotEmpty,  // the key is not empty
  kHoldsNul,  // a name or a text has a NUL
  kBadType,   // there is no such type, or a number does not have 4 bytes
  kNoMemory,
};

// No other thread may use the trees. A path has the form of CRegistry: it begins with a hive, "\" or "/" separates the
// names, and it may end with a separator. If the result is not kDone, the tree is unchanged; only if there was no
// memory for a value, new keys above it may stay. [owning thread]

// Stores a value and makes the missing keys of its path.
[[nodiscard]] EditState SetValue(CRegistryNode& tree, std::string_view key, std::string_view name,
                                 const TreeValue& value);
[[nodiscard]] EditState DeleteValue(CRegistryNode& tree, std::string_view key, std::string_view name);
// Deletes the key, and its content only if `recursive`.
[[nodiscard]] EditState DeleteKey(CRegistryNode& tree, std::string_view key, bool recursive);

// The key at `key`, or null. An empty path is the root.
[[nodiscard]] const CRegistryNode* FindKey(const CRegistryNode& tree, std::string_view key);

// Copies every value and key of `from` into `tree`; what `from` does not have stays. A value replaces a subkey of its
// name, and vice versa.
[[nodiscard]] EditState MergeInto(CRegistryNode& tree, const CRegistryNode& from);

// Removes the content of the key at `key` (empty: the root), if the key exists.
void EmptyKey(CRegistryNode& tree, std::string_view key);

// Copies only the key at `key` of `tree`, with its content, into the empty tree `part`, at the same path.
[[nodiscard]] EditState CopyPart(const CRegistryNode& tree, std::string_view key, CRegistryNode& part);

}  // namespace qx::registry
