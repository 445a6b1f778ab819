#include "markup/Unicode.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>

namespace qx::markup {

namespace {

bool IsContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80; }

// The length of the sequence that begins with this lead byte; 0 if the byte is not a lead byte.
//   00..7F => 1    C2..DF => 2    E0..EF => 3    F0..F4 => 4
std::size_t SequenceLength(unsigned lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

// Checks the second byte. This excludes overlong forms, surrogates and codes above U+10FFFF.
bool IsSecondByte(unsigned lead, char c) {
  if (!IsContinuation(c)) return false;
  const auto second = static_cast<unsigned char>(c);
  switch (lead) {
    case 0xE0:
      return second >= 0xA0;
    case 0xED:
      return second <= 0x9F;
    case 0xF0:
      return second >= 0x90;
    case 0xF4:
      return second <= 0x8F;
    default:
      return true;
  }
}

struct Sequence {
  std::size_t length = 0;  // the length by the first byte; 0 if this is not a lead byte
  std::size_t valid = 0;   // valid bytes from the start; the sequence is complete if this equals `length`
};

Sequence Measure(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  Sequence sequence{SequenceLength(lead), 1};
  const std::size_t available = std::min(sequence.length, text.size());
  while (sequence.valid < available) {
    const char c = text[sequence.valid];
    if (sequence.valid == 1 ? !IsSecondByte(lead, c) : !IsContinuation(c)) break;
    ++sequence.valid;
  }
  return sequence;
}

}  // namespace

char* WriteUtf8(char* to, int code) {
  const auto c = static_cast<unsigned>(IsCharacter(code) ? code : kReplacementCharacter);
  const auto continuation = [c](unsigned shift) { return static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
  if (c < 0x80) {
    *to++ = static_cast<char>(c);
    return to;
  }
  if (c < 0x800) {
    *to++ = static_cast<char>(0xC0 | (c >> 6));
  } else if (c < 0x10000) {
    *to++ = static_cast<char>(0xE0 | (c >> 12));
    *to++ = continuation(6);
  } else {
    *to++ = static_cast<char>(0xF0 | (c >> 18));
    *to++ = continuation(12);
    *to++ = continuation(6);
  }
  *to++ = continuation(0);
  return to;
}

void AppendUtf8(std::string& out, int code) {
  char bytes[kUtf8BytesMax];
  out.append(bytes, WriteUtf8(bytes, code));
}

void AppendUtf16(std::u16string& out, int code) {
  const auto c = static_cast<unsigned>(IsCharacter(code) ? code : kReplacementCharacter);
  if (c < 0x10000) {
    out += static_cast<char16_t>(c);
    return;
  }
  out += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
  out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
}

int TakeUtf8(std::string_view& text) {
  if (text.empty()) return -1;
  const Sequence sequence = Measure(text);
  if (sequence.valid != sequence.length) {
    text.remove_prefix(1);
    return -1;
  }
  constexpr std::array<unsigned, 5> kLeadMask = {0, 0x7F, 0x1F, 0x0F, 0x07};
  unsigned code = static_cast<unsigned char>(text.front()) & kLeadMask[sequence.length];
  for (std::size_t i = 1; i < sequence.length; ++i) code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
  text.remove_prefix(sequence.length);
  return static_cast<int>(code);
}

int TakeUtf16(std::u16string_view& text) {
  if (text.empty()) return -1;
  const int first = text.front();
  text.remove_prefix(1);
  if (!IsSurrogate(first)) return first;
  const bool pair = first < 0xDC00 && !text.empty() && text.front() >= 0xDC00 && text.front() <= 0xDFFF;
  if (!pair) return -1;
  const int second = text.front();
  text.remove_prefix(1);
  return 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
}

std::string Utf16To8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) AppendUtf8(out, TakeUtf16(text));
  return out;
}

std::u16string Utf8To16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  while (!text.empty()) AppendUtf16(out, TakeUtf8(text));
  return out;
}

Utf8Check CheckUtf8(std::string_view text) {
  Utf8Check check;
  while (!text.empty()) {
    if (static_cast<signed char>(text.front()) >= 0) {
      text.remove_prefix(1);
      continue;
    }
    const Sequence sequence = Measure(text);
    if (sequence.valid != sequence.length) {
      check.cut_off = sequence.length != 0 && sequence.valid == text.size();
      check.valid = check.cut_off;
      return check;
    }
    if (check.non_ascii < INT_MAX) ++check.non_ascii;
    text.remove_prefix(sequence.length);
  }
  return check;
}

}  // namespace qx::markup
