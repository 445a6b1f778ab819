#include "markup/Escape.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "markup/Ascii.h"
#include "markup/ByteScan.h"
#include "markup/Entities.h"
#include "markup/Unicode.h"

namespace qx::markup {

namespace {

constexpr std::size_t kReferenceCharsMax = 9;

// kUnescapeBytes of text are unescaped before the result is appended. Up to kOverrunBytes more may be written: the rest
// of a wide block, a reference that begins in it, and a whole block of 16 bytes. No character is longer than its
// reference.
constexpr std::size_t kUnescapeBytes = 1024;
constexpr std::size_t kOverrunBytes = 128;

int DigitValue(char c) { return IsClass(c, kDigit) ? c - '0' : c - 'a' + 10; }

// The code point of "#65" or "#x41" (lower-cased); 0 if it is not a number or not a character.
int NumericReference(std::string_view code) {
  const bool hex = code.size() > 1 && code[1] == 'x';
  const std::string_view digits = code.substr(hex ? 2 : 1);
  std::int64_t value = 0;  // nine digits at most
  for (const char c : digits) {
    if (!IsClass(c, hex ? kHexDigit : kDigit)) return 0;
    value = value * (hex ? 16 : 10) + DigitValue(c);
  }
  return value <= kCodePointMax && !IsSurrogate(static_cast<int>(value)) ? static_cast<int>(value) : 0;
}

struct Reference {
  int code = 0;               // 0: no reference
  const char* end = nullptr;  // after the ";"
};

// Reads the reference that begins with the "&" at `p`.
//   "&lt;x"  => '<', end at "x"      "& &lt;"  => none      "&#0;"  => none
Reference ReadReference(const char* p, const char* end) {
  char code[kReferenceCharsMax];
  std::size_t length = 0;
  for (++p; p != end && *p != ';' && static_cast<signed char>(*p) >= 0 && length < kReferenceCharsMax; ++p) {
    code[length++] = ToLower(*p);
  }
  if (p == end || *p != ';' || length == 0) return {};
  const std::string_view body(code, length);
  return {body.front() == '#' ? NumericReference(body) : FindPredefEntity(body), p + 1};
}

std::string HandleSpace(std::string_view text, int flags) {
  std::string out;
  bool pending = false;
  const auto white = [](char c) { return IsClass(c, kWhite); };
  const auto first = std::find_if_not(text.begin(), text.end(), white);
  const auto last = std::find_if_not(text.rbegin(), std::make_reverse_iterator(first), white).base();
  if ((flags & kUnescapeCollapse) == 0) return std::string(first, last);
  for (auto at = first; at != last; ++at) {
    if (!white(*at)) {
      if (pending) out += ' ';
      out += *at;
    }
    pending = white(*at);
  }
  return out;
}

// One of the five most common references, in lower case: its bytes, and a mask that selects the same number of bytes
// from eight.
struct CommonReference {
  std::uint64_t text = 1;  // equals no eight bytes under the mask 0
  std::uint64_t mask = 0;
  std::uint32_t size = 0;
  char code = '\0';
};

// The second and third bytes of "&lt;", "&gt;", "&amp;", "&apos;" and "&quot;" have different sums.
constexpr std::size_t CommonIndex(char second, char third) {
  return (static_cast<unsigned char>(second) + static_cast<unsigned char>(third)) & 15U;
}

constexpr std::uint64_t EightBytes(std::array<char, 8> bytes) { return std::bit_cast<std::uint64_t>(bytes); }

consteval std::array<CommonReference, 16> MakeCommonReferences() {
  struct Common {
    std::string_view text;
    char code;
  };
  constexpr Common kCommon[] = {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::array<CommonReference, 16> references{};
  for (const Common& common : kCommon) {
    std::array<char, 8> text{};
    std::array<char, 8> mask{};
    for (std::size_t i = 0; i < common.text.size(); ++i) {
      text[i] = common.text[i];
      mask[i] = '\xFF';
    }
    references[CommonIndex(common.text[1], common.text[2])] = {
        EightBytes(text), EightBytes(mask), static_cast<std::uint32_t>(common.text.size()), common.code};
  }
  return references;
}

constexpr std::array<CommonReference, 16> kCommonReferences = MakeCommonReferences();

// Reads the reference at `p` and writes its character to `to`, or "&" if no reference begins there. Moves `p` past what
// was read.
inline char* ReplaceReference(const char*& p, const char* end, char* to) {
  constexpr std::size_t kEight = 8;
  if (end - p >= std::ptrdiff_t{kEight}) {
    std::uint64_t eight = 0;
    std::memcpy(&eight, p, kEight);
    const CommonReference& common = kCommonReferences[CommonIndex(p[1], p[2])];
    if ((eight & common.mask) == common.text) {
      p += common.size;
      *to = common.code;
      return to + 1;
    }
  }
  const Reference reference = ReadReference(p, end);
  p = reference.code == 0 ? p + 1 : reference.end;
  return WriteUtf8(to, reference.code == 0 ? '&' : reference.code);
}

#if defined(__SSE2__)
// Unescapes the wide block at `p`, after which the text has at least one block more, and also the end of a reference
// that begins in the block. Moves `p` past the text that was read; returns the end of what was written to `to`.
char* UnescapeWideBlock(const char*& p, const char* end, char* to) {
  const char* const block = p;
  for (std::uint64_t hits = HitsInWideBlock<'&'>(block); hits != 0; hits &= hits - 1) {
    const char* const ampersand = block + std::countr_zero(hits);
    CopyInBlocks(p, to, ampersand - p);
    to += ampersand - p;
    p = ampersand;
    to = ReplaceReference(p, end, to);
  }
  const std::ptrdiff_t rest = std::max<std::ptrdiff_t>(block + kWideBlockBytes - p, 0);
  CopyInBlocks(p, to, rest);
  p += rest;
  return to + rest;
}
#endif

// Unescapes about kUnescapeBytes from `p` on and moves `p` past them; returns the end of what was written to `to`.
char* UnescapeStretch(const char*& p, const char* end, char* to) {
  const char* const stretch_end = p + std::min<std::ptrdiff_t>(end - p, kUnescapeBytes);
#if defined(__SSE2__)
  while (p < stretch_end && end - p >= kWideBlockBytes + kScanBlockBytes) to = UnescapeWideBlock(p, end, to);
#endif
  while (p < stretch_end) {
    const char* const ampersand = FindAnyOf<'&'>(p, stretch_end);
    to = std::copy(p, ampersand, to);
    p = ampersand;
    if (p != stretch_end) to = ReplaceReference(p, end, to);
  }
  return to;
}

}  // namespace

void AppendUnescapedPlain(std::string& out, std::string_view text) {
  const char* const end = text.data() + text.size();
  for (const char* p = text.data(); p != end;) {
    const Reference reference = *p == '&' ? ReadReference(p, end) : Reference{};
    if (reference.code != 0) {
      AppendUtf8(out, reference.code);
      p = reference.end;
    } else {
      out += *p++;
    }
  }
}

// Most texts have no reference, and are only appended. The others are unescaped in stretches, into a buffer that is
// large enough for any stretch.
void AppendUnescaped(std::string& out, std::string_view text, int flags) {
  if ((flags & (kUnescapeTrim | kUnescapeCollapse)) != 0) return AppendUnescaped(out, HandleSpace(text, flags), 0);
  const char* const end = text.data() + text.size();
  const char* p = FindAnyOf<'&'>(text.data(), end);
  out.append(text.data(), p);
  while (p != end) {
    char buffer[kUnescapeBytes + kOverrunBytes];
    char* const to = UnescapeStretch(p, end, buffer);
    out.append(buffer, to);
  }
}

}  // namespace qx::markup
