#include "markup/Attribute.h"

#include <cstring>

#include "markup/Ascii.h"
#include "markup/Names.h"

namespace qx::markup {

namespace {

bool IsQuote(char c) { return c == '"' || c == '\''; }

// `p` must be inside a tag: its ">" is not white space, so the loop ends there at the latest.
const char* SkipWhite(const char* p) {
  while (IsClass(*p, kWhite)) ++p;
  return p;
}

}  // namespace

AttributeScan::AttributeScan(std::string_view tag)
    : tag_(tag), at_(tag.data() + 1 + NameInStartTag(tag).size()), end_(tag.data() + TagClosingOffset(tag)) {}

// Reads the value that begins with the quote at `open`. Without a closing quote it extends to the end of the tag.
inline void AttributeScan::ReadQuoted(AttributePos& attribute, const char* open) {
  const void* const close = std::memchr(open + 1, *open, static_cast<std::size_t>(end_ - open - 1));
  attribute.quoted = true;
  attribute.value_start = OffsetOf(open + 1);
  at_ = close != nullptr ? static_cast<const char*>(close) : end_;
  attribute.value_end = OffsetOf(at_);
  if (close != nullptr) ++at_;
}

bool AttributeScan::Next(AttributePos& attribute) {
  for (at_ = SkipWhite(at_); at_ < end_; at_ = SkipWhite(at_)) {
    const char* const name = at_;
    const char* p = name;
    while (!IsClass(*p, kAttribEnd)) ++p;
    attribute.name_start = OffsetOf(name);
    attribute.name_end = OffsetOf(p);
    if (*p == '=' && IsQuote(p[1])) {
      ReadQuoted(attribute, p + 1);
    } else {
      ReadValue(attribute, p);
    }
    if (p != name) return true;
    // Skip a value without a name, or a stray "/".
    if (at_ == name) ++at_;
  }
  return false;
}

//   ="1"   = '1'   =1   =(nothing)   (nothing)
// White space after the "=" is skipped only before a quote: in `a= b="1"` the value of a is empty, not `b=`.
void AttributeScan::ReadValue(AttributePos& attribute, const char* p) {
  attribute.value_start = attribute.value_end = attribute.name_end;
  attribute.quoted = false;
  at_ = SkipWhite(p);
  if (*at_ == '=') {
    attribute.value_start = attribute.value_end = OffsetOf(++at_);
    at_ = SkipWhite(at_);
  } else if (attribute.name_end != attribute.name_start || !IsQuote(*at_)) {
    return;
  }
  if (IsQuote(*at_)) {
    ReadQuoted(attribute, at_);
  } else if (OffsetOf(at_) == attribute.value_start) {
    while (at_ < end_ && !IsClass(*at_, kWhite) && !IsQuote(*at_)) ++at_;
    attribute.value_end = OffsetOf(at_);
  }
}

bool FindAttribute(std::string_view tag, std::string_view name, bool ignore_case, AttributePos& attribute) {
  AttributeScan scan(tag);
  while (scan.Next(attribute)) {
    const std::string_view found = tag.substr(attribute.name_start, attribute.name_end - attribute.name_start);
    if (SameName(found, name, ignore_case)) return true;
  }
  return false;
}

std::size_t TagClosingOffset(std::string_view tag) {
  const bool slash = tag.size() >= 2 && tag[tag.size() - 2] == '/';
  return tag.size() - (slash ? 2 : 1);
}

}  // namespace qx::markup
