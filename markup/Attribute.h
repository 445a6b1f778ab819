// Finds an attribute inside a start tag. There is no attribute list: each lookup walks the tag's bytes.
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

// Walks the attributes of one start tag, in order.
class AttributeScan {
 public:
  // `tag` is the whole start tag from "<" to ">".
  explicit AttributeScan(std::string_view tag);

  // Moves to the next attribute; false at the end of the tag.
  bool Next(AttributePos& attribute);

 private:
  void ReadQuoted(AttributePos& attribute, const char* open);
  void ReadValue(AttributePos& attribute, const char* p);
  std::size_t OffsetOf(const char* p) const { return static_cast<std::size_t>(p - tag_.data()); }

  std::string_view tag_;
  const char* at_;
  // The ">" or "/>". It is neither white space nor part of a name, so every scan over these bytes stops here.
  const char* end_;
};

// Finds the attribute `name` of the start tag; false if the tag has no such attribute.
bool FindAttribute(std::string_view tag, std::string_view name, bool ignore_case, AttributePos& attribute);
// FindAttribute with an AttributeScan: for attributes of other forms than ` name="value"`. Tests compare FindAttribute
// with it.
bool FindAttributeByWalk(std::string_view tag, std::string_view name, bool ignore_case, AttributePos& attribute);

// Offset of the ">" or "/>" that ends a start tag.
inline std::size_t TagClosingOffset(std::string_view tag) {
  const bool slash = tag.size() >= 2 && tag[tag.size() - 2] == '/';
  return tag.size() - (slash ? 2 : 1);
}

}  // namespace qx::markup
