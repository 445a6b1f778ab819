// Comparing tag and attribute names.
#pragma once

#include <cstddef>
#include <string_view>

namespace qx::markup {

// 0 when the first `length` bytes are the same, else the sign of the first difference. Case means A-Z and a-z only.
int CompareNames(const char* a, const char* b, std::size_t length, bool ignore_case);

bool SameName(std::string_view a, std::string_view b, bool ignore_case);

// A stored name matches a wanted one when it begins with it and there ends, or goes on with NUL, space, "/", "=", "["
// or "]":
//   stored "a"    wanted "a"  => true
//   stored "a=1"  wanted "a"  => true
//   stored "ab"   wanted "a"  => false
bool StoredNameMatches(std::string_view stored, std::string_view wanted, bool ignore_case);

// The name that stands in front of the first byte that ends a tag name:  "a b='1'>" => "a"
std::string_view LeadingTagName(std::string_view text);

// True for what a start tag can carry and give back as one name.
bool IsTagName(std::string_view name);

// The same for an attribute, in whose name "=" cannot stand either.
bool IsAttributeName(std::string_view name);

}  // namespace qx::markup
