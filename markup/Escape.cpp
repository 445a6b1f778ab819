#include "markup/Escape.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "markup/Ascii.h"
#include "markup/ByteScan.h"
#include "markup/Entities.h"
#include "markup/Unicode.h"

namespace qx::markup {

namespace {

constexpr std::size_t kReferenceCharsMax = 9;

// A "]]>" inside of CDATA is cut behind its second byte.
constexpr std::size_t kInnerEndBytes = 2;
constexpr std::string_view kSectionBreak = "]]><![CDATA[";

const char* FindSpecial(const char* p, const char* end, int flags) {
  return (flags & kEscapeQuoteMarks) != 0 ? FindAnyOf<'&', '<', '>', '"', '\''>(p, end)
                                          : FindAnyOf<'&', '<', '>'>(p, end);
}

std::string_view ReferenceFor(char special) {
  switch (special) {
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\'':
      return "&apos;";
    default:
      return "&amp;";
  }
}

// Behind the characters of a reference's body that begins at `p`:  name  #65  #x41
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

// `p` stands on an "&".
bool BeginsReference(const char* p, const char* end) {
  const char* const body_end = ReferenceBodyEnd(p + 1, end);
  return body_end != nullptr && body_end != end && *body_end == ';';
}

int DigitValue(char c) { return IsClass(c, kDigit) ? c - '0' : c - 'a' + 10; }

// The code point of "#65" or "#x41" (lower-cased); 0 if it is not a number or no character.
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
  const char* end = nullptr;  // behind the ";"
};

// What the "&" at `p` leads to.
//   "&lt;x"  => '<', "x"      "& &lt;"  => none      "&#0;"  => none
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

void AppendEscaped(std::string& out, std::string_view text, int flags) {
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p != end) {
    const char* const special = FindSpecial(p, end, flags);
    out.append(p, special);
    if (special == end) return;
    const bool keep = *special == '&' && (flags & kEscapeKeepReferences) != 0 && BeginsReference(special, end);
    out.append(keep ? std::string_view("&") : ReferenceFor(*special));
    p = special + 1;
  }
}

void AppendBinary(std::string& out, std::string_view text) {
  constexpr std::string_view kHexDigits = "0123456789ABCDEF";
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p != end) {
    const char* const special = FindNotPrintable(p, end);
    out.append(p, special);
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
    out.append(p, ampersand);
    if (ampersand == end) return;
    const Reference reference = ReadReference(ampersand, end);
    if (reference.code == 0) {
      out += '&';
      p = ampersand + 1;
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
  Pieces pieces;
  AppendCDataPieces(pieces, rest);
  const auto between = pieces.All().subspan(1, pieces.All().size() - 2);
  for (const Piece piece : between) text.append(piece.data, piece.size);
}

}  // namespace qx::markup
