// Internal: small helpers of the handle's operations.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "registry/RegistryNode.h"

namespace qx::registry {

// The text for a trace line, "<null>" if `text` is null.
[[nodiscard]] inline const char* TextOrNull(const char* text) { return text != nullptr ? text : "<null>"; }

// Changes ASCII letters only, whatever the locale: hive names are ASCII.
[[nodiscard]] inline char UpperCase(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

[[nodiscard]] inline bool IsSubkeyEntry(const StrMapEntry& entry) { return entry.value.type == REG_NODE; }

// The entry with number `index`, counted from 0, among those for which `matches` is true; null after the last. [lock
// held: key.Lock()]
template <typename Predicate>
[[nodiscard]] const StrMapEntry* NthEntry(const CRegistryNode& key, unsigned index, Predicate matches) {
  for (const StrMapEntry& entry : key.Entries()) {
    if (matches(entry) && index-- == 0) return &entry;
  }
  return nullptr;
}

// Copies at most size - 1 bytes and a NUL; `size` becomes the number of bytes without the NUL. If `size` is 0, nothing
// is written.
inline void CopyName(const char* from, char* to, unsigned& size) {
  if (size == 0) return;
  const std::size_t length = std::min<std::size_t>(std::strlen(from), size - 1);
  std::memcpy(to, from, length);
  to[length] = '\0';
  size = static_cast<unsigned>(length);
}

}  // namespace qx::registry
