#include "markup/Names.h"

#include <cstring>

#include "markup/Ascii.h"

namespace qx::markup {

int CompareNames(const char* a, const char* b, std::size_t length, bool ignore_case) {
  if (!ignore_case) return length == 0 ? 0 : std::memcmp(a, b, length);
  for (std::size_t i = 0; i < length; ++i) {
    const auto left = static_cast<unsigned char>(ToLower(a[i]));
    const auto right = static_cast<unsigned char>(ToLower(b[i]));
    if (left != right) return left < right ? -1 : 1;
  }
  return 0;
}

bool SameName(std::string_view a, std::string_view b, bool ignore_case) {
  return a.size() == b.size() && CompareNames(a.data(), b.data(), a.size(), ignore_case) == 0;
}

bool StoredNameMatches(std::string_view stored, std::string_view wanted, bool ignore_case) {
  if (stored.size() < wanted.size()) return false;
  if (stored.size() > wanted.size() && !IsClass(stored[wanted.size()], kStoredEnd)) return false;
  return CompareNames(stored.data(), wanted.data(), wanted.size(), ignore_case) == 0;
}

std::string_view LeadingTagName(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() && !IsClass(text[length], kNameEnd)) ++length;
  return text.substr(0, length);
}

bool IsTagName(std::string_view name) {
  return !name.empty() && IsClass(name.front(), kNameStart) && LeadingTagName(name).size() == name.size();
}

bool IsAttributeName(std::string_view name) {
  return !name.empty() && LeadingTagName(name).size() == name.size() && name.find('=') == std::string_view::npos;
}

}  // namespace qx::markup
