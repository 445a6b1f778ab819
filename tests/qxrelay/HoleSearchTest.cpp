// Tests which message before a hole is sought, and when the search ends.
#include "tools/qxrelay/receive/HoleSearch.h"

#include <gtest/gtest.h>

namespace {

using qx::relay::HoleSearch;
using qx::relay::MessageHead;

// A message with the records from `first` up to `next`.
MessageHead Head(std::uint64_t first, std::uint64_t next, std::uint64_t incarnation = 7) {
  MessageHead head;
  head.incarnation = incarnation;
  head.first = first;
  head.count = next - first;
  return head;
}

TEST(RelayHoleSearch, TheFirstHoleOfAPassCounts) {
  HoleSearch search;
  search.BeginPass();
  EXPECT_EQ(search.Sought(), std::nullopt);
  EXPECT_TRUE(search.Seek(5, Head(10, 12)));
  EXPECT_TRUE(search.Seek(8, Head(20, 22)));
  EXPECT_EQ(search.Sought(), 5U);
  search.BeginPass();
  EXPECT_EQ(search.Sought(), std::nullopt);
}

TEST(RelayHoleSearch, ACopyThatDiffersHasAnotherMessage) {
  HoleSearch search;
  search.BeginPass();
  EXPECT_TRUE(search.Seek(5, Head(10, 12)));
  EXPECT_TRUE(search.IsSought(Head(7, 10)));
  EXPECT_TRUE(search.IsSought(Head(7, 11))) << "the host has sent a record again";
  EXPECT_FALSE(search.IsSought(Head(4, 7))) << "an earlier message";
  EXPECT_FALSE(search.IsSought(Head(7, 10, 8))) << "of another incarnation";
}

TEST(RelayHoleSearch, AMessageThatDoesNotCloseTheHoleIsFoundTwiceAtMost) {
  HoleSearch search;
  for (int time = 0; time < 2; ++time) {
    search.BeginPass();
    ASSERT_TRUE(search.Seek(5, Head(10, 12)));
    search.Found();
  }
  search.BeginPass();
  EXPECT_FALSE(search.Seek(5, Head(10, 12)));
  EXPECT_TRUE(search.Seek(4, Head(8, 10)));
}

TEST(RelayHoleSearch, AHoleOfTooManyMessagesIsGivenUp) {
  HoleSearch search;
  std::uint64_t sequence = 5000;
  int found = 0;
  for (search.BeginPass(); search.Seek(sequence, Head(sequence, sequence + 1)); search.BeginPass(), ++found) {
    search.Found();
    if (found < 999) --sequence;
  }
  EXPECT_EQ(found, 1000);
  search.EndHole();
  search.BeginPass();
  EXPECT_TRUE(search.Seek(sequence - 1, Head(1, 2)));
}

TEST(RelayHoleSearch, EachHoleMayHaveAThousandMessages) {
  HoleSearch search;
  for (std::uint64_t sequence = 1; sequence <= 1500; ++sequence) {
    if (sequence == 750) search.EndHole();
    search.BeginPass();
    ASSERT_TRUE(search.Seek(sequence, Head(sequence, sequence + 1)));
    search.Found();
    EXPECT_TRUE(search.Seek(sequence, Head(sequence, sequence + 1))) << "message " << sequence << " is given up";
  }
}

TEST(RelayHoleSearch, AMessageThatNoCopyHasIsGivenUpInTime) {
  for (const bool is_certain : {true, false}) {
    HoleSearch search;
    search.BeginPass();
    qx::relay::TimeMs now = 1000;
    int tries = 0;
    for (; search.Seek(5, Head(10, 12)); ++tries, now += 1000) search.NotFound(now, is_certain);
    EXPECT_EQ(tries, is_certain ? 3 : 61);
  }
}

}  // namespace
