// Compares and checks tag and attribute names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "markup/Ascii.h"
#include "markup/ByteScan.h"

namespace qx::markup {

// 0 if the first `length` bytes are equal; otherwise negative or positive, as for the first different byte. Only the
// case of A-Z and a-z is ignored.
int CompareIgnoringCase(const char* a, const char* b, std::size_t length);

// True if two texts of the same length begin with the same word and end with the same word. In a text that is shorter
// than two words, these words overlap.
template <typename Word>
bool SameEnds(const char* a, const char* b, std::size_t length) {
  Word words[4];
  std::memcpy(&words[0], a, sizeof(Word));
  std::memcpy(&words[1], b, sizeof(Word));
  std::memcpy(&words[2], a + length - sizeof(Word), sizeof(Word));
  std::memcpy(&words[3], b + length - sizeof(Word), sizeof(Word));
  return words[0] == words[1] && words[2] == words[3];
}

// Compares without memcmp if possible: names are short, and the call would take longer than the comparison.
inline bool SameBytes(const char* a, const char* b, std::size_t length) {
  if (length > 16) return std::memcmp(a, b, length) == 0;
  if (length >= 8) return SameEnds<std::uint64_t>(a, b, length);
  if (length >= 4) return SameEnds<std::uint32_t>(a, b, length);
  std::size_t same = 0;
  while (same != length && a[same] == b[same]) ++same;
  return same == length;
}

inline int CompareNames(const char* a, const char* b, std::size_t length, bool ignore_case) {
  if (ignore_case) return CompareIgnoringCase(a, b, length);
  return length == 0 ? 0 : std::memcmp(a, b, length);
}

inline bool SameName(std::string_view a, std::string_view b, bool ignore_case) {
  if (a.size() != b.size()) return false;
  return ignore_case ? CompareIgnoringCase(a.data(), b.data(), a.size()) == 0 : SameBytes(a.data(), b.data(), a.size());
}

// A stored name matches a requested one if it is the same name, or begins with it and continues with NUL, space, "/",
// "=", "[" or "]":
//   stored "a"    requested "a"  => true
//   stored "a=1"  requested "a"  => true
//   stored "ab"   requested "a"  => false
bool StoredNameMatches(std::string_view stored, std::string_view requested, bool ignore_case);

// The text before the first byte that ends a tag name:  "a b='1'>" => "a"
inline std::string_view LeadingTagName(std::string_view text) {
  const char* const end = text.data() + text.size();
  const char* p = SkipNameBytes(text.data(), end);
  while (p != end && !IsClass(*p, kNameEnd)) ++p;
  return text.substr(0, static_cast<std::size_t>(p - text.data()));
}

// The name in a whole start tag, from "<" to ">". The name ends at the ">" at the latest, so the loop needs no other
// end.
inline std::string_view NameInStartTag(std::string_view tag) {
  const char* const name = tag.data() + 1;
  const char* p = SkipNameBytes(name, tag.data() + tag.size());
  while (!IsClass(*p, kNameEnd)) ++p;
  return {name, static_cast<std::size_t>(p - name)};
}

// True if a start tag can have this name, so that a parse reads it back whole.
bool IsTagName(std::string_view name);

// True if an attribute can have this name.
bool IsAttributeName(std::string_view name);

}  // namespace qx::markup
