// Encodes and decodes Base64 with "+", "/" and "=", without line breaks.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qx::markup {

//   "abcd" => "YWJjZA=="
std::string Base64Text(const unsigned char* bytes, std::size_t count);

// Decodes into `bytes` and returns the number of bytes; if `bytes` is null, it only counts. Returns -1, and leaves the
// buffer unchanged, for a text that is not base64 or that decodes to more than `size` bytes. White space is skipped.
// "=" is allowed only at the end, where it completes a group of four; it may also be omitted.
int Base64Bytes(std::string_view text, unsigned char* bytes, std::size_t size);

}  // namespace qx::markup
