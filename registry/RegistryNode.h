// A registry key: has its values and its subkeys in one sorted map, and reads and writes them in the format of the
// registry file (docs/registry-file.md).
//
// A file may nest keys to any depth, so no function recurses: reading and writing keep their path in memory, and
// deletion uses pointer reversal.
#pragma once

#include <cstdio>
#include <type_traits>

#include "registry/StrMap.h"

// A key is a CStrMap of values and subkeys, so a value and a subkey cannot have the same name.
//
// Threads: as CStrMap; but dumpNode, restoreNode and Merge take the locks that they need. dumpNode holds the locks of
// the whole path from this key down to the one being written, parent before child.
// Owns: its values and its subkeys with everything below them.
class CRegistryNode : public CStrMap {
 public:
  CRegistryNode() noexcept = default;
  ~CRegistryNode();

  // Writes the key's content: values, then each subkey with its content, then an empty line. Nothing happens on a null
  // stream; a write error shows in the stream's state. [any thread]
  void dumpNode(FILE* stream) const;

  // Reads lines up to the empty line that closes the key, or to the end, and adds their entries to the key: a value or
  // subkey of the same name is replaced as a whole. A key that exists already keeps its object, so handles on it stay
  // usable. True if at least one line was a valid value, in this key or below it; false for a null stream or a read
  // error. If the stream can seek, it is at the end of the closing line afterwards. [any thread]
  [[nodiscard]] bool restoreNode(FILE* stream);

  // Frees all values and subkeys. The entries stay without values, so the key or its map must be destroyed directly
  // afterwards. Traces each entry that had a value. [owning thread]
  void deleteNode();

  // Calls deleteNode, then removes the entries. [owning thread]
  void Clear();

  // Merges `fresh`, which no other thread can reach, into this key by name. Afterwards `fresh` has the replaced entries
  // and must be destroyed. [any thread]
  [[nodiscard]] bool Merge(CRegistryNode& fresh);

 private:
  class ContentExchange;

  // Merges the entries of `fresh` into an array that has space for them; `new_names` of them are not in this key yet.
  void MergeEntries(CRegistryNode& fresh, std::int32_t new_names, ContentExchange& exchange);
};

static_assert(sizeof(CRegistryNode) == sizeof(CStrMap), "a key is exactly its map");
static_assert(std::is_standard_layout_v<CRegistryNode>);
