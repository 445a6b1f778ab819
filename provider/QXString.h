// A standard string with printf-style formatting that never cuts the text.
//
// The length of the text is computed first, and then the text is printed into a buffer of that length. The text is
// built separately and moved into the target last, so the target itself may be an argument.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <type_traits>
#include <utility>

// A `String` that can be set to, or extended by, formatted text.
// Threads: as for the string type.
// Failure: text that cannot be formatted (a field over 2 GiB, a wide character without an encoding) counts as empty;
// so does a null format. An allocation that fails throws what the string throws, with the target unchanged.
template <class String = std::string, class Char = char>
class CQXString : public String {
  static_assert(std::is_same_v<Char, char> && std::is_same_v<typename String::value_type, Char>,
                "the printf family that measures its text exists for char only");

 public:
  using String::String;
  CQXString() = default;
  CQXString(const String& text) : String(text) {}
  CQXString(String&& text) noexcept : String(std::move(text)) {}

  // Sets the string to the formatted text. The arguments may point into the string. [owning thread]
  //   "a.%s" with "b"                 => a.b
  //   "%s%s" with the string's own x  => xx
  CQXString& Format(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    const ArgsScope scope{args};
    FormatV(*this, format, args);
    return *this;
  }

  // Appends the formatted text. The arguments may point into the string. [owning thread]
  CQXString& AppendFormat(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    const ArgsScope scope{args};
    AppendFormatV(*this, format, args);
    return *this;
  }

  // Format and AppendFormat for any string, with an argument list. `args` must not be used afterwards. [owning thread]
  static void FormatV(String& target, const char* format, va_list args) __attribute__((format(printf, 2, 0))) {
    target = Formatted(format, args);
  }
  static void AppendFormatV(String& target, const char* format, va_list args) __attribute__((format(printf, 2, 0))) {
    target += Formatted(format, args);
  }

 private:
  // Calls va_end at the end of the scope, even if an allocation fails.
  struct ArgsScope {
    va_list& args;
    ~ArgsScope() { va_end(args); }
  };

  static String Formatted(const char* format, va_list args) __attribute__((format(printf, 1, 0))) {
    const int length = MeasuredLength(format, args);
    String text;
    if (length <= 0) return text;
    text.resize(static_cast<std::size_t>(length));
    // One byte more than the length: the terminator goes where the string keeps its own.
    const int printed = std::vsnprintf(text.data(), text.size() + 1, format, args);
    if (printed != length) text.clear();
    return text;
  }

  // The length of the formatted text, or negative when it cannot be formatted. Leaves `args` untouched.
  static int MeasuredLength(const char* format, va_list args) __attribute__((format(printf, 1, 0))) {
    if (format == nullptr) return -1;
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    return length;
  }
};
