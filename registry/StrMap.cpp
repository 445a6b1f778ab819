#include "registry/StrMap.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "registry/RegistryValue.h"

static_assert(std::is_trivially_copyable_v<StrMapEntry>, "entries are moved as bytes");
static_assert(offsetof(StrMapEntry, name) == 0 && offsetof(StrMapEntry, value) == 8 && sizeof(StrMapEntry) == 24);
static_assert(offsetof(RegistryValue, slot) == 0 && offsetof(RegistryValue, type) == 8 && sizeof(RegistryValue) == 16);

struct StrMapLayout {
  static_assert(std::is_standard_layout_v<CStrMap>);
  static_assert(offsetof(CStrMap, lock_) == 0);
  static_assert(offsetof(CStrMap, entries_) == sizeof(CCriticalSection));
  static_assert(offsetof(CStrMap, capacity_) == offsetof(CStrMap, entries_) + 8);
  static_assert(offsetof(CStrMap, count_) == offsetof(CStrMap, capacity_) + 4);
  static_assert(sizeof(CStrMap) == sizeof(CCriticalSection) + 16);
};

namespace {

constexpr std::int32_t kGrowthSlots = 16;
constexpr std::int32_t kCapacityMax = INT_MAX - kGrowthSlots;

// The memory of an array of `capacity` slots is rounded up to a power of two. The capacity itself grows by 16, because
// other code of the suite may rely on it. If the memory grew by 16 slots, too, a key of many values would be copied
// thousands of times.
std::size_t SlotsAllocated(std::int32_t capacity) { return std::bit_ceil(static_cast<std::size_t>(capacity)); }

// The capacity grows only if the array is full, in steps of 16:
//   capacity 0, 1 entry => 16     capacity 16, 17 entries => 32
std::int32_t GrownCapacity(std::int32_t capacity, std::int32_t count) {
  if (count <= capacity) return capacity;
  const std::int32_t steps = (count - capacity - 1) / kGrowthSlots + 1;
  return capacity + steps * kGrowthSlots;
}

std::string_view NameOf(const StrMapEntry& entry) { return entry.name; }

bool Precedes(const StrMapEntry& left, const StrMapEntry& right) { return CStrMap::compare(&left, &right) < 0; }

// True if each entry precedes the next one.
template <typename Iterator>
bool AreInOrder(Iterator begin, Iterator end) {
  const auto is_out_of_order = [](const StrMapEntry& left, const StrMapEntry& right) { return !Precedes(left, right); };
  return std::adjacent_find(begin, end, is_out_of_order) == end;
}

}  // namespace

CStrMap::~CStrMap() { Discard(); }

int CStrMap::compare(const void* left, const void* right) {
  const char* left_name = static_cast<const StrMapEntry*>(left)->name;
  const char* right_name = static_cast<const StrMapEntry*>(right)->name;
  if (left_name == nullptr || right_name == nullptr) {
    return static_cast<int>(left_name == nullptr) - static_cast<int>(right_name == nullptr);
  }
  return std::strcmp(left_name, right_name);
}

StrMapEntry* CStrMap::Find(std::string_view name) const {
  const auto entries = Entries();
  const auto place =
      std::lower_bound(entries.begin(), entries.end(), name,
                       [](const StrMapEntry& entry, std::string_view key) { return NameOf(entry) < key; });
  return place != entries.end() && NameOf(*place) == name ? &*place : nullptr;
}

bool CStrMap::Put(std::string_view name, const RegistryValue& value, RegistryValue& displaced) {
  displaced = {};
  if (StrMapEntry* existing = Find(name)) {
    displaced = std::exchange(existing->value, value);
    return true;
  }
  if (!Append(name, value)) return false;
  const StrMapEntry added = entries_[count_ - 1];
  StrMapEntry* place = std::upper_bound(entries_, entries_ + count_ - 1, added, Precedes);
  std::copy_backward(place, entries_ + count_ - 1, entries_ + count_);
  *place = added;
  return true;
}

RegistryValue CStrMap::Remove(StrMapEntry* entry) {
  delete[] entry->name;
  const RegistryValue value = entry->value;
  std::copy(entry + 1, entries_ + count_, entry);
  entries_[--count_] = {};
  return value;
}

bool CStrMap::Append(std::string_view name, const RegistryValue& value) {
  if (!Reserve(count_ + 1)) return false;
  char* own_name = qx::registry::NewText(name);
  if (own_name == nullptr) return false;
  entries_[count_++] = {own_name, value};
  return true;
}

void CStrMap::SortAppended() {
  const auto entries = Entries();
  if (AreInOrder(entries.begin(), entries.end())) return;
  if (AreInOrder(entries.rbegin(), entries.rend())) {
    std::reverse(entries.begin(), entries.end());
    return;
  }

  std::stable_sort(entries.begin(), entries.end(), Precedes);
  std::size_t kept = 0;
  for (std::size_t i = 1; i < entries.size(); ++i) {
    if (Precedes(entries[kept], entries[i])) {
      entries[++kept] = entries[i];
      continue;
    }
    qx::registry::FreeValue(entries[kept].value);
    entries[kept].value = entries[i].value;
    delete[] entries[i].name;
  }
  std::fill(entries.begin() + static_cast<std::ptrdiff_t>(kept) + 1, entries.end(), StrMapEntry());
  count_ = static_cast<std::int32_t>(kept) + 1;
}

void CStrMap::Discard() {
  for (const StrMapEntry& entry : Entries()) delete[] entry.name;
  std::free(entries_);
  entries_ = nullptr;
  capacity_ = 0;
  count_ = 0;
}

void CStrMap::SwapEntries(CStrMap& other) noexcept {
  std::swap(entries_, other.entries_);
  std::swap(capacity_, other.capacity_);
  std::swap(count_, other.count_);
}

bool CStrMap::Reserve(std::int32_t count) {
  if (count <= capacity_) return true;
  if (count > kCapacityMax) return false;
  const std::int32_t capacity = GrownCapacity(capacity_, count);
  if (capacity_ == 0 || SlotsAllocated(capacity) != SlotsAllocated(capacity_)) {
    void* grown = std::realloc(entries_, SlotsAllocated(capacity) * sizeof(StrMapEntry));
    if (grown == nullptr) return false;
    entries_ = static_cast<StrMapEntry*>(grown);
  }
  std::uninitialized_fill(entries_ + capacity_, entries_ + capacity, StrMapEntry());
  capacity_ = capacity;
  return true;
}
