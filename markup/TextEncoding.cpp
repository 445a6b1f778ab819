#include "markup/TextEncoding.h"

#include <langinfo.h>

#include <algorithm>
#include <cerrno>

#include "markup/Markup.h"
#include "markup/Names.h"
#include "markup/Unicode.h"

namespace {

constexpr std::size_t kOutputChunkBytes = 4096;

std::string ConvertWhole(const char* to, const char* from, MCD_CSTR text, int* lost) {
  TextEncoding conversion(to, from);
  std::string out = conversion.Convert(text == nullptr ? std::string_view() : std::string_view(text));
  if (lost != nullptr) *lost = conversion.FailedChars();
  return out;
}

}  // namespace

TextEncoding::TextEncoding(const char* to, const char* from)
    : conversion_(iconv_open(to, from)),
      source_unit_(UnitBytes(from)),
      source_is_utf8_(qx::markup::SameName(from, "UTF-8", true)) {
  const iconv_t question = iconv_open(to, "ASCII");
  if (question == reinterpret_cast<iconv_t>(-1)) return;
  // The first converted character may have a byte-order mark before it; the second one has no mark.
  char marks[] = "??";
  char out[32];
  for (char* in = marks; in < marks + 2;) {
    std::size_t in_left = 1;
    char* to_here = out;
    std::size_t out_left = sizeof out;
    if (iconv(question, &in, &in_left, &to_here, &out_left) == static_cast<std::size_t>(-1)) break;
    replacement_.assign(out, sizeof out - out_left);
  }
  iconv_close(question);
}

TextEncoding::~TextEncoding() {
  if (IsOpen()) iconv_close(conversion_);
}

std::size_t TextEncoding::UnitBytes(std::string_view encoding) {
  const auto is = [encoding](std::string_view name) { return qx::markup::SameName(encoding, name, true); };
  if (is("UTF-16") || is("UTF-16LE") || is("UTF-16BE")) return 2;
  return is("UTF-32") ? 4 : 1;
}

std::string TextEncoding::Convert(std::string_view input) {
  failed_chars_ = 0;
  std::string out;
  if (!IsOpen()) return out;
  iconv(conversion_, nullptr, nullptr, nullptr, nullptr);  // back to the initial state
  while (!input.empty()) {
    if (!Step(input, out)) Replace(input, out);
  }
  return out;
}

// Converts until one output chunk is full or the input ends. False if a character cannot be converted; this character
// is then at the front of the input.
bool TextEncoding::Step(std::string_view& input, std::string& out) {
  char chunk[kOutputChunkBytes];
  char* to = chunk;
  std::size_t to_left = sizeof chunk;
  char* from = const_cast<char*>(input.data());  // iconv only reads it
  std::size_t from_left = input.size();
  const std::size_t result = iconv(conversion_, &from, &from_left, &to, &to_left);
  const int error = errno;
  out.append(chunk, sizeof chunk - to_left);
  input.remove_prefix(input.size() - from_left);
  return result != static_cast<std::size_t>(-1) || error == E2BIG;
}

// Skips input that could not be converted, and appends "?". The input is a whole UTF-8 character that the target lacks,
// or one unit of faulty input.
void TextEncoding::Replace(std::string_view& input, std::string& out) {
  ++failed_chars_;
  out.append(replacement_);
  if (source_is_utf8_) {
    (void)qx::markup::TakeUtf8(input);  // the character itself is not needed
  } else {
    input.remove_prefix(std::min(source_unit_, input.size()));
  }
}

std::string CMarkup::UTF8ToA(MCD_CSTR text, int* lost) {
  return ConvertWhole(nl_langinfo(CODESET), "UTF-8", text, lost);
}

std::string CMarkup::AToUTF8(MCD_CSTR text, int* lost) {
  return ConvertWhole("UTF-8", nl_langinfo(CODESET), text, lost);
}
