#include "markup/Base64.h"

#include <array>
#include <climits>
#include <cstdint>

#include "markup/Ascii.h"

namespace qx::markup {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

consteval std::array<std::int8_t, 256> MakeValueTable() {
  std::array<std::int8_t, 256> values{};
  values.fill(-1);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    values[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
  }
  return values;
}

constexpr std::array<std::int8_t, 256> kValues = MakeValueTable();

// Collects the digits of the text, without white space and the "=" at its end; false if the text is not base64.
bool TakeDigits(std::string_view text, std::string& digits) {
  std::size_t padding = 0;
  for (const char c : text) {
    if (IsClass(c, kWhite)) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    if (padding != 0 || kValues[static_cast<unsigned char>(c)] < 0) return false;
    digits += c;
  }
  // Four digits are three bytes. A single last digit has too few bits for a byte.
  const std::size_t rest = digits.size() % 4;
  return rest != 1 && (padding == 0 || (rest != 0 && rest + padding == 4));
}

}  // namespace

std::string Base64Text(const unsigned char* bytes, std::size_t count) {
  std::string text;
  text.reserve((count + 2) / 3 * 4);
  for (std::size_t i = 0; i < count; i += 3) {
    const std::size_t left = count - i;
    const unsigned group = static_cast<unsigned>(bytes[i]) << 16 |
                           (left > 1 ? static_cast<unsigned>(bytes[i + 1]) << 8 : 0U) |
                           (left > 2 ? static_cast<unsigned>(bytes[i + 2]) : 0U);
    text += kAlphabet[group >> 18];
    text += kAlphabet[group >> 12 & 63];
    text += left > 1 ? kAlphabet[group >> 6 & 63] : '=';
    text += left > 2 ? kAlphabet[group & 63] : '=';
  }
  return text;
}

int Base64Bytes(std::string_view text, unsigned char* bytes, std::size_t size) {
  std::string digits;
  if (!TakeDigits(text, digits)) return -1;
  const std::size_t count = digits.size() / 4 * 3 + (digits.size() % 4 == 0 ? 0 : digits.size() % 4 - 1);
  if (count > size || count > INT_MAX) return -1;
  if (bytes == nullptr) return static_cast<int>(count);

  std::uint32_t group = 0;
  unsigned bits = 0;
  for (const char c : digits) {
    group = group << 6 | static_cast<std::uint32_t>(kValues[static_cast<unsigned char>(c)]);
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    *bytes++ = static_cast<unsigned char>(group >> bits);
  }
  return static_cast<int>(count);
}

}  // namespace qx::markup
