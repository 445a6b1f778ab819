#include "debug/RingFormat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace qx::debug {

namespace {

static_assert(kRingValueColumn + kRingValueChars + 2 == kRingLineBytes, "the value, the bar and the line feed");

// Writes two digits at a time, for speed: the write position is formatted for every entry.
void PutPair(char* to, std::uint32_t number) {
  to[0] = static_cast<char>('0' + number / 10);
  to[1] = static_cast<char>('0' + number % 10);
}

// Writes one line, in which `label` has its colon in column 33, and returns the place of the next line.
char* PutLine(char* to, const char* label, std::string_view value) {
  char line[kRingLineBytes + 1];
  const int shown = static_cast<int>(std::min(value.size(), kRingValueChars));
  (void)std::snprintf(line, sizeof line, "%-34.34s %-43.*s|\n", label, shown, value.data());
  std::memcpy(to, line, kRingLineBytes);
  return to + kRingLineBytes;
}

char* PutNumberLine(char* to, const char* label, std::uint32_t number) {
  char digits[kRingNumberDigits];
  FormatRingNumber(number, digits);
  return PutLine(to, label, {digits, sizeof digits});
}

}  // namespace

void FormatRingHeader(const RingHeader& header, char (&bytes)[kRingHeaderBytes]) noexcept {
  char* at = bytes;
  at = PutLine(at, "FilePath                         :", header.path);
  at = PutLine(at, "FirstOpen                        :", header.first_open);
  at = PutLine(at, "LastOpen                         :", header.last_open);
  at = PutNumberLine(at, "NumberOpens    (decimal)         :", header.opens);
  at = PutNumberLine(at, "WrapCount      (decimal)         :", header.wraps);
  at = PutNumberLine(at, "RingBufferSize (decimal)         :", header.size);
  at = PutNumberLine(at, "CurrentWritePosition (dec bytes) :", header.position);
  std::memset(at, '-', kRingLineBytes - 2);
  at[kRingLineBytes - 2] = '+';
  at[kRingLineBytes - 1] = '\n';
}

void FormatRingNumber(std::uint32_t number, char (&digits)[kRingNumberDigits]) noexcept {
  std::fill(std::begin(digits), std::end(digits), '0');
  std::size_t at = sizeof digits;
  for (; number >= 100; number /= 100) PutPair(digits + (at -= 2), number % 100);
  PutPair(digits + at - 2, number);
}

std::optional<std::uint32_t> ReadRingNumber(std::string_view digits) noexcept {
  std::uint64_t number = 0;  // 16 digits fit 64 bits
  for (const char digit : digits.substr(0, kRingNumberDigits)) {
    if (digit < '0' || digit > '9') return std::nullopt;
    number = number * 10 + static_cast<std::uint64_t>(digit - '0');
  }
  if (digits.size() < kRingNumberDigits || number > UINT32_MAX) return std::nullopt;
  return static_cast<std::uint32_t>(number);
}

}  // namespace qx::debug
