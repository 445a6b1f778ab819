// Internal: makes, reads and frees the data of a value slot.
//
// Strings and blocks are arrays of char; a block begins with its length as a 32-bit number in host order. Nothing here
// throws: if memory runs out, the functions New... return a null pointer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "registry/StrMap.h"

class CRegistryNode;

namespace qx::registry {

// A NUL-terminated copy of `text` made with new char[], or null.
[[nodiscard]] char* NewText(std::string_view text);

// A block of these bytes, or null.
[[nodiscard]] char* NewBlock(std::string_view bytes);
// A block of `size` bytes, which the caller writes to BytesIn(block), or null.
[[nodiscard]] char* NewBlockOf(std::size_t size);
[[nodiscard]] inline char* BytesIn(char* block) { return block + sizeof(std::uint32_t); }

// The bytes of a block, without the length.
[[nodiscard]] std::string_view BlockBytes(const void* block);

// Frees a value's data according to its type (a subkey with everything below it) and leaves an empty slot of type 0.
void FreeValue(RegistryValue& value);

[[nodiscard]] bool IsString(const RegistryValue& value);
[[nodiscard]] CRegistryNode* NodeOf(const RegistryValue& value);  // null if it is not a subkey

// The bytes that GetValue copies into its buffer: a string with its NUL, a block's bytes, the 4 bytes of a number. The
// view points into the value. Empty for a subkey and for an entry without data.
[[nodiscard]] std::string_view StoredBytes(const RegistryValue& value);

// Owns a value until it is put into a map: frees it at the end of the scope unless it was released.
class OwnedValue {
 public:
  OwnedValue() = default;
  OwnedValue(std::int32_t type, void* data) {
    value_.slot.pointer = data;
    value_.type = type;
  }
  explicit OwnedValue(const RegistryValue& value) : value_(value) {}
  explicit OwnedValue(std::int32_t number) {
    value_.slot.number = number;
    value_.type = REG_DWORD;
  }
  OwnedValue(OwnedValue&& other) noexcept : value_(other.Release()) {}
  OwnedValue& operator=(OwnedValue&&) = delete;
  ~OwnedValue() {
    if (value_.type != 0) FreeValue(value_);
  }

  [[nodiscard]] bool IsPresent() const { return value_.IsPresent(); }
  [[nodiscard]] const RegistryValue& Get() const { return value_; }
  // The place for a value that a function returns and that is to be freed.
  [[nodiscard]] RegistryValue& Place() { return value_; }
  RegistryValue Release() { return std::exchange(value_, {}); }

 private:
  RegistryValue value_;
};

}  // namespace qx::registry
