// Finding an attribute inside a start tag. Nothing is built: a lookup walks the tag's bytes.
#pragma once

#include <cstddef>
#include <string_view>

namespace qx::markup {

// Offsets within the start tag. An attribute without a value has value_start == value_end == name_end.
struct AttributePos {
  std::size_t name_start = 0;
  std::size_t name_end = 0;
  std::size_t value_start = 0;
  std::size_t value_end = 0;
  bool quoted = false;

  bool HasValue() const { return value_start != name_end; }
};

// Walks the attributes of one start tag in their order.
class AttributeScan {
 public:
  // `tag` is the whole start tag from "<" to ">".
  explicit AttributeScan(std::string_view tag);

  // Steps to the next attribute; false at the end of the tag.
  bool Next(AttributePos& attribute);

 private:
  bool AtQuote() const;
  void SkipWhite();
  void ReadValue(AttributePos& attribute);

  std::string_view tag_;
  std::size_t at_;
  std::size_t end_;  // offset of the ">" or "/>"
};

// The attribute `name` of the start tag; false if it has none.
bool FindAttribute(std::string_view tag, std::string_view name, bool ignore_case, AttributePos& attribute);

// Offset of the ">" or "/>" that ends a start tag.
std::size_t TagClosingOffset(std::string_view tag);

}  // namespace qx::markup
