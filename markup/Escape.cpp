#include "markup/Escape.h"

#include <algorithm>
#include <array>
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

// How much text is escaped before it is appended.
constexpr std::size_t kStretchBytes = 1024;
// The longest reference that replaces one byte: "&quot;".
constexpr std::size_t kReferenceBytesMax = 6;

// The size of a buffer for the escaped form of `bytes` bytes. The last write may be a whole block of 16 bytes.
constexpr std::size_t EscapeBufferBytes(std::size_t bytes) { return bytes * kReferenceBytesMax + 16; }

// A "]]>" inside CDATA is split after its second byte.
constexpr std::size_t kInnerEndBytes = 2;
constexpr std::string_view kSectionBreak = "]]><![CDATA[";

const char* FindSpecial(const char* p, const char* end, int flags) {
  return (flags & kEscapeQuoteMarks) != 0 ? FindAnyOf<'&', '<', '>', '"', '\''>(p, end)
                                          : FindAnyOf<'&', '<', '>'>(p, end);
}

// A reference, padded to eight bytes so that a copy of it always has the same size.
struct PaddedReference {
  char text[8];
  std::size_t size;
};

// The five special bytes differ in their low five bits.
constexpr std::size_t ReferenceIndex(char special) { return static_cast<unsigned char>(special) & 31U; }

consteval std::array<PaddedReference, 32> MakeReferences() {
  std::array<PaddedReference, 32> references{};
  references[ReferenceIndex('<')] = {"&lt;", 4};
  references[ReferenceIndex('>')] = {"&gt;", 4};
  references[ReferenceIndex('"')] = {"&quot;", 6};
  references[ReferenceIndex('\'')] = {"&apos;", 6};
  references[ReferenceIndex('&')] = {"&amp;", 5};
  return references;
}

constexpr std::array<PaddedReference, 32> kReferences = MakeReferences();

// The end of the reference body that begins at `p` (name, #65 or #x41); null if none begins there.
const char* ReferenceBodyEnd(const char* p, const char* end) {
  const char* body = p;
  CharClass allowed = kRefName;
  if (p != end && *p == '#') {
    const bool hex = end - p > 1 && ToLower(p[1]) == 'x';
    body = p + (hex ? 2 : 1);
    allowed = hex ? kHexDigit : kDigit;
  } else if (p != end && !IsClass(*p, kNameStart)) {
    return nullptr;
  }
  const char* at = body;
  while (at != end && IsClass(*at, allowed)) ++at;
  return at == body ? nullptr : at;
}

// `p` points to an "&".
bool BeginsReference(const char* p, const char* end) {
  const char* const body_end = ReferenceBodyEnd(p + 1, end);
  return body_end != nullptr && body_end != end && *body_end == ';';
}

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
  int code = 0;               // 0: none
  const char* end = nullptr;  // after the ";"
};

// Reads one of the five most common references in its usual, lower-case form; code 0 for anything else.
Reference CommonReference(const char* p, const char* end) {
  struct Common {
    std::string_view text;
    char code;
  };
  static constexpr Common kCommon[] = {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}};
  for (const Common& common : kCommon) {
    if (static_cast<std::size_t>(end - p) < common.text.size()) continue;
    if (p[1] != common.text[1] || std::memcmp(p, common.text.data(), common.text.size()) != 0) continue;
    return {common.code, p + common.text.size()};
  }
  return {};
}

struct EscapeSource {
  const char* end;
  int flags;
};

// Writes the escaped form of the special byte at `p` to `to`, which must have space for eight bytes.
char* WriteReference(const EscapeSource& source, const char* p, char* to) {
  if ((source.flags & kEscapeKeepReferences) != 0 && *p == '&' && BeginsReference(p, source.end)) {
    *to = '&';
    return to + 1;
  }
  const PaddedReference& reference = kReferences[ReferenceIndex(*p)];
  std::memcpy(to, reference.text, sizeof reference.text);
  return to + reference.size;
}

// Escapes about kStretchBytes from `p` on and moves `p` past them; returns the end of what was written to `to`. Each
// step copies a whole block and keeps what comes before its first special byte.
template <char... kSpecial>
char* EscapeStretchOf(const EscapeSource& source, const char*& p, char* to) {
  const char* const stretch_end = p + std::min<std::ptrdiff_t>(source.end - p, kStretchBytes);
#if defined(__SSE2__)
  while (p < stretch_end && source.end - p >= kScanBlockBytes) {
    const __m128i block = detail::LoadBlock(p);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), block);
    const int mask = detail::HitsIn<kSpecial...>(block);
    const int plain = mask == 0 ? static_cast<int>(kScanBlockBytes) : std::countr_zero(static_cast<unsigned>(mask));
    p += plain;
    to += plain;
    if (mask != 0) to = WriteReference(source, p++, to);
  }
#endif
  while (p < stretch_end) {
    if (((*p == kSpecial) || ...)) {
      to = WriteReference(source, p++, to);
    } else {
      *to++ = *p++;
    }
  }
  return to;
}

char* EscapeStretch(const EscapeSource& source, const char*& p, char* to) {
  return (source.flags & kEscapeQuoteMarks) != 0 ? EscapeStretchOf<'&', '<', '>', '"', '\''>(source, p, to)
                                                 : EscapeStretchOf<'&', '<', '>'>(source, p, to);
}

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

}  // namespace

bool NeedsEscape(std::string_view text, int flags) {
  const char* const end = text.data() + text.size();
  return FindSpecial(text.data(), end, flags) != end;
}

void AppendEscapedPlain(std::string& out, std::string_view text, int flags) {
  const char* const end = text.data() + text.size();
  for (const char* p = text.data(); p != end; ++p) {
    const bool special = FindSpecial(p, p + 1, flags) == p;
    const bool keep = *p == '&' && (flags & kEscapeKeepReferences) != 0 && BeginsReference(p, end);
    if (special && !keep) {
      out.append(kReferences[ReferenceIndex(*p)].text);
    } else {
      out += *p;
    }
  }
}

// Escapes the text in stretches, into a buffer that is large enough for the longest reference for every byte. No size
// check per byte is therefore needed.
void AppendEscaped(std::string& out, std::string_view text, int flags) {
  const EscapeSource source{text.data() + text.size(), flags};
  for (const char* p = text.data(); p != source.end;) {
    char buffer[EscapeBufferBytes(kStretchBytes + std::size_t{kScanBlockBytes})];
    char* const to = EscapeStretch(source, p, buffer);
    out.append(buffer, static_cast<std::size_t>(to - buffer));
  }
}

bool AddEscaped(Pieces& pieces, std::string_view text, int flags) {
  if (text.size() > kStretchBytes) return false;
  char* const space = pieces.SpaceFor(EscapeBufferBytes(text.size()));
  if (space == nullptr) return false;
  const char* p = text.data();
  char* const to = EscapeStretch({p + text.size(), flags}, p, space);
  pieces.AddWritten(static_cast<std::size_t>(to - space));
  return true;
}

void AppendBinary(std::string& out, std::string_view text) {
  constexpr std::string_view kHexDigits = "0123456789ABCDEF";
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p != end) {
    const char* const special = FindNotPrintable(p, end);
    out.append(p, static_cast<std::size_t>(special - p));
    if (special == end) return;
    const auto byte = static_cast<unsigned char>(*special);
    const char reference[] = {'&', '#', 'x', kHexDigits[byte >> 4], kHexDigits[byte & 15], ';'};
    out.append(reference, sizeof reference);
    p = special + 1;
  }
}

void AppendUnescaped(std::string& out, std::string_view text, int flags) {
  if ((flags & (kUnescapeTrim | kUnescapeCollapse)) != 0) return AppendUnescaped(out, HandleSpace(text, flags), 0);

  const char* p = text.data();
  const char* const end = p + text.size();
  while (p != end) {
    const char* const ampersand = FindAnyOf<'&'>(p, end);
    out.append(p, static_cast<std::size_t>(ampersand - p));
    if (ampersand == end) return;
    Reference reference = CommonReference(ampersand, end);
    if (reference.code == 0) reference = ReadReference(ampersand, end);
    if (reference.code == 0) {
      out += '&';
      p = ampersand + 1;
    } else if (reference.code < 0x80) {
      out += static_cast<char>(reference.code);
      p = reference.end;
    } else {
      AppendUtf8(out, reference.code);
      p = reference.end;
    }
  }
}

void AppendCDataPieces(Pieces& pieces, std::string_view text) {
  const char* p = text.data();
  const char* const end = p + text.size();
  pieces.Add(kCDataStart);
  for (;;) {
    const char* const stop = FindTriple<']', ']', '>'>(p, end);
    const char* const piece_end = stop == end ? end : stop + kInnerEndBytes;
    pieces.Add(std::string_view(p, static_cast<std::size_t>(piece_end - p)));
    if (stop == end) break;
    pieces.Add(kSectionBreak);
    p = piece_end;
  }
  pieces.Add(kCDataEnd);
}

void SplitCDataEnds(std::string& text, std::size_t at) {
  const char* const end = text.data() + text.size();
  const char* const stop = FindTriple<']', ']', '>'>(text.data() + at, end);
  if (stop == end) return;
  const std::string rest(stop, end);
  text.resize(text.size() - rest.size());
  for (std::string_view left = rest;;) {
    const char* const left_end = left.data() + left.size();
    const char* const next = FindTriple<']', ']', '>'>(left.data(), left_end);
    if (next == left_end) {
      text.append(left);
      return;
    }
    const auto cut = static_cast<std::size_t>(next - left.data()) + kInnerEndBytes;
    text.append(left.substr(0, cut)).append(kSectionBreak);
    left.remove_prefix(cut);
  }
}

}  // namespace qx::markup
