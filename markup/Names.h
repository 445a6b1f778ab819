// Comparing tag and attribute names.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

#include "markup/Ascii.h"

namespace qx::markup {

// 0 when the first `length` bytes are the same, else the sign of the first difference. Case means A-Z and a-z only.
int CompareIgnoringCase(const char* a, const char* b, std::size_t length);
inline int CompareNames(const char* a, const char* b, std::size_t length, bool ignore_case) {
  if (ignore_case) return CompareIgnoringCase(a, b, length);
  return length == 0 ? 0 : std::memcmp(a, b, length);
}

inline bool SameName(std::string_view a, std::string_view b, bool ignore_case) {
  return a.size() == b.size() && CompareNames(a.data(), b.data(), a.size(), ignore_case) == 0;
}

// A stored name matches a wanted one when it begins with it and there ends, or goes on with NUL, space, "/", "=", "["
// or "]":
//   stored "a"    wanted "a"  => true
//   stored "a=1"  wanted "a"  => true
//   stored "ab"   wanted "a"  => false
bool StoredNameMatches(std::string_view stored, std::string_view wanted, bool ignore_case);

// The name that stands in front of the first byte that ends a tag name:  "a b='1'>" => "a"
inline std::string_view LeadingTagName(std::string_view text) {
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p != end && !IsClass(*p, kNameEnd)) ++p;
  return text.substr(0, static_cast<std::size_t>(p - text.data()));
}

// The same for a whole start tag, from "<" to ">", which itself ends the name.
inline std::string_view NameInStartTag(std::string_view tag) {
  const char* const name = tag.data() + 1;
  const char* p = name;
  while (!IsClass(*p, kNameEnd)) ++p;
  return {name, static_cast<std::size_t>(p - name)};
}

// True for what a start tag can carry and give back as one name.
bool IsTagName(std::string_view name);

// The same for an attribute, in whose name "=" cannot stand either.
bool IsAttributeName(std::string_view name);

}  // namespace qx::markup
