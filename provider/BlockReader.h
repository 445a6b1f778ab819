// Loads values from the service's parameter block. The parts of the block need no alignment, so a structure or a number
// is copied before it is used. The compiler turns the copy into loads of the used fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "provider/KrxGenData.h"

namespace qx::provider {

// The value at `from`, which may have any alignment: Load(element).index, Load(number).
template <typename T>
[[nodiscard]] T Load(const T* from) noexcept {
  static_assert(std::is_trivially_copyable_v<T>);
  T value;
  // NOLINTNEXTLINE(bugprone-sizeof-expression): if T is a pointer type, the pointer itself is loaded.
  std::memcpy(static_cast<void*>(&value), static_cast<const void*>(from), sizeof value);
  return value;
}

// An array of pointers from the block. With a negative count or a null array it is empty: Count() is then 0 or less.
// Entries may be null.
template <typename T>
class PointerArray {
 public:
  PointerArray(std::int32_t count, T* const* array) noexcept : array_(array), count_(array != nullptr ? count : 0) {}

  [[nodiscard]] std::int32_t Count() const noexcept { return count_; }
  [[nodiscard]] const T* At(std::int32_t i) const noexcept {
    const std::size_t offset = sizeof(T*) * static_cast<std::size_t>(i);
    return Load(reinterpret_cast<T* const*>(reinterpret_cast<const char*>(array_) + offset));
  }

 private:
  T* const* array_;
  std::int32_t count_;
};

using ElementArray = PointerArray<krx_element>;

// The elements of a header, a nested block or an element list; empty for null.
template <typename Block>
[[nodiscard]] ElementArray ElementsOf(const Block* block) noexcept {
  if (block == nullptr) return {0, nullptr};
  const Block header = Load(block);
  return {header.element_count, header.elements};
}

// The first element with this index, or null if no element has it. Index 0 is never found; null entries are skipped.
[[nodiscard]] inline const krx_element* FindElement(const ElementArray& elements, std::int32_t index) noexcept {
  if (index == 0) return nullptr;
  for (std::int32_t i = 0; i < elements.Count(); ++i) {
    const krx_element* element = elements.At(i);
    if (element != nullptr && Load(element).index == index) return element;
  }
  return nullptr;
}

[[nodiscard]] inline bool IsOfType(const krx_element* element, krx_type type) noexcept {
  return element != nullptr && Load(element).type == static_cast<std::int32_t>(type);
}

// The value field of an element as a pointer to T; null if `element` is null.
template <typename T>
[[nodiscard]] const T* ValueOf(const krx_element* element) noexcept {
  return element != nullptr ? static_cast<const T*>(Load(element).value) : nullptr;
}

// The nested block below a type 512 element; null when the element is missing, of another type or without a value.
[[nodiscard]] inline const krx_nested_block* NestedBlockOf(const krx_element* element) noexcept {
  return IsOfType(element, kKrxTypeNested) ? ValueOf<krx_nested_block>(element) : nullptr;
}

}  // namespace qx::provider
