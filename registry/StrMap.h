// A sorted map of names to typed values. Every registry key is such a map.
//
// The map is one array, always sorted by the bytes of the names, with a binary search. A registry file has its entries
// in this order, so most insertions append. The map owns the names and the array, never the values: the data of a value
// depends on its type, and only the key (registry/RegistryNode.h) can free it.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "base/CriticalSection.h"

// The types of registry values. Numbers and names are interface: callers pass and receive them.
enum : std::int32_t {
  REG_SZ = 1,         // a NUL-terminated string
  REG_EXPAND_SZ = 2,  // a NUL-terminated string; environment variables in it are expanded when it is read by a handle
  REG_BINARY = 3,     // a block: 32-bit length n, then n bytes
  REG_DWORD = 4,      // a 32-bit signed number
  REG_NODE = 666,     // a subkey; never the type of a value
};

// The value in a slot of the map. Order is interface.
struct RegistryValue {
  union Slot {
    void* pointer;        // string, block or CRegistryNode; null: an entry without a value
    std::int32_t number;  // REG_DWORD
  };

  // True if the entry has data: any number, or a pointer that is not null.
  [[nodiscard]] bool IsPresent() const { return type == REG_DWORD || slot.pointer != nullptr; }

  Slot slot{nullptr};
  std::int32_t type = 0;
};

// One slot of the array. Order is interface.
struct StrMapEntry {
  char* name = nullptr;  // allocated with new char[], owned by the map
  RegistryValue value;
};

// A map from names to typed values.
//
// Threads: any thread, but it must hold Lock() during each call and while it uses the result. A map that no other
// thread can reach yet needs no lock.
// Owns: the array and the names, not the values.
// Failure: if memory runs out, an operation returns false and leaves the map unchanged.
class CStrMap {
 public:
  CStrMap() noexcept = default;
  // Frees the names and the array, not the values.
  ~CStrMap();
  CStrMap(const CStrMap&) = delete;
  CStrMap& operator=(const CStrMap&) = delete;

  // Orders two StrMapEntry by the bytes of their names, upper case before lower; an entry without a name comes after
  // every entry with a name, and equals another entry without a name. The result is less than, equal to or greater than
  // 0, as for qsort. [any thread]
  [[nodiscard]] static int compare(const void* left, const void* right);

  [[nodiscard]] CCriticalSection& Lock() const { return lock_; }

  // All entries in order, valid until the next change of the map. [lock held: Lock()]
  [[nodiscard]] std::span<StrMapEntry> Entries() const { return {entries_, static_cast<std::size_t>(count_)}; }
  // The number of slots of the array. It grows in steps of 16. [lock held: Lock()]
  [[nodiscard]] std::int32_t Capacity() const { return capacity_; }

  // The entry of exactly this name, or null. Valid until the next change of the map. [lock held: Lock()]
  [[nodiscard]] StrMapEntry* Find(std::string_view name) const;

  // Puts `value` under `name`. `displaced` receives the old value (type 0 if there is no old value), which the caller
  // frees; an existing entry keeps its slot and its name. [lock held: Lock()]
  [[nodiscard]] bool Put(std::string_view name, const RegistryValue& value, RegistryValue& displaced);

  // Removes `entry`, which Find has returned, and frees its name. Returns its value, which the caller frees. [lock
  // held: Lock()]
  [[nodiscard]] RegistryValue Remove(StrMapEntry* entry);

  // To load many entries into a map that no other thread can reach: append them, in any order and with repeated names,
  // then sort once. Of equal names, the value that was appended last stays, and the others are freed. [owning thread]
  [[nodiscard]] bool Append(std::string_view name, const RegistryValue& value);
  void SortAppended();

 protected:
  // Frees the names and the array; the map is empty afterwards.
  void Discard();
  // Exchanges all entries with `other`, but not the locks.
  void SwapEntries(CStrMap& other) noexcept;
  // Allocates slots for `count` entries. The capacity grows in the same steps as with single insertions.
  [[nodiscard]] bool Reserve(std::int32_t count);

  // Order is interface: other code of the suite embeds this layout.
  mutable CCriticalSection lock_;
  StrMapEntry* entries_ = nullptr;
  std::int32_t capacity_ = 0;
  std::int32_t count_ = 0;

 private:
  friend struct StrMapLayout;
};
