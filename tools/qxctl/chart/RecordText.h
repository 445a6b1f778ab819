// Splits a record into its text and its end, and the text into columns.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace qx::ctl {

// A record's text without its end.
//   "a\r\n" => "a", "crlf"     "a\n" => "a", "lf"     "a\xFF" => "a", "ff"     "a" (cut at a NUL) => "a", "none"
struct RecordText {
  std::string_view text;
  const char* end;
};
[[nodiscard]] RecordText TextOfRecord(std::string_view record);

// "a b c", " " => "a", "b", "c"; with `count_max` 2: "a", "b c". With an empty separator the whole text.
[[nodiscard]] std::vector<std::string_view> FieldsOf(std::string_view text, std::string_view separator,
                                                     std::size_t count_max);

}  // namespace qx::ctl
