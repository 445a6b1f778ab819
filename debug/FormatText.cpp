#include "debug/FormatText.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace qx::debug {

namespace {

constexpr std::size_t kWidthMax = 64;

// A list of arguments that can be passed by reference. A std::va_list cannot, because on some machines it is an array.
struct Arguments {
  std::va_list list;
};

// What follows a "%":  "08lX" => zeros, width 8, long, 'X'
struct Conversion {
  bool has_zeros = false;
  std::size_t width = 0;
  bool is_long = false;  // 64 bits
  char letter = '\0';
};

// Reads a conversion and moves `p` past it. For an unknown conversion, `letter` is one that PutConversion does not
// know.
Conversion ReadConversion(const char*& p) {
  Conversion conversion;
  if (*p == '0') {
    conversion.has_zeros = true;
    ++p;
  }
  for (; *p >= '0' && *p <= '9' && conversion.width <= kWidthMax; ++p) {
    conversion.width = 10 * conversion.width + static_cast<std::size_t>(*p - '0');
  }
  if (*p == 'l' || *p == 'z') {
    conversion.is_long = true;
    ++p;
  }
  conversion.letter = *p;
  if (*p != '\0') ++p;
  return conversion;
}

// Appends to a buffer. Put and PutFill return false, and write nothing, if the text does not fit.
class TextWriter {
 public:
  TextWriter(char* buffer, std::size_t size) : begin_(buffer), at_(buffer), end_(buffer + size) {}

  bool Put(const char* text, std::size_t length) {
    if (length >= static_cast<std::size_t>(end_ - at_)) return false;  // one byte stays for the NUL
    std::memcpy(at_, text, length);
    at_ += length;
    return true;
  }

  bool PutFill(char fill, std::size_t count) {
    if (count >= static_cast<std::size_t>(end_ - at_)) return false;
    std::memset(at_, fill, count);
    at_ += count;
    return true;
  }

  int End() {
    *at_ = '\0';
    return static_cast<int>(at_ - begin_);
  }

 private:
  char* begin_;
  char* at_;
  char* end_;
};

// Writes a number from its sign and digits, filled up to the width.
bool PutDigits(TextWriter& out, const Conversion& conversion, std::string_view sign, std::string_view digits) {
  const std::size_t length = sign.size() + digits.size();
  const std::size_t fill = conversion.width > length ? conversion.width - length : 0;
  if (fill != 0 && !conversion.has_zeros && !out.PutFill(' ', fill)) return false;
  if (!sign.empty() && !out.Put(sign.data(), sign.size())) return false;
  if (fill != 0 && conversion.has_zeros && !out.PutFill('0', fill)) return false;
  return out.Put(digits.data(), digits.size());
}

bool PutNumber(TextWriter& out, const Conversion& conversion, std::string_view sign, std::uint64_t number, int base) {
  char digits[20];
  char* const end = std::to_chars(digits, std::end(digits), number, base).ptr;
  if (conversion.letter == 'X') {
    std::transform(digits, end, digits, [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
  }
  return PutDigits(out, conversion, sign, {digits, static_cast<std::size_t>(end - digits)});
}

bool PutSigned(TextWriter& out, const Conversion& conversion, std::int64_t number) {
  const auto bits = static_cast<std::uint64_t>(number);
  return number < 0 ? PutNumber(out, conversion, "-", 0 - bits, 10) : PutNumber(out, conversion, "", bits, 10);
}

bool PutText(TextWriter& out, const Conversion& conversion, const char* text) {
  const bool is_plain = conversion.width == 0 && !conversion.has_zeros && !conversion.is_long;
  return is_plain && text != nullptr && out.Put(text, std::strlen(text));
}

bool PutPointer(TextWriter& out, const Conversion& conversion, const void* pointer) {
  const bool is_plain = !conversion.has_zeros && !conversion.is_long;
  return is_plain && pointer != nullptr &&
         PutNumber(out, conversion, "0x", reinterpret_cast<std::uintptr_t>(pointer), 16);
}

std::uint64_t NextUnsigned(Arguments& arguments, bool is_long) {
  return is_long ? va_arg(arguments.list, unsigned long) : va_arg(arguments.list, unsigned);
}

std::int64_t NextSigned(Arguments& arguments, bool is_long) {
  return is_long ? va_arg(arguments.list, long) : va_arg(arguments.list, int);
}

// Writes one argument. False for a conversion or text that only vsnprintf can write.
bool PutConversion(TextWriter& out, const Conversion& conversion, Arguments& arguments) {
  switch (conversion.letter) {
    case 's':
      return PutText(out, conversion, va_arg(arguments.list, const char*));
    case 'd':
      return PutSigned(out, conversion, NextSigned(arguments, conversion.is_long));
    case 'u':
      return PutNumber(out, conversion, "", NextUnsigned(arguments, conversion.is_long), 10);
    case 'x':
    case 'X':
      return PutNumber(out, conversion, "", NextUnsigned(arguments, conversion.is_long), 16);
    case 'p':
      return PutPointer(out, conversion, va_arg(arguments.list, const void*));
    default:
      return false;
  }
}

bool PutAll(TextWriter& out, const char* format, Arguments& arguments) {
  for (const char* p = format;;) {
    const char* const percent = ::strchrnul(p, '%');
    if (!out.Put(p, static_cast<std::size_t>(percent - p))) return false;
    if (*percent == '\0') return true;
    p = percent + 1;
    if (*p == '%') {
      if (!out.Put(p++, 1)) return false;
      continue;
    }
    const Conversion conversion = ReadConversion(p);
    if (!PutConversion(out, conversion, arguments)) return false;
  }
}

}  // namespace

int FormatText(char* buffer, std::size_t size, const char* format, std::va_list args) {
  Arguments arguments;
  va_copy(arguments.list, args);
  TextWriter out(buffer, size);
  const bool is_written = PutAll(out, format, arguments);
  va_end(arguments.list);
  return is_written ? out.End() : std::vsnprintf(buffer, size, format, args);
}

}  // namespace qx::debug
