// Defines the format of a ring file: eight header lines, a blank block, and entries from offset 1024 on.
//
//   0     "FilePath                         : /var/log/brollan/log.app_a                  |\n"   80 bytes
//         ... six more lines of a label, a value of at most 43 characters and "|" ...
//   560   "-----...-----+\n"                                                                     80 bytes
//   640   383 blanks and a line feed
//   1024  entries, one after another; the terminator line follows the newest one
//
// docs/trace-ring.md describes this format, and the order in which the bytes are stored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace qx::debug {

constexpr std::size_t kRingLineBytes = 80;
constexpr std::size_t kRingHeaderBytes = 8 * kRingLineBytes;
constexpr std::size_t kRingBlockBytes = 1024;
constexpr std::size_t kRingFirstEntry = 1024;

constexpr std::size_t kRingValueColumn = 35;
constexpr std::size_t kRingValueChars = 43;
constexpr std::size_t kRingNumberDigits = 16;

// The offsets of the values in the file.
constexpr std::size_t kRingFirstOpenOffset = 1 * kRingLineBytes + kRingValueColumn;
constexpr std::size_t kRingOpensOffset = 3 * kRingLineBytes + kRingValueColumn;
constexpr std::size_t kRingWrapsOffset = 4 * kRingLineBytes + kRingValueColumn;
constexpr std::size_t kRingSizeOffset = 5 * kRingLineBytes + kRingValueColumn;
constexpr std::size_t kRingPositionOffset = 6 * kRingLineBytes + kRingValueColumn;
static_assert(kRingOpensOffset == 275 && kRingWrapsOffset == 355 && kRingSizeOffset == 435 &&
              kRingPositionOffset == 515);

// The line after the newest entry; the next entry overwrites it.
constexpr std::string_view kRingTerminator = "## TRACE-END ##\n";

// The size of the smallest ring: its header and the longest plain entry fit. A configured ring has at least 256 pages.
constexpr std::uint32_t kRingBytesMin = 4096;

struct RingHeader {
  std::string_view path;
  std::string_view first_open;
  std::string_view last_open;
  std::uint32_t opens;
  std::uint32_t wraps;
  std::uint32_t size;
  std::uint32_t position;
};

// Writes the eight lines. A value of more than 43 characters is cut, and a text ends at its first NUL.
void FormatRingHeader(const RingHeader& header, char (&bytes)[kRingHeaderBytes]) noexcept;

// Writes `number` as the 16 digits of a header value, without a NUL.
//   1024 => "0000000000001024"
void FormatRingNumber(std::uint32_t number, char (&digits)[kRingNumberDigits]) noexcept;

// The number of a header value; unset if a byte is not a digit or the number has more than 32 bits.
std::optional<std::uint32_t> ReadRingNumber(std::string_view digits) noexcept;

}  // namespace qx::debug
