// Compares a follower with the list of all records that were ever written: thousands of reports of random sizes, with
// random appends and polls, with and without a writer between two reads. No record may be lost or delivered twice
// without an event.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>

#include "reportfile/tools/ReportFollower.h"
#include "tests/reportfile/FollowedReport.h"
#include "tests/support/Support.h"

namespace qx::test {

namespace {

using report::PollEvent;
using report::ReportFollower;
using report::ReportPoll;
using report::ReportPosition;

struct Tally {
  int polls = 0;
  int records = 0;
  int gaps = 0;
  int known_gaps = 0;
  int ambiguous = 0;
  int started_over = 0;
  int overrun = 0;
};

// A report with a random writer and reader. `kinds` is the number of different texts; with 0 no two records are equal.
class Life {
 public:
  Life(std::uint64_t seed, std::uint32_t slots, unsigned kinds)
      : random_(seed), ring_(slots), kinds_(kinds), follower_(std::make_unique<ReportFollower>(ring_)) {
    ring_.LimitAnswers(1 + Below(60));
  }

  std::uint32_t Below(std::uint32_t end) { return static_cast<std::uint32_t>(random_() % end); }

  void Append(std::uint32_t count) {
    for (; count > 0; --count) {
      ring_.Append("r" + std::to_string(kinds_ == 0 ? written_ : random_() % kinds_));
      ++written_;
    }
  }

  void StartOver() {
    ring_.StartOver();
    delivered_to_ = 0;
    was_started_over_ = was_started_over_ || !follower_->Position().overlap.empty();
  }

  void WriteBetweenReads(std::uint32_t one_in, std::uint32_t count_max) {
    ring_.BetweenReads([this, one_in, count_max] {
      if (Below(one_in) == 0) Append(1 + Below(count_max));
    });
  }
  void StopWritesBetweenReads() { ring_.BetweenReads(nullptr); }

  // Continues as a new run of the tool does.
  void Resume() {
    const ReportPosition position = follower_->Position();
    follower_ = std::make_unique<ReportFollower>(ring_, position);
  }

  // Polls once, and delivers a random part of the records.
  void Poll(Tally& tally) {
    ReportPoll poll;
    ASSERT_TRUE(follower_->Poll(1 + Below(80), poll));
    const std::size_t count =
        Below(4) == 0 ? Below(static_cast<std::uint32_t>(poll.records.size()) + 1) : poll.records.size();
    Check(poll, count, tally);
    follower_->Delivered(count);
  }

  // Polls until there are no more records; nobody writes meanwhile.
  void PollToTheEnd(Tally& tally) {
    for (bool is_end = false; !is_end && !testing::Test::HasFatalFailure();) {
      ReportPoll poll;
      ASSERT_TRUE(follower_->Poll(1 + Below(80), poll));
      Check(poll, poll.records.size(), tally);
      follower_->Delivered(poll.records.size());
      is_end = poll.reached_end && !poll.was_overrun;
    }
    ASSERT_EQ(delivered_to_, ring_.All().size()) << "records were lost without an event";
  }

 private:
  void Check(const ReportPoll& poll, std::size_t count, Tally& tally) {
    ++tally.polls;
    tally.records += static_cast<int>(poll.records.size());
    tally.overrun += poll.was_overrun ? 1 : 0;
    switch (poll.event) {
      case PollEvent::kNone:
        if (follower_->Position().overlap.empty()) delivered_to_ = StartOfRing(poll);
        ASSERT_FALSE(was_started_over_ && !poll.records.empty()) << "another report, but no event";
        break;
      case PollEvent::kGap:
        ++tally.gaps;
        SkipGap(poll, tally);
        break;
      case PollEvent::kStartedOver:
        ++tally.started_over;
        ASSERT_TRUE(was_started_over_);
        was_started_over_ = count == 0 && !poll.records.empty();  // then it is reported again
        SkipGap(poll, tally);
        break;
      case PollEvent::kAmbiguous:
        ++tally.ambiguous;
        SkipAmbiguous();
        break;
    }
    if (count > 0) was_started_over_ = false;
    ExpectNext(poll);
    delivered_to_ += count;
  }

  // After a gap, the poll must have the records of the ring from the oldest one on.
  void SkipGap(const ReportPoll& poll, Tally& tally) {
    const std::size_t start = StartOfRing(poll);
    ASSERT_GE(start, delivered_to_) << "records are delivered twice";
    if (poll.lost.has_value()) {
      ++tally.known_gaps;
      ASSERT_EQ(start - delivered_to_, *poll.lost);
    }
    delivered_to_ = start;
  }

  // Records may be missing, but none may be delivered twice.
  void SkipAmbiguous() {
    const std::size_t place = ring_.Gone() + follower_->PositionAfter(0).next;
    ASSERT_GE(place, delivered_to_) << "records are delivered twice";
    delivered_to_ = place;
  }

  // The position, in the list of all records, of a poll that begins with the ring's oldest record. A writer may have
  // replaced this record in the meantime, but its text shows the position.
  std::size_t StartOfRing(const ReportPoll& poll) const {
    if (kinds_ != 0) return ring_.Gone();
    if (poll.records.empty()) return delivered_to_;
    const auto& all = ring_.All();
    return static_cast<std::size_t>(std::find(all.begin(), all.end(), poll.records.front()) - all.begin());
  }

  void ExpectNext(const ReportPoll& poll) const {
    const auto& all = ring_.All();
    ASSERT_LE(delivered_to_ + poll.records.size(), all.size());
    ASSERT_TRUE(
        std::equal(poll.records.begin(), poll.records.end(), all.begin() + static_cast<std::ptrdiff_t>(delivered_to_)));
  }

  std::mt19937_64 random_;
  FollowedReport ring_;
  unsigned kinds_;
  std::uint64_t written_ = 0;
  std::unique_ptr<ReportFollower> follower_;
  std::size_t delivered_to_ = 0;  // in ring_.All(): the records that were delivered or reported as missing
  bool was_started_over_ = false;
};

}  // namespace

TEST(ReportFollowerModel, DifferentRecordsAreDeliveredOnceOrReportedAsMissing) {
  std::mt19937_64 seeds(Seed("ReportFollowerModel"));
  Tally tally;
  for (int i = 0; i < 1000; ++i) {
    Life life(seeds(), 1 + static_cast<std::uint32_t>(seeds() % 120), 0);
    for (int step = 0; step < 12; ++step) {
      SCOPED_TRACE("life " + std::to_string(i) + " step " + std::to_string(step));
      life.Append(life.Below(3) == 0 ? life.Below(200) : life.Below(10));
      if (life.Below(4) == 0) life.Resume();
      life.Poll(tally);
      if (life.Below(3) == 0) life.PollToTheEnd(tally);
      if (life.Below(20) == 0) life.StartOver();
      if (HasFatalFailure()) return;
    }
  }
  EXPECT_GT(tally.gaps, 500);
  EXPECT_GT(tally.started_over, 50);
  EXPECT_EQ(tally.ambiguous, 0);
}

TEST(ReportFollowerModel, WriterBetweenTwoReadsDoesNotChangeThat) {
  std::mt19937_64 seeds(Seed("ReportFollowerModel.Between"));
  Tally tally;
  for (int i = 0; i < 500; ++i) {
    Life life(seeds(), 1 + static_cast<std::uint32_t>(seeds() % 80), 0);
    life.Append(life.Below(200));
    for (int step = 0; step < 8; ++step) {
      SCOPED_TRACE("life " + std::to_string(i) + " step " + std::to_string(step));
      life.WriteBetweenReads(1 + life.Below(100), 1 + life.Below(60));
      life.Poll(tally);
      life.StopWritesBetweenReads();
      if (life.Below(2) == 0) life.Append(life.Below(150));
      if (life.Below(3) == 0) life.PollToTheEnd(tally);
      if (HasFatalFailure()) return;
    }
  }
  EXPECT_GT(tally.overrun, 50);
}

// Rings with more records than the overlap: 32 random records in a row do not repeat.
TEST(ReportFollowerModel, RepeatedRecordsAreDeliveredOnceOrReportedAsMissing) {
  std::mt19937_64 seeds(Seed("ReportFollowerModel.Repeating"));
  Tally tally;
  for (int i = 0; i < 400; ++i) {
    Life life(seeds(), 40 + static_cast<std::uint32_t>(seeds() % 120), 1 + static_cast<unsigned>(seeds() % 5));
    life.Append(32 + life.Below(100));
    life.PollToTheEnd(tally);
    for (int step = 0; step < 8; ++step) {
      SCOPED_TRACE("life " + std::to_string(i) + " step " + std::to_string(step));
      life.Append(life.Below(3) == 0 ? life.Below(300) : life.Below(10));
      if (life.Below(4) == 0) life.Resume();
      life.PollToTheEnd(tally);
      if (HasFatalFailure()) return;
    }
  }
  EXPECT_GT(tally.gaps, 150);
  EXPECT_GT(tally.ambiguous, 250);
}

}  // namespace qx::test
