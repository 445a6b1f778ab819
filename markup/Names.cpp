#include "markup/Names.h"

#include <algorithm>

namespace qx::markup {

int CompareIgnoringCase(const char* a, const char* b, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    const auto left = static_cast<unsigned char>(ToLower(a[i]));
    const auto right = static_cast<unsigned char>(ToLower(b[i]));
    if (left != right) return left < right ? -1 : 1;
  }
  return 0;
}

bool StoredNameMatches(std::string_view stored, std::string_view requested, bool ignore_case) {
  if (stored.size() < requested.size()) return false;
  if (stored.size() > requested.size() && !IsClass(stored[requested.size()], kStoredEnd)) return false;
  return SameName(stored.substr(0, requested.size()), requested, ignore_case);
}

bool IsTagName(std::string_view name) {
  return !name.empty() && IsClass(name.front(), kNameStart) && LeadingTagName(name).size() == name.size();
}

bool IsAttributeName(std::string_view name) {
  const auto ends = [](char c) { return IsClass(c, kAttribEnd); };
  return !name.empty() && std::none_of(name.begin(), name.end(), ends);
}

}  // namespace qx::markup
