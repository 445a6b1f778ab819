#include "markup/Attribute.h"

#include <bit>
#include <cstdint>
#include <cstring>

#include "markup/Ascii.h"
#include "markup/ByteScan.h"
#include "markup/Names.h"

namespace qx::markup {

namespace {

bool IsQuote(char c) { return c == '"' || c == '\''; }

// `p` must be inside a tag: its ">" is not white space, so the loop ends there at the latest.
const char* SkipWhite(const char* p) {
  while (IsClass(*p, kWhite)) ++p;
  return p;
}

// The end of the attribute's name at `p`. The name ends at `end`, the tag's end, at the latest.
const char* AttributeNameEnd(const char* p, const char* end) {
  p = SkipNameBytes(p, end);
  while (!IsClass(*p, kAttribEnd)) ++p;
  return p;
}

struct UsualAttribute {
  const char* name;
  const char* name_end;
  const char* value;
  const char* value_end;

  std::string_view Name() const { return {name, static_cast<std::size_t>(name_end - name)}; }
};

// Walks attributes of the form ` name="value"`, up to the first of another form.
//
// In a window of 64 bytes, the positions of all quotes are known at once, so that the search for an attribute does not
// have to wait for the end of the one before. An attribute that does not fit into the window is read alone.
class UsualScan {
 public:
  UsualScan(const char* at, const char* end) : at_(at), end_(end) {}

  bool Next(UsualAttribute& attribute) { return NextInWindow(attribute) || NextAlone(attribute); }
  bool AtEnd() const { return at_ == end_; }

 private:
  bool NextInWindow(UsualAttribute& attribute) {
#if defined(__SSE2__)
    if ((quotes_ & (quotes_ - 1)) == 0 && !FillWindow()) return false;
    const std::uint64_t closing = quotes_ & (quotes_ - 1);
    const char* const open = window_ + std::countr_zero(quotes_);
    const std::uint64_t later_name_ends = name_ends_ >> (at_ - window_) >> 1;
    const char* const name_end = at_ + 1 + std::countr_zero(later_name_ends);
    if (*at_ != ' ' || name_end + 1 != open || *name_end != '=') return false;
    attribute = {at_ + 1, name_end, open + 1, window_ + std::countr_zero(closing)};
    at_ = attribute.value_end + 1;
    quotes_ = closing & (closing - 1);
    return true;
#else
    (void)attribute;
    return false;
#endif
  }

#if defined(__SSE2__)
  // False if fewer than 64 bytes are left in the tag, or if the window does not have two quotes.
  bool FillWindow() {
    if (end_ - at_ < kWideBlockBytes) return false;
    window_ = at_;
    quotes_ = HitsInWideBlock<'"'>(at_);
    name_ends_ = WideHits(at_, NameEndsInBlock);
    return (quotes_ & (quotes_ - 1)) != 0;
  }
#endif

  bool NextAlone(UsualAttribute& attribute) {
    quotes_ = 0;
    if (*at_ != ' ') return false;
    const char* const name_end = AttributeNameEnd(at_ + 1, end_);
    if (name_end[0] != '=' || name_end[1] != '"') return false;
    const char* const close = FindAnyOf<'"'>(name_end + 2, end_);
    if (close == end_) return false;
    attribute = {at_ + 1, name_end, name_end + 2, close};
    at_ = close + 1;
    return true;
  }

  const char* at_;
  const char* end_;
  const char* window_ = nullptr;
  std::uint64_t quotes_ = 0;     // one bit for each quote of the window, from at_ on
  std::uint64_t name_ends_ = 0;  // one bit for each byte of the window that may end a name
};

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
    const char* const p = AttributeNameEnd(name, end_);
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

bool FindAttributeByWalk(std::string_view tag, std::string_view name, bool ignore_case, AttributePos& attribute) {
  AttributeScan scan(tag);
  while (scan.Next(attribute)) {
    const std::string_view found = tag.substr(attribute.name_start, attribute.name_end - attribute.name_start);
    if (SameName(found, name, ignore_case)) return true;
  }
  return false;
}

// In nearly every start tag, all attributes before the requested one have the form ` name="value"`. If one has another
// form, AttributeScan searches.
bool FindAttribute(std::string_view tag, std::string_view name, bool ignore_case, AttributePos& attribute) {
  const auto offset = [start = tag.data()](const char* at) { return static_cast<std::size_t>(at - start); };
  UsualScan scan(tag.data() + 1 + NameInStartTag(tag).size(), tag.data() + TagClosingOffset(tag));
  for (UsualAttribute found; scan.Next(found);) {
    if (found.name_end == found.name || !SameName(found.Name(), name, ignore_case)) continue;
    attribute = {offset(found.name), offset(found.name_end), offset(found.value), offset(found.value_end), true};
    return true;
  }
  return !scan.AtEnd() && FindAttributeByWalk(tag, name, ignore_case, attribute);
}

}  // namespace qx::markup
