#include "markup/Attribute.h"

#include <algorithm>

#include "markup/Ascii.h"
#include "markup/Names.h"

namespace qx::markup {

namespace {

bool IsQuote(char c) { return c == '"' || c == '\''; }

}  // namespace

AttributeScan::AttributeScan(std::string_view tag)
    : tag_(tag), at_(1 + LeadingTagName(tag.substr(1)).size()), end_(TagClosingOffset(tag)) {}

bool AttributeScan::Next(AttributePos& attribute) {
  for (SkipWhite(); at_ < end_; SkipWhite()) {
    attribute.name_start = at_;
    while (at_ < end_ && !IsClass(tag_[at_], kNameEnd) && tag_[at_] != '=') ++at_;
    attribute.name_end = at_;
    ReadValue(attribute);
    if (attribute.name_end != attribute.name_start) return true;
    // A value without a name, or a stray "/", is stepped over.
    if (at_ == attribute.name_start) ++at_;
  }
  return false;
}

bool AttributeScan::AtQuote() const { return at_ < end_ && IsQuote(tag_[at_]); }

void AttributeScan::SkipWhite() {
  while (at_ < end_ && IsClass(tag_[at_], kWhite)) ++at_;
}

//   ="1"   = '1'   =1   =(nothing)   (nothing)
// White space behind the "=" is skipped only before a quote: in `a= b="1"` the value of a is empty, not `b=`.
void AttributeScan::ReadValue(AttributePos& attribute) {
  attribute.value_start = attribute.value_end = attribute.name_end;
  attribute.quoted = false;
  SkipWhite();
  if (at_ < end_ && tag_[at_] == '=') {
    attribute.value_start = attribute.value_end = ++at_;
    SkipWhite();
  } else if (attribute.name_end != attribute.name_start || !AtQuote()) {
    return;
  }
  if (AtQuote()) {
    attribute.quoted = true;
    attribute.value_start = at_ + 1;
    attribute.value_end = std::min(tag_.find(tag_[at_], at_ + 1), end_);
    at_ = std::min(attribute.value_end + 1, end_);
  } else if (at_ == attribute.value_start) {
    while (at_ < end_ && !IsClass(tag_[at_], kWhite) && !IsQuote(tag_[at_])) ++at_;
    attribute.value_end = at_;
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
