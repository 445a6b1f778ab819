// The static text functions of CMarkup. Each checks its arguments and calls the function that does the work.
#include <climits>
#include <cstring>

#include "markup/Base64.h"
#include "markup/BucketTable.h"
#include "markup/Encoding.h"
#include "markup/Escape.h"
#include "markup/Markup.h"
#include "markup/Names.h"
#include "markup/Unicode.h"

static_assert(CMarkup::kKeepReferences == qx::markup::kEscapeKeepReferences);
static_assert(CMarkup::kEscapeQuotes == qx::markup::kEscapeQuoteMarks);
static_assert(CMarkup::kTrimSpace == qx::markup::kUnescapeTrim);
static_assert(CMarkup::kCollapseSpace == qx::markup::kUnescapeCollapse);

namespace {

std::string_view ViewOf(MCD_CSTR text) { return text == nullptr ? std::string_view() : std::string_view(text); }

}  // namespace

std::string CMarkup::EscapeText(MCD_CSTR text, int flags) { return EscapeText(ViewOf(text), flags); }

std::string CMarkup::EscapeText(std::string_view text, int flags) {
  std::string out;
  out.reserve(text.size());
  qx::markup::AppendEscaped(out, text, flags);
  return out;
}

std::string CMarkup::EscapeTextBinary(MCD_CSTR text, int flags) { return EscapeTextBinary(ViewOf(text), flags); }

std::string CMarkup::EscapeTextBinary(std::string_view text, int flags) {
  std::string out;
  out.reserve(text.size());
  qx::markup::AppendBinary(out, text);
  return flags == 0 ? out : EscapeText(out, flags | kKeepReferences);
}

std::string CMarkup::UnescapeText(MCD_CSTR text, int length, int flags) {
  if (text == nullptr || length == 0) return {};
  const std::size_t bytes = length < 0 ? std::strlen(text) : ::strnlen(text, static_cast<std::size_t>(length));
  return UnescapeText(std::string_view(text, bytes), flags);
}

std::string CMarkup::UnescapeText(std::string_view text, int flags) {
  std::string out;
  out.reserve(text.size());
  qx::markup::AppendUnescaped(out, text, flags);
  return out;
}

std::string CMarkup::x_EncodeCDATASection(std::string_view text) {
  qx::markup::Pieces pieces;
  qx::markup::AppendCDataPieces(pieces, text);
  std::string out;
  out.reserve(pieces.Bytes());
  for (const qx::markup::Piece piece : pieces.All()) out.append(piece.data, piece.size);
  return out;
}

void CMarkup::EncodeCharUTF8(int code, char* buffer, int& length) {
  std::string bytes;
  qx::markup::AppendUtf8(bytes, code);
  if (buffer != nullptr) bytes.copy(buffer + length, bytes.size());
  length += static_cast<int>(bytes.size());
}

void CMarkup::EncodeCharUTF16(int code, char16_t* buffer, int& length) {
  std::u16string units;
  qx::markup::AppendUtf16(units, code);
  if (buffer != nullptr) units.copy(buffer + length, units.size());
  length += static_cast<int>(units.size());
}

int CMarkup::DecodeCharUTF8(const char*& text, const char* end) {
  if (text == nullptr || text == end) return -1;
  const std::size_t bytes = end != nullptr ? static_cast<std::size_t>(end - text) : ::strnlen(text, 4);
  std::string_view rest(text, bytes);
  const int code = qx::markup::TakeUtf8(rest);
  text += bytes - rest.size();
  return code;
}

int CMarkup::DecodeCharUTF16(const char16_t*& text, const char16_t* end) {
  if (text == nullptr || text == end || (end == nullptr && *text == 0)) return -1;
  // If `end` is null, a NUL ends the text. The first unit is not the NUL, so the second one can be read, too.
  const std::size_t units = end != nullptr ? static_cast<std::size_t>(end - text) : 2;
  std::u16string_view rest(text, units);
  const int code = qx::markup::TakeUtf16(rest);
  text += units - rest.size();
  return code;
}

std::string CMarkup::UTF16To8(std::u16string_view text) { return qx::markup::Utf16To8(text); }

std::u16string CMarkup::UTF8To16(std::string_view text) { return qx::markup::Utf8To16(text); }

bool CMarkup::DetectUTF8(const char* text, int length, int* non_ascii, bool* cut_off) {
  const std::size_t bytes = text == nullptr || length < 0 ? 0 : static_cast<std::size_t>(length);
  const qx::markup::Utf8Check check = qx::markup::CheckUtf8(std::string_view(text, bytes));
  if (non_ascii != nullptr) *non_ascii = check.non_ascii;
  if (cut_off != nullptr) *cut_off = check.cut_off;
  return check.valid && (cut_off != nullptr || !check.cut_off);
}

std::string CMarkup::EncodeBase64(const unsigned char* bytes, std::size_t count) {
  return qx::markup::Base64Text(bytes, bytes == nullptr ? 0 : count);
}

int CMarkup::DecodeBase64(MCD_CSTR text, unsigned char* bytes, int size) {
  const std::size_t capacity = bytes == nullptr ? INT_MAX : size < 0 ? 0 : static_cast<std::size_t>(size);
  return qx::markup::Base64Bytes(ViewOf(text), bytes, capacity);
}

int CMarkup::x_Hash(MCD_CSTR text, int size) { return size <= 0 ? 0 : qx::markup::Hash(ViewOf(text), size); }

int CMarkup::x_StrNCmp(MCD_CSTR a, MCD_CSTR b, int length, bool ignore_case) {
  return length <= 0 ? 0 : qx::markup::CompareNames(a, b, static_cast<std::size_t>(length), ignore_case);
}
