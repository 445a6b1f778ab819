// One conversion between character sets by the C library's iconv.
#pragma once

#include <iconv.h>

#include <cstddef>
#include <string>
#include <string_view>

// Converts texts from one encoding to another. What the target lacks, and what is no character in the source, becomes
// "?" and is counted. "UTF-8", "UTF-16", "UTF-16LE", "UTF-16BE" and "UTF-32" are known by name in any case: they give
// the size of the unit that is stepped over in faulty input; every other encoding counts as one of single bytes.
//
// Threads: none of its own. Owns: the conversion descriptor.
// Failure: IsOpen() is false for an encoding that the C library does not know; Convert then does nothing.
class TextEncoding {
 public:
  TextEncoding(const char* to, const char* from);
  ~TextEncoding();
  TextEncoding(const TextEncoding&) = delete;
  TextEncoding& operator=(const TextEncoding&) = delete;

  bool IsOpen() const { return conversion_ != reinterpret_cast<iconv_t>(-1); }

  // The whole text; may be called again for another one.
  std::string Convert(std::string_view input);

  // Characters of the last text that could not be converted.
  int FailedChars() const { return failed_chars_; }

  // Bytes of the smallest unit: 1, 2 or 4.
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
