// Tests whether hashes alone find the record up to which a reader has read.
#include "reportfile/tools/RecordOverlap.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/support/Support.h"

namespace qx::report {

namespace {

using Hashes = std::vector<std::uint64_t>;

// "abc" => three hashes, one for each letter
Hashes Of(std::string_view letters) { return {letters.begin(), letters.end()}; }

OverlapPlace Find(std::string_view overlap, std::string_view window, bool from_oldest = true) {
  return FindOverlap(Of(overlap), Of(window), from_oldest);
}

constexpr OverlapPlace kMissing = {OverlapVerdict::kMissing, 0, 0};

OverlapPlace Found(std::size_t index, std::size_t compared) { return {OverlapVerdict::kFound, index, compared}; }
OverlapPlace Ambiguous(std::size_t index, std::size_t compared) {
  return {OverlapVerdict::kAmbiguous, index, compared};
}

// The rules of FindOverlap in their plain form: one position after another, letter by letter.
OverlapPlace FindPlainly(const std::string& overlap, const std::string& window, bool from_oldest) {
  std::vector<OverlapPlace> places;
  for (std::size_t index = 0; index <= window.size(); ++index) {
    std::string before = window.substr(0, index);
    if (before.size() > overlap.size()) before = before.substr(before.size() - overlap.size());
    if (before.empty() || (!from_oldest && before.size() < overlap.size())) continue;
    if (overlap.ends_with(before)) places.push_back(Found(index, before.size()));
  }
  if (places.empty()) return kMissing;
  OverlapPlace place = places.back();
  bool repeats = false;
  for (std::size_t i = 0; i < overlap.size(); ++i) repeats = repeats || overlap.find(overlap[i], i + 1) != overlap.npos;
  const bool is_whole = place.compared == overlap.size();
  const bool all_equal = overlap.size() > 1 && overlap.find_first_not_of(overlap[0]) == overlap.npos;
  if (places.size() > 1 || (is_whole ? all_equal : repeats)) place.verdict = OverlapVerdict::kAmbiguous;
  return place;
}

}  // namespace

TEST(RecordOverlap, RingThatDidNotAdvanceHasTheOverlapWhereItWas) {
  EXPECT_EQ(Find("cde", "abcde"), Found(5, 3));
  EXPECT_EQ(Find("cde", "abcdefg"), Found(5, 3));
}

TEST(RecordOverlap, RingThatAdvancedHasTheOverlapFurtherToTheFront) { EXPECT_EQ(Find("cde", "bcdef"), Found(4, 3)); }

TEST(RecordOverlap, PartOfTheOverlapIsEnoughAtTheFrontOfTheRing) {
  EXPECT_EQ(Find("cde", "efghi"), Found(1, 1));
  EXPECT_EQ(Find("cde", "defghi"), Found(2, 2));
  EXPECT_EQ(Find("cde", "efghi", false), kMissing) << "another record may be before the window";
}

TEST(RecordOverlap, OverlapThatIsNotInTheRingIsNotFound) {
  EXPECT_EQ(Find("cde", "fghij"), kMissing);
  EXPECT_EQ(Find("cde", ""), kMissing);
  EXPECT_EQ(Find("cde", "abcdx"), kMissing);
}

TEST(RecordOverlap, BeginningOfTheOverlapAloneIsNotAPosition) { EXPECT_EQ(Find("cde", "abcd"), kMissing); }

TEST(RecordOverlap, SeveralPositionsAreAmbiguousAndTheLastIsReturned) {
  EXPECT_EQ(Find("ab", "abxaby"), Ambiguous(5, 2));
  EXPECT_EQ(Find("abca", "abca"), Ambiguous(4, 4)) << "the ring may have advanced by three, with only the last a left";
}

TEST(RecordOverlap, EqualRecordsAreAmbiguousEvenAtOnePosition) { EXPECT_EQ(Find("aaa", "xaaay"), Ambiguous(4, 3)); }

TEST(RecordOverlap, OneRecordIsEnoughIfOnlyOneWasDelivered) {
  EXPECT_EQ(Find("a", "a"), Found(1, 1));
  EXPECT_EQ(Find("a", "ab"), Found(1, 1));
  EXPECT_EQ(Find("a", "aa"), Ambiguous(2, 1));
}

TEST(RecordOverlap, PartOfRecordsThatRepeatIsAmbiguous) {
  EXPECT_EQ(Find("cdcde", "exyz"), Ambiguous(1, 1));
  EXPECT_EQ(Find("bcde", "exyz"), Found(1, 1));
}

TEST(RecordOverlap, HashesStayThoseOfStateFiles) {
  EXPECT_EQ(RecordHash(""), 0xcbf29ce484222325U);
  EXPECT_EQ(RecordHash("a\r\n"), 0xe5ad9b1904074ddbU);
  EXPECT_NE(RecordHash("a\n"), RecordHash("a\r\n"));
}

TEST(RecordOverlap, RandomWindowsAgreeWithThePlainRules) {
  std::mt19937_64 random(test::Seed("RecordOverlap"));
  const auto letters = [&](std::size_t count, int kinds) {
    std::string text;
    for (; count > 0; --count)
      text += static_cast<char>('a' + static_cast<int>(random() % static_cast<unsigned>(kinds)));
    return text;
  };
  for (int i = 0; i < 20000; ++i) {
    const int kinds = 1 + static_cast<int>(random() % 6);
    const std::string overlap = letters(1 + random() % 6, kinds);
    const std::string window = letters(random() % 12, kinds);
    const bool from_oldest = random() % 2 == 0;
    ASSERT_EQ(Find(overlap, window, from_oldest), FindPlainly(overlap, window, from_oldest))
        << overlap << " " << window;
  }
}

}  // namespace qx::report
