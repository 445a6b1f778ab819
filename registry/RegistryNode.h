// A registry key: its values and its subkeys in one sorted map, written to and read from the registry file's format
// (docs/registry-file.md).
//
// Keys nest as deep as a file says, so nothing here recurses: reading and writing keep their path in memory, deletion
// uses pointer reversal.
#pragma once

#include <cstdio>
#include <type_traits>

#include "registry/StrMap.h"

// A key. It is exactly a CStrMap: a value and a subkey cannot share a name.
//
// Threads: as CStrMap; the three operations take the locks they need themselves. dumpNode holds the locks of the whole
// path from this key down to the one being written, parent before child.
// Owns: its values and its subkeys with everything below them.
class CRegistryNode : public CStrMap {
 public:
  CRegistryNode() noexcept = default;
  ~CRegistryNode();

  // Writes the key's content: values, then each subkey with its content, then an empty line. Nothing happens on a null
  // stream; a write error shows in the stream's state. [any thread]
  void dumpNode(FILE* stream) const;

  // Reads lines up to the empty line that closes the key, or to the end, and merges them by name into the key: a value
  // or subkey of the same name is replaced whole. Keys that keep their path keep their object, so handles on them stay
  // usable. True when at least one value line was recognised here or below; false on a null stream or a read error. The
  // stream is then at the end of the closing line if it can seek. [any thread]
  [[nodiscard]] bool restoreNode(FILE* stream);

  // Frees all values and subkeys. The entries stay, without their values: only for use directly before the key or its
  // map is destroyed. Traces each entry that had a value. [owning thread]
  void deleteNode();

  // deleteNode, then removes the entries. [owning thread]
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
