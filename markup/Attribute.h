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
  void ReadQuoted(AttributePos& attribute, const char* open);
  void ReadValue(AttributePos& attribute, const char* p);
  std::size_t OffsetOf(const char* p) const { return static_cast<std::size_t>(p - tag_.data()); }

  std::string_view tag_;
  const char* at_;
  const char*
      end_;  // the ">" or "/>": neither can stand in a name or be white space, so it ends every search for those
};

// The attribute `name` of the start tag; false if it has none.
bool FindAttribute(std::string_view tag, std::string_view name, bool ignore_case, AttributePos& attribute);

// Offset of the ">" or "/>" that ends a start tag.
std::size_t TagClosingOffset(std::string_view tag);

}  // namespace qx::markup
