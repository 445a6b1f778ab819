#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "markup/Ascii.h"
#include "markup/ByteScan.h"
#include "markup/Pieces.h"
#include "tests/support/Support.h"

namespace {

using namespace qx::markup;

// Compares the fast forms with the plain ones at every offset of random texts from a small alphabet.
TEST(ByteScan, FastSearchesFindTheSameAsPlainOnes) {
  std::mt19937_64 random(qx::test::Seed("ByteScan"));
  const std::string alphabet("a]]>-<\"'&\x7F\x80\x1F~ \n\0", 17);
  for (int round = 0; round < 300; ++round) {
    std::string text(random() % 70, 'a');
    const std::size_t specials = random() % 6;
    for (std::size_t i = 0; i < specials && !text.empty(); ++i) text[random() % text.size()] = alphabet[random() % 17];
    if (round % 2 == 0) {
      for (char& c : text) c = alphabet[random() % 4];
    }
    for (std::size_t from = 0; from <= text.size(); ++from) {
      const char* p = text.data() + from;
      const char* end = text.data() + text.size();
      EXPECT_EQ((FindAnyOf<'<', '>'>(p, end)), (FindAnyOfPlain<'<', '>'>(p, end)));
      EXPECT_EQ((FindAnyOf<'\0'>(p, end)), (FindAnyOfPlain<'\0'>(p, end)));
      EXPECT_EQ((FindAnyOf<'&', '<', '>', '"', '\''>(p, end)), (FindAnyOfPlain<'&', '<', '>', '"', '\''>(p, end)));
      EXPECT_EQ((FindTriple<']', ']', '>'>(p, end)), (FindTriplePlain<']', ']', '>'>(p, end)));
      EXPECT_EQ(FindNotPrintable(p, end), FindNotPrintablePlain(p, end));
    }
  }
}

#if defined(__SSE2__)
// Each text is in a block of exactly its size, so that the address sanitizer finds a read beyond its end.
TEST(ByteScan, ShortBlockHasTheBytesAndThenZeros) {
  for (std::size_t size = 0; size < 16; ++size) {
    std::vector<char> text(size);
    std::iota(text.begin(), text.end(), '\x81');
    std::string block(16, 'x');
    _mm_storeu_si128(reinterpret_cast<__m128i*>(block.data()), detail::LoadShortBlock(text.data(), size));
    EXPECT_EQ(block, std::string(text.begin(), text.end()) + std::string(16 - size, '\0')) << size;
  }
}
#endif

TEST(ByteScan, PiecesOfAnySizeFollowOneAnother) {
  Pieces pieces;
  std::string expected;
  for (std::size_t size = 0; size < 40; ++size) {
    std::vector<char> text(size);
    std::iota(text.begin(), text.end(), 'A');
    pieces.Add(std::string_view(text.data(), size));
    expected.append(text.begin(), text.end());
  }
  EXPECT_EQ(pieces.Bytes(), expected.size());
  EXPECT_EQ(pieces.TextBefore("tail"), expected + "tail");
  EXPECT_EQ(pieces.TextBefore(std::string(1024, 't')).data(), nullptr);
}

// The function may stop at another byte, but must not skip a byte that ends a name.
TEST(ByteScan, NoByteThatEndsANameIsSkipped) {
  for (int byte = 0; byte < 256; ++byte) {
    const bool ends = IsClass(static_cast<char>(byte), kAttribEnd) || IsClass(static_cast<char>(byte), kNameEnd);
    const bool letter = IsClass(static_cast<char>(byte), kNameStart);
    for (std::size_t at = 0; at < 16; ++at) {
      std::string text(16, 'a');
      text[at] = static_cast<char>(byte);
      const auto skipped =
          static_cast<std::size_t>(SkipNameBytes(text.data(), text.data() + text.size()) - text.data());
      EXPECT_TRUE(!ends || skipped <= at) << byte << " at " << at;
#if defined(__SSE2__)
      EXPECT_TRUE(!ends || skipped == at) << byte << " at " << at;
      EXPECT_TRUE(!letter || skipped == 16) << byte << " at " << at;
#else
      (void)letter;  // the caller's loop skips it
#endif
    }
  }
}

TEST(ByteScan, BytesOutside0x20To0x7EAreFoundAsNotPrintable) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = std::string(20, 'a') + static_cast<char>(byte) + std::string(20, 'a');
    const bool printable = byte >= 0x20 && byte <= 0x7E;
    const char* end = text.data() + text.size();
    EXPECT_EQ(FindNotPrintable(text.data(), end) - text.data(), printable ? 41 : 20) << byte;
  }
}

TEST(ByteScan, TripleIsFoundAfterOverlappingBeginnings) {
  const std::string text = std::string(30, ']') + ">";
  EXPECT_EQ((FindTriple<']', ']', '>'>(text.data(), text.data() + 31)) - text.data(), 28);
}

// The first byte is found many times without the other two. After a number of such finds, the function searches for all
// three bytes at once. The counts of this test are below and above this number.
TEST(ByteScan, TripleIsFoundAfterAnyNumberOfItsFirstBytes) {
  for (std::size_t brackets = 0; brackets < 60; ++brackets) {
    for (const std::string apart : {"", "x", "]x", "12345678901234567890"}) {
      std::string text;
      for (std::size_t i = 0; i < brackets; ++i) text += "]" + apart;
      for (const std::string rest : {"", "]]>", "]]", "]]>]]>", " ]]>"}) {
        const std::string whole = text + rest;
        const char* const end = whole.data() + whole.size();
        ASSERT_EQ((FindTriple<']', ']', '>'>(whole.data(), end)), (FindTriplePlain<']', ']', '>'>(whole.data(), end)))
            << whole;
      }
    }
  }
}

}  // namespace
