// Tests which records a follower delivers and which events it reports, poll by poll.
#include "reportfile/tools/ReportFollower.h"

#include <gtest/gtest.h>

#include "tests/reportfile/FollowedReport.h"

namespace qx::test {

namespace {

using report::PollEvent;
using report::ReportFollower;
using report::ReportPoll;
using report::ReportPosition;

constexpr std::uint32_t kAll = 1000000;

using Texts = std::vector<std::string>;

void Append(FollowedReport& ring, const Texts& records) {
  for (const std::string& record : records) ring.Append(record);
}

void AppendNumbered(FollowedReport& ring, int first, int count) {
  for (int i = first; i < first + count; ++i) ring.Append(std::to_string(i));
}

// Polls once, and delivers all records.
ReportPoll Take(ReportFollower& follower, std::uint32_t count_max = kAll) {
  ReportPoll poll;
  EXPECT_TRUE(follower.Poll(count_max, poll));
  follower.Delivered(poll.records.size());
  return poll;
}

}  // namespace

TEST(ReportFollower, FirstPollReturnsEveryRecord) {
  FollowedReport ring(5);
  Append(ring, {"a", "b"});
  ReportFollower follower(ring);
  const ReportPoll poll = Take(follower);
  EXPECT_EQ(poll.records, (Texts{"a", "b"}));
  EXPECT_EQ(poll.event, PollEvent::kNone);
  EXPECT_TRUE(poll.reached_end);
  EXPECT_EQ(follower.Position().next, 2U);
  EXPECT_EQ(follower.Position().delivered, 2U);
  EXPECT_EQ(follower.Position().overlap.size(), 2U);
}

TEST(ReportFollower, LaterPollsReturnNewRecordsAlsoAfterTheRingAdvanced) {
  FollowedReport ring(4);
  Append(ring, {"a", "b", "c"});
  ReportFollower follower(ring);
  Take(follower);
  EXPECT_EQ(Take(follower).records, Texts());
  Append(ring, {"d", "e", "f"});
  EXPECT_EQ(Take(follower).records, (Texts{"d", "e", "f"}));
  EXPECT_EQ(Take(follower).records, Texts());
  EXPECT_EQ(follower.Position().delivered, 6U);
}

TEST(ReportFollower, UndeliveredRecordsAreReturnedAgain) {
  FollowedReport ring(9);
  Append(ring, {"a", "b", "c"});
  ReportFollower follower(ring);
  ReportPoll poll;
  ASSERT_TRUE(follower.Poll(kAll, poll));
  follower.Delivered(1);
  EXPECT_EQ(Take(follower).records, (Texts{"b", "c"}));
}

TEST(ReportFollower, SavedPositionContinuesInANewFollower) {
  FollowedReport ring(40);
  AppendNumbered(ring, 0, 40);
  ReportFollower first(ring);
  Take(first, 35);
  AppendNumbered(ring, 40, 10);
  ReportFollower second(ring, first.Position());
  const ReportPoll poll = Take(second);
  EXPECT_EQ(poll.event, PollEvent::kNone);
  EXPECT_EQ(poll.records.size(), 15U);
  EXPECT_EQ(poll.records.front(), "35");
}

TEST(ReportFollower, ReplacedRecordsAreAGapAndTheRestIsDelivered) {
  FollowedReport ring(3);
  Append(ring, {"a", "b", "c"});
  ReportFollower follower(ring);
  Take(follower);
  Append(ring, {"d", "e", "f", "g"});
  const ReportPoll poll = Take(follower);
  EXPECT_EQ(poll.event, PollEvent::kGap);
  EXPECT_EQ(poll.lost, std::nullopt) << "the protocol does not show the number";
  EXPECT_EQ(poll.records, (Texts{"e", "f", "g"}));
  EXPECT_EQ(Take(follower).event, PollEvent::kNone);
}

TEST(ReportFollower, GapWithoutADeliveryIsReportedAgain) {
  FollowedReport ring(2);
  Append(ring, {"a", "b"});
  ReportFollower follower(ring);
  Take(follower);
  Append(ring, {"c", "d"});
  ReportPoll poll;
  ASSERT_TRUE(follower.Poll(kAll, poll));
  follower.Delivered(0);
  EXPECT_EQ(Take(follower).event, PollEvent::kGap);
}

TEST(ReportFollower, ReportWithFewerRecordsWasStartedOver) {
  FollowedReport ring(5);
  Append(ring, {"a", "b", "c"});
  ReportFollower follower(ring);
  Take(follower);
  ring.StartOver();
  EXPECT_EQ(Take(follower).event, PollEvent::kStartedOver);
  EXPECT_EQ(Take(follower).event, PollEvent::kNone) << "reported once";
  Append(ring, {"x"});
  EXPECT_EQ(Take(follower).records, Texts{"x"});
}

TEST(ReportFollower, EqualRecordsAreAmbiguousAndNoneIsDeliveredTwice) {
  FollowedReport ring(5);
  Append(ring, {"ok", "ok", "ok"});
  ReportFollower follower(ring);
  Take(follower);
  Append(ring, {"ok"});
  const ReportPoll poll = Take(follower);
  EXPECT_EQ(poll.event, PollEvent::kAmbiguous);
  EXPECT_EQ(poll.records, Texts{"ok"}) << "as if the ring had not advanced";
}

TEST(ReportFollower, FirstPollSearchesTheWholeRingForASecondPosition) {
  FollowedReport ring(3000);
  AppendNumbered(ring, 0, 40);
  ReportFollower first(ring);
  Take(first, 40);
  AppendNumbered(ring, 1000, 2000);
  AppendNumbered(ring, 0, 40);
  ReportFollower second(ring, {2080, 40, first.Position().overlap});
  EXPECT_EQ(Take(second).event, PollEvent::kAmbiguous);
}

TEST(ReportFollower, LaterPollsReadLittleAndStillFindAFarPosition) {
  FollowedReport ring(5000);
  AppendNumbered(ring, 0, 5000);
  ReportFollower follower(ring);
  Take(follower);
  Take(follower);
  int read = 0;
  ring.BetweenReads([&] { ++read; });
  Take(follower);
  EXPECT_LT(read, 1200);
  AppendNumbered(ring, 5000, 3000);
  EXPECT_EQ(Take(follower).records.size(), 3000U);
}

TEST(ReportFollower, RingThatAdvancesOverTheReadPositionRestartsThePoll) {
  FollowedReport ring(4);
  Append(ring, {"a", "b", "c", "d"});
  int reads = 0;
  ring.BetweenReads([&] {
    if (++reads == 2) Append(ring, {"e", "f", "g"});
  });
  ReportFollower follower(ring);
  const ReportPoll poll = Take(follower);
  EXPECT_EQ(poll.records, (Texts{"d", "e", "f", "g"}));
  EXPECT_EQ(poll.event, PollEvent::kNone);
}

TEST(ReportFollower, GapThatAppearsDuringAPollHasASize) {
  FollowedReport ring(50);
  AppendNumbered(ring, 0, 50);
  ReportFollower follower(ring);
  Take(follower, 40);
  const int before = ring.Calls();
  ring.BetweenReads([&, is_done = false]() mutable {
    // The follower finds its position and reads the new records; then the ring advances over the overlap and two of
    // them.
    if (ring.Calls() < before + 3 || is_done) return;
    is_done = true;
    AppendNumbered(ring, 50, 42);
  });
  const ReportPoll poll = Take(follower);
  EXPECT_EQ(poll.event, PollEvent::kGap);
  EXPECT_EQ(poll.lost, 2U);
  EXPECT_EQ(poll.records.front(), "42");
  EXPECT_EQ(poll.records.back(), "91");
}

TEST(ReportFollower, WriterThatIsAlwaysFasterIsReportedWithoutADelivery) {
  FollowedReport ring(4);
  int number = 0;
  AppendNumbered(ring, 0, 4);
  ring.BetweenReads([&] { AppendNumbered(ring, 4 * ++number, 4); });
  ReportFollower follower(ring);
  const ReportPoll poll = Take(follower);
  EXPECT_TRUE(poll.was_overrun);
  EXPECT_EQ(poll.records, Texts());
  EXPECT_EQ(follower.Position(), ReportPosition());
}

TEST(ReportFollower, RecordTooLongForAReplyBlocksWhatFollowsIt) {
  FollowedReport ring(9);
  Append(ring, {"a", std::string(FollowedReport::kRecordBytesMax + 1, 'x'), "c"});
  ReportFollower follower(ring);
  const ReportPoll first = Take(follower);
  EXPECT_EQ(first.records, Texts{"a"});
  EXPECT_FALSE(first.reached_end);
  EXPECT_FALSE(first.is_blocked);
  const ReportPoll second = Take(follower);
  EXPECT_TRUE(second.is_blocked);
  EXPECT_EQ(second.records, Texts());
  EXPECT_EQ(follower.Position().next, 1U);
}

TEST(ReportFollower, EachFailedCallLeavesThePosition) {
  for (int n = 1; n < 20; ++n) {
    FollowedReport ring(4);
    Append(ring, {"a", "b", "c"});
    ReportFollower follower(ring);
    Take(follower);
    Append(ring, {"d", "e"});
    const ReportPosition before = follower.Position();
    ring.FailCall(n);
    ReportPoll poll;
    if (follower.Poll(kAll, poll)) {
      ASSERT_GT(n, 3);
      return;
    }
    follower.Delivered(0);
    EXPECT_EQ(follower.Position(), before);
    EXPECT_EQ(Take(follower).records, (Texts{"d", "e"})) << n;
  }
  FAIL() << "no number of calls was enough";
}

TEST(ReportFollower, SmallRepliesAndSmallCountsReturnTheSameRecords) {
  FollowedReport ring(100);
  AppendNumbered(ring, 0, 250);
  ring.LimitAnswers(7);
  ReportFollower follower(ring);
  Texts all;
  for (;;) {
    const ReportPoll poll = Take(follower, 5);
    EXPECT_LE(poll.records.size(), 5U);
    all.insert(all.end(), poll.records.begin(), poll.records.end());
    if (poll.reached_end) break;
  }
  EXPECT_EQ(all, Texts(ring.All().end() - 100, ring.All().end()));
}

}  // namespace qx::test
