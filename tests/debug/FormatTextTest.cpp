#include "debug/FormatText.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "tests/support/Support.h"

namespace {

using qx::debug::FormatText;
using Random = std::mt19937_64;

// A result, and the text in the buffer. Guards after the end of the buffer show whether the function stayed inside.
struct Formatted {
  int result = 0;
  std::string text;
  bool stays_inside = true;

  friend bool operator==(const Formatted&, const Formatted&) = default;
};

std::ostream& operator<<(std::ostream& out, const Formatted& formatted) {
  return out << formatted.result << " \"" << formatted.text << "\"" << (formatted.stays_inside ? "" : " and after it");
}

using Formatter = int (*)(char* buffer, std::size_t size, const char* format, std::va_list args);

Formatted FormatBy(Formatter formatter, std::size_t size, const char* format, std::va_list args) {
  constexpr std::size_t kGuardBytes = 64;
  std::string buffer(size + kGuardBytes, '\x7F');
  Formatted formatted;
  formatted.result = formatter(buffer.data(), size, format, args);
  if (size > 0) formatted.text = std::string(buffer.data(), ::strnlen(buffer.data(), size));
  formatted.stays_inside = buffer.find_first_not_of('\x7F', size) == std::string::npos;
  return formatted;
}

// Calls FormatText and vsnprintf, which must have the same result. Returns the result.
Formatted ExpectSame(std::size_t size, const char* format, ...) {
  std::va_list args;
  std::va_list again;
  va_start(args, format);
  va_copy(again, args);
  const Formatted found = FormatBy(FormatText, size, format, args);
  EXPECT_EQ(found, FormatBy(std::vsnprintf, size, format, again)) << "\"" << format << "\" in " << size << " bytes";
  va_end(again);
  va_end(args);
  return found;
}

TEST(FormatText, ConversionsOfTracesAreThoseOfTheCLibrary) {
  constexpr std::size_t kSpace = 200;
  EXPECT_EQ(ExpectSame(kSpace, "plain").text, "plain");
  EXPECT_EQ(ExpectSame(kSpace, "").result, 0);
  EXPECT_EQ(ExpectSame(kSpace, "%s, %d of %d", "name", 7, -1000).text, "name, 7 of -1000");
  EXPECT_EQ(ExpectSame(kSpace, "%d", std::numeric_limits<int>::min()).text, "-2147483648");
  EXPECT_EQ(ExpectSame(kSpace, "%ld", std::numeric_limits<long>::min()).text, "-9223372036854775808");
  EXPECT_EQ(ExpectSame(kSpace, "%zu", std::numeric_limits<std::size_t>::max()).text, "18446744073709551615");
  EXPECT_EQ(ExpectSame(kSpace, "0x%08X 0x%02X 0x%04x", 0xA1BU, 0xFFFU, 0xABU).text, "0x00000A1B 0xFFF 0x00ab");
  EXPECT_EQ(ExpectSame(kSpace, "%6d|%06d", -12, -12).text, "   -12|-00012");
  EXPECT_EQ(ExpectSame(kSpace, "0x%p", reinterpret_cast<void*>(0x1F0A)).text, "0x0x1f0a");
  EXPECT_EQ(ExpectSame(kSpace, "100%%").text, "100%");
}

TEST(FormatText, UnknownConversionsAreLeftToTheCLibrary) {
  constexpr std::size_t kSpace = 200;
  const char* const null_text = nullptr;
  EXPECT_EQ(ExpectSame(kSpace, "0x%p", static_cast<void*>(nullptr)).text, "0x(nil)");
  EXPECT_EQ(ExpectSame(kSpace, "%d %s", 1, null_text).text, "1 (null)");
  EXPECT_EQ(ExpectSame(kSpace, "%d %-6s|%.2s|%6s", 1, "abc", "abc", "abc").text, "1 abc   |ab|   abc");
  EXPECT_EQ(ExpectSame(kSpace, "%+d %-5d| %.3d %#x %hd", 1, 2, 3, 4U, 0x10005).text, "+1 2    | 003 0x4 5");
  EXPECT_EQ(ExpectSame(kSpace, "%*d|%-*d|", 5, 1, 5, 2).text, "    1|2    |");
  EXPECT_EQ(ExpectSame(kSpace, "%lld %.2f %c", 5LL, 1.5, 'x').text, "5 1.50 x");
  EXPECT_EQ(ExpectSame(kSpace, "%150d", 5).result, 150);
  EXPECT_EQ(ExpectSame(kSpace, "%1000d", 5).result, 1000);
  errno = ENOENT;
  EXPECT_EQ(ExpectSame(kSpace, "%d %m", 1).text, "1 No such file or directory");
}

TEST(FormatText, TextIsCutAsByTheCLibraryForEveryBuffer) {
  for (std::size_t size = 0; size < 40; ++size) {
    EXPECT_EQ(ExpectSame(size, "\"%s\" record %d of %5d%%", "name", 12, 1000).result, 26);
    EXPECT_EQ(ExpectSame(size, "%08X", 1U).result, 8);
    EXPECT_EQ(ExpectSame(size, "%s", "").result, 0);
    (void)ExpectSame(size, "%20d|%p", -1, reinterpret_cast<void*>(1));
  }
}

// One conversion of a random format with its argument.
struct Piece {
  enum class Type { kInt, kLong, kText, kPointer } type;
  std::string format;
  std::uint64_t bits = 0;
  std::string text;
};

template <std::size_t kCount>
const char* Pick(Random& random, const char* const (&from)[kCount]) {
  return from[random() % kCount];
}

std::uint64_t RandomBits(Random& random) {
  const std::uint64_t edges[] = {
      0, 1, 9, 10, 99, 100, 0x7FFFFFFF, 0x80000000, ~std::uint64_t{0}, std::uint64_t{1} << 63};
  return random() % 3 == 0 ? edges[random() % std::size(edges)] : random() >> (random() % 64);
}

Piece RandomPiece(Random& random) {
  static constexpr const char* kBefore[] = {"", "", " ", "text: ", "%%", "0x", "\n", "100%%d", "\xE4"};
  static constexpr const char* kInts[] = {"d", "d", "u", "x", "X", "i", "o", "c", "hd", "hhx"};
  static constexpr const char* kLongs[] = {"ld", "lu", "lx", "lX", "zu", "zx", "zd", "lld", "jd"};
  static constexpr const char* kTexts[] = {"s", "s", "s", ".3s", "9s", "-9s", "0s"};
  static constexpr const char* kPointers[] = {"p", "p", "20p", "-20p", "3p"};
  static constexpr const char* kFlags[] = {"", "", "", "", "0", "00", "-", "+", " ", "#", "0+"};
  static constexpr const char* kWidths[] = {"",   "",   "2",   "4",   "8",  "16", "63",
                                            "64", "65", "100", "300", "08", ".4", "8.3"};
  Piece piece{static_cast<Piece::Type>(random() % 4), Pick(random, kBefore), RandomBits(random), {}};
  piece.format += '%';
  const std::string flags_and_width =
      random() % 2 == 0 ? "" : std::string(Pick(random, kFlags)) + Pick(random, kWidths);
  switch (piece.type) {
    case Piece::Type::kInt:
      piece.format += flags_and_width + Pick(random, kInts);
      break;
    case Piece::Type::kLong:
      piece.format += flags_and_width + Pick(random, kLongs);
      break;
    case Piece::Type::kText:
      piece.format += Pick(random, kTexts);
      piece.text.assign(random() % (random() % 2 == 0 ? 10 : 300), static_cast<char>('!' + random() % 90));
      break;
    case Piece::Type::kPointer:
      piece.format += Pick(random, kPointers);
      break;
  }
  return piece;
}

// Makes the arguments of the pieces those of one call.
template <typename... Args>
void ExpectSamePieces(std::size_t size, const std::string& format, const std::vector<Piece>& pieces, Args... args) {
  constexpr std::size_t kIndex = sizeof...(args);
  if (kIndex == pieces.size()) {
    (void)ExpectSame(size, format.c_str(), args...);
    return;
  }
  if constexpr (kIndex < 4) {
    const Piece& piece = pieces[kIndex];
    switch (piece.type) {
      case Piece::Type::kInt:
        return ExpectSamePieces(size, format, pieces, args..., static_cast<int>(piece.bits));
      case Piece::Type::kLong:
        return ExpectSamePieces(size, format, pieces, args..., static_cast<long>(piece.bits));
      case Piece::Type::kText:
        return ExpectSamePieces(size, format, pieces, args..., piece.bits == 0 ? nullptr : piece.text.c_str());
      case Piece::Type::kPointer:
        return ExpectSamePieces(size, format, pieces, args..., reinterpret_cast<void*>(piece.bits));
    }
  }
}

TEST(FormatText, RandomFormatsAgreeWithVsnprintf) {
  Random random(qx::test::Seed("FormatText"));
  for (int round = 0; round < 20000 && !HasFailure(); ++round) {
    std::vector<Piece> pieces(random() % 5);
    std::string format;
    for (Piece& piece : pieces) {
      piece = RandomPiece(random);
      format += piece.format;
    }
    if (random() % 3 == 0) format += random() % 8 == 0 ? "%" : "end";
    const std::size_t size = random() % 4 == 0 ? random() % 80 : 1025;
    ExpectSamePieces(size, format, pieces);
  }
}

}  // namespace
