// Converts texts between character sets with the C library's iconv.
#pragma once

#include <iconv.h>

#include <cstddef>
#include <string>
#include <string_view>

// One conversion, from one encoding to another. Each character that the target lacks becomes "?" and is counted; so
// does each unit of input that is not a character. The unit is 2 bytes for "UTF-16", "UTF-16LE" and "UTF-16BE", 4 for
// "UTF-32" (names in any case), and 1 for every other encoding.
//
// Threads: one thread at a time. Owns: the conversion descriptor.
// Failure: IsOpen() is false for an encoding that the C library does not know; Convert then returns an empty text.
class TextEncoding {
 public:
  TextEncoding(const char* to, const char* from);
  ~TextEncoding();
  TextEncoding(const TextEncoding&) = delete;
  TextEncoding& operator=(const TextEncoding&) = delete;

  bool IsOpen() const { return conversion_ != reinterpret_cast<iconv_t>(-1); }

  // Converts one whole text. May be called again for other texts.
  std::string Convert(std::string_view input);

  // The number of "?" that the last Convert has written for what it could not convert.
  int FailedChars() const { return failed_chars_; }

  // The number of bytes in a unit of the encoding: 1, 2 or 4.
  static std::size_t UnitBytes(std::string_view encoding);

 private:
  bool Step(std::string_view& input, std::string& out);
  void Replace(std::string_view& input, std::string& out);

  iconv_t conversion_;
  std::size_t source_unit_;
  bool source_is_utf8_;
  std::string replacement_;  // "?" in the target encoding
  int failed_chars_ = 0;
};
