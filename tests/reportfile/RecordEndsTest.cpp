#include "reportfile/RecordEnds.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <string>

#include "tests/support/Support.h"

namespace qx::report {
namespace {

void ExpectCountsAgree(std::string_view bytes) {
  EXPECT_EQ(CountTextEndsNarrow(bytes), CountTextEndsPlain(bytes));
  EXPECT_EQ(CountTextEndsAndBrackets(bytes), CountTextEndsAndBracketsPlain(bytes));
  EXPECT_EQ(CountTextEndsAndBracketsNarrow(bytes), CountTextEndsAndBracketsPlain(bytes));
}

TEST(RecordEnds, PieceOfARecord) {
  struct Case {
    std::string_view bytes;
    std::size_t text_bytes;
    bool is_last;
  };
  using namespace std::string_view_literals;
  const Case cases[] = {
      {""sv, 0, false},          {"ab"sv, 2, false},          {"ab\r\ncd"sv, 4, true}, {"\n"sv, 1, true},
      {"\0ab\n"sv, 0, true},     {"ab\0cd\r\n"sv, 2, true},   {"\xFF\n"sv, 1, true},   {"ab\xFFyz\n"sv, 3, true},
      {"ab\n\0\xFF"sv, 3, true}, {"\r\r\x7F\x80"sv, 4, false}};
  for (const Case& c : cases) {
    const RecordPiece piece = PieceOf(c.bytes);
    EXPECT_EQ(piece.text_bytes, c.text_bytes) << testing::PrintToString(c.bytes);
    EXPECT_EQ(piece.is_last, c.is_last) << testing::PrintToString(c.bytes);
  }
}

// Each of the 256 byte values is at each position of buffers of each small length: each end is found.
TEST(RecordEnds, EveryByteValueAtEveryPositionAgreesWithThePlainForm) {
  for (std::size_t size = 1; size <= 40; ++size) {
    for (std::size_t place = 0; place < size; ++place) {
      for (int value = 0; value < 256; ++value) {
        std::string bytes(size, 'x');
        bytes[place] = static_cast<char>(value);
        ASSERT_EQ(FindTextEnd(bytes), FindTextEndPlain(bytes)) << size << " " << place << " " << value;
        ASSERT_EQ(CountTextEnds(bytes), CountTextEndsPlain(bytes)) << size << " " << place << " " << value;
        ExpectCountsAgree(bytes);
        if (testing::Test::HasFailure()) FAIL() << size << " " << place << " " << value;
      }
    }
  }
}

TEST(RecordEnds, PlainFormFindsTheThreeBytes) {
  int ends = 0;
  for (int value = 0; value < 256; ++value) ends += EndsText(static_cast<char>(value)) ? 1 : 0;
  EXPECT_EQ(ends, 3);
  EXPECT_EQ(CountTextEndsAndBracketsPlain("a]]>\n"), 3U);
  EXPECT_TRUE(EndsText('\n') && EndsText('\0') && EndsText('\xFF'));
}

TEST(RecordEnds, MoreThan255EndsInEachLaneAreCounted) {
  for (const std::size_t size : {16U * 255, 16U * 256, 16U * 511 + 7, 32U * 255, 32U * 256 + 31, 65536U}) {
    EXPECT_EQ(CountTextEnds(std::string(size, '\n')), size);
    EXPECT_EQ(CountTextEndsNarrow(std::string(size, '\n')), size);
    EXPECT_EQ(CountTextEndsAndBrackets(std::string(size, ']')), size);
  }
}

TEST(RecordEnds, RandomBytesAgreeWithThePlainForm) {
  std::mt19937_64 random(test::Seed("RecordEnds"));
  for (int round = 0; round < 2000; ++round) {
    std::string bytes(random() % 9000, '\0');
    const unsigned density = 1U << (random() % 12);
    for (char& byte : bytes)
      byte = random() % density == 0 ? "\n\xFF]\0"[random() % 4] : static_cast<char>(random() | 1);
    ASSERT_EQ(FindTextEnd(bytes), FindTextEndPlain(bytes));
    ASSERT_EQ(CountTextEnds(bytes), CountTextEndsPlain(bytes));
    ExpectCountsAgree(bytes);
    if (testing::Test::HasFailure()) break;
  }
}

// The bytes are directly before a page without access.
TEST(RecordEnds, NothingAfterTheBytesIsRead) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* const pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  char* const end = static_cast<char*>(pages) + page;
  ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
  std::fill(static_cast<char*>(pages), end, 'x');
  for (std::size_t size = 0; size <= 70; ++size) {
    EXPECT_EQ(FindTextEnd({end - size, size}), size);
    EXPECT_EQ(CountTextEnds({end - size, size}), 0U);
    EXPECT_EQ(CountTextEndsNarrow({end - size, size}), 0U);
    EXPECT_EQ(CountTextEndsAndBrackets({end - size, size}), 0U);
  }
  munmap(pages, 2 * page);
}

}  // namespace
}  // namespace qx::report
