// Base64 with "+", "/" and "=", in one line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qx::markup {

//   "abcd" => "YWJjZA=="
std::string Base64Text(const unsigned char* bytes, std::size_t count);

// Decodes into `bytes` (null: only counts) and returns the number of bytes; -1 for a text that is no base64 or holds
// more than `size` bytes, and the buffer then holds nothing of use. White space is skipped; "=" may stand only at the
// end, where it completes a group of four, or be left out.
int Base64Bytes(std::string_view text, unsigned char* bytes, std::size_t size);

}  // namespace qx::markup
