// Changes to a registry tree of its own, for tools: each returns why it changed nothing, and never destroys more
// than was requested. A handle (CRegistry) would save the system's registry on the way. The module does not link it.
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
  kNotEmpty,  // the key holds something
  kHoldsNul,  // a name or a text holds a NUL
  kBadType,   // there is no such type, or a number has not 4 bytes
  kNoMemory,
};

// No other thread uses the trees. A path is that of CRegistry: names separated by "\" or "/", from a hive on, and the
// last separator may be followed by nothing. A tree is as it was unless the result is kDone, but for keys that were
// made on the way to a value for which there was no memory. [owning thread]

// Stores a value, making the keys on the path that are missing.
[[nodiscard]] EditState SetValue(CRegistryNode& tree, std::string_view key, std::string_view name,
                                 const TreeValue& value);
[[nodiscard]] EditState DeleteValue(CRegistryNode& tree, std::string_view key, std::string_view name);
// The key itself; what it holds only if `recursive`.
[[nodiscard]] EditState DeleteKey(CRegistryNode& tree, std::string_view key, bool recursive);

// The key at `key`, or null. An empty path is the root.
[[nodiscard]] const CRegistryNode* FindKey(const CRegistryNode& tree, std::string_view key);

// Puts every value and key of `from` into `tree`; what `from` does not have stays. A value takes the place of a subkey
// of its name, and the other way round.
[[nodiscard]] EditState MergeInto(CRegistryNode& tree, const CRegistryNode& from);

// Removes what the key at `key` (empty: the root) holds, if it is there.
void EmptyKey(CRegistryNode& tree, std::string_view key);

// Makes `part`, which is empty, a tree that has nothing but the key at `key` of `tree` with everything in it, at the
// same path.
[[nodiscard]] EditState CopyPart(const CRegistryNode& tree, std::string_view key, CRegistryNode& part);

}  // namespace qx::registry
