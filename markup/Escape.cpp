#include "markup/Escape.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "markup/Ascii.h"
#include "markup/ByteScan.h"

namespace qx::markup {

namespace {

// The size of a stretch: the text that is escaped before the result is appended.
constexpr std::size_t kStretchBytes = 1024;
// A stretch ends with a whole block, so it may be longer by nearly one block.
constexpr std::size_t kWidestBlockBytes = 64;
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

// The end of the body of a reference (name, #65 or #x41) that begins at `p`; null if there is no such body.
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

// Whether a whole reference begins at `p`, which points to an "&".
bool BeginsReference(const char* p, const char* end) {
  const char* const body_end = ReferenceBodyEnd(p + 1, end);
  return body_end != nullptr && body_end != end && *body_end == ';';
}

struct EscapeSource {
  const char* end;
  int flags;
};

// Writes the escaped form of the special byte at `p` to `to`, which must have space for eight bytes.
inline char* WriteReference(const EscapeSource& source, const char* p, char* to) {
  if ((source.flags & kEscapeKeepReferences) != 0 && *p == '&' && BeginsReference(p, source.end)) {
    *to = '&';
    return to + 1;
  }
  const PaddedReference& reference = kReferences[ReferenceIndex(*p)];
  std::memcpy(to, reference.text, sizeof reference.text);
  return to + reference.size;
}

#if defined(__SSE2__)
// Escapes the wide block at `block`, after which the source has at least one block more; returns the end of what was
// written to `to`. The positions of all special bytes are found first, so no step has to wait for the one before.
template <char... kSpecial>
char* EscapeWideBlock(const EscapeSource& source, const char* block, char* to) {
  const char* p = block;
  for (std::uint64_t hits = HitsInWideBlock<kSpecial...>(block); hits != 0; hits &= hits - 1) {
    const char* const special = block + std::countr_zero(hits);
    CopyInBlocks(p, to, special - p);
    to = WriteReference(source, special, to + (special - p));
    p = special + 1;
  }
  const std::ptrdiff_t rest = block + kWideBlockBytes - p;
  CopyInBlocks(p, to, rest);
  return to + rest;
}

// Escapes the rest of the source, fewer than sixteen bytes, from a copy of these bytes that is padded with zeros, so
// that whole blocks can be read.
template <char... kSpecial>
char* EscapeShort(const EscapeSource& source, const char*& p, char* to) {
  const auto bytes = static_cast<std::size_t>(source.end - p);
  const __m128i block = detail::LoadShortBlock(p, bytes);
  char copy[2 * kScanBlockBytes] = {};
  _mm_storeu_si128(reinterpret_cast<__m128i*>(copy), block);
  const char* rest = copy;
  for (auto hits = static_cast<unsigned>(detail::HitsIn<kSpecial...>(block)); hits != 0; hits &= hits - 1) {
    const int at = std::countr_zero(hits);
    CopyInBlocks(rest, to, copy + at - rest);
    to = WriteReference(source, p + at, to + (copy + at - rest));
    rest = copy + at + 1;
  }
  const std::ptrdiff_t left = copy + bytes - rest;
  CopyInBlocks(rest, to, left);
  p = source.end;
  return to + left;
}
#endif

// Escapes about kStretchBytes from `p` on and moves `p` past them; returns the end of what was written to `to`. Near
// the end of the source, each step copies a whole block, but only the bytes before its first special byte count.
template <char... kSpecial>
char* EscapeStretchOf(const EscapeSource& source, const char*& p, char* to) {
  const char* const stretch_end = p + std::min<std::ptrdiff_t>(source.end - p, kStretchBytes);
#if defined(__SSE2__)
  for (; p < stretch_end && source.end - p >= kWideBlockBytes + kScanBlockBytes; p += kWideBlockBytes) {
    to = EscapeWideBlock<kSpecial...>(source, p, to);
  }
  while (p < stretch_end && source.end - p >= kScanBlockBytes) {
    const __m128i block = detail::LoadBlock(p);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), block);
    const int mask = detail::HitsIn<kSpecial...>(block);
    const int plain = mask == 0 ? static_cast<int>(kScanBlockBytes) : std::countr_zero(static_cast<unsigned>(mask));
    p += plain;
    to += plain;
    if (mask != 0) to = WriteReference(source, p++, to);
  }
  return p < stretch_end ? EscapeShort<kSpecial...>(source, p, to) : to;
#else
  while (p < stretch_end) {
    if (((*p == kSpecial) || ...)) {
      to = WriteReference(source, p++, to);
    } else {
      *to++ = *p++;
    }
  }
  return to;
#endif
}

char* EscapeStretch(const EscapeSource& source, const char*& p, char* to) {
  return (source.flags & kEscapeQuoteMarks) != 0 ? EscapeStretchOf<'&', '<', '>', '"', '\''>(source, p, to)
                                                 : EscapeStretchOf<'&', '<', '>'>(source, p, to);
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

// Escapes the text in stretches, into a buffer that is large enough even if every byte becomes the longest reference.
// So the size is not checked for each byte.
void AppendEscaped(std::string& out, std::string_view text, int flags) {
  const EscapeSource source{text.data() + text.size(), flags};
  for (const char* p = text.data(); p != source.end;) {
    char buffer[EscapeBufferBytes(kStretchBytes + kWidestBlockBytes)];
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
