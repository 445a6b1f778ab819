// Searches for the ends of records.
//
// A record's text ends with its first line feed or byte 0xFF, and before its first NUL. So one search for the first of
// the three bytes finds the end of the text, and one count shows whether every record of a run ends with its only such
// byte.
#pragma once

#include <cstddef>
#include <string_view>

namespace qx::report {

constexpr bool EndsText(char byte) { return byte == '\n' || byte == '\xFF' || byte == '\0'; }

// What a reader sees after the last byte of the data file: the end of the file reads as the byte 0xFF.
inline constexpr std::string_view kEndOfFile = "\xFF";

// The offset of the first byte that ends a text; bytes.size() without one.
[[nodiscard]] std::size_t FindTextEnd(std::string_view bytes);

// The number of bytes that end a text.
[[nodiscard]] std::size_t CountTextEnds(std::string_view bytes);

// Counts the bytes that end a text, and the "]". So one pass can show that every record of a run has one text end, and
// that no record has a "]", with which a CDATA section could end.
[[nodiscard]] std::size_t CountTextEndsAndBrackets(std::string_view bytes);

// The three functions above in slower forms: byte by byte ("Plain") and sixteen bytes a step ("Narrow"). They are for
// processors without the faster form, and the tests compare the faster form with them.
[[nodiscard]] std::size_t FindTextEndPlain(std::string_view bytes);
[[nodiscard]] std::size_t CountTextEndsPlain(std::string_view bytes);
[[nodiscard]] std::size_t CountTextEndsAndBracketsPlain(std::string_view bytes);
[[nodiscard]] std::size_t CountTextEndsNarrow(std::string_view bytes);
[[nodiscard]] std::size_t CountTextEndsAndBracketsNarrow(std::string_view bytes);

// How much of a record's text is in a piece of the data file, and whether it ends there.
//   "ab\r\ncd"   => 4 bytes, the last
//   "ab"         => 2 bytes, more to come
//   "ab\0cd\r\n" => 2 bytes, the last
struct RecordPiece {
  std::size_t text_bytes;
  bool is_last;
};

[[nodiscard]] inline RecordPiece PieceOf(std::string_view bytes) {
  const std::size_t end = FindTextEnd(bytes);
  if (end == bytes.size()) return {end, false};
  return {bytes[end] != '\0' ? end + 1 : end, true};
}

}  // namespace qx::report
