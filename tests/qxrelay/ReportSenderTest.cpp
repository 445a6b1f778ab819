// Tests the state machine of a report's sender with tables of events.
#include "tools/qxrelay/send/ReportSender.h"

#include <gtest/gtest.h>

#include <vector>

#include "tools/qxrelay/message/Backoff.h"

namespace {

using qx::relay::Action;
using qx::relay::ActionKind;
using qx::relay::BackoffMs;
using qx::relay::Examination;
using qx::relay::Mark;
using qx::relay::Proof;
using qx::relay::RecordRange;
using qx::relay::ReportSender;
using qx::relay::SenderTimes;

constexpr SenderTimes kTimes = {
    .linger = 100, .poll = 20, .poll_idle = 250, .timeout = 5000, .heartbeat = 60000, .batch_bytes = 1000};

class RelayReportSender : public testing::Test {
 protected:
  // Puts the sender into the state Follow at record 10 and time 1000, with the newest message at sequence 7.
  void Follow() {
    sender_.Connected(1000);
    sender_.LookUpSent(1000, 1);
    ASSERT_TRUE(sender_.NewestFound(1, 7));
    sender_.Placed(1000, {.incarnation = 5, .next = 10, .hash_before = 99, .ring_slots = 50});
  }

  // Examines the store: it has the records up to `end`, and about `bytes` bytes from the position on.
  Action See(std::int64_t now, std::uint64_t end, std::uint64_t bytes = 1, std::uint64_t oldest = 1) {
    EXPECT_EQ(sender_.Next(now).kind, ActionKind::kExamine) << now;
    return sender_.Examined(now, {.sendable = {oldest, end}, .bytes = bytes});
  }

  ReportSender sender_{kTimes, [] { return 0.0; }};
};

Action WaitUntil(std::int64_t time) { return {.kind = ActionKind::kWait, .until = time}; }

TEST(RelayBackoff, WaitsDoubleFromFiftyMillisecondsToFiveSeconds) {
  const std::vector<std::int64_t> least = {50, 50, 100, 200, 400, 800, 1600, 2500, 2500, 2500};
  const std::vector<std::int64_t> most = {50, 100, 200, 400, 800, 1600, 3200, 5000, 5000, 5000};
  for (std::uint32_t failure = 1; failure <= 10; ++failure) {
    EXPECT_EQ(BackoffMs(failure, 0), least[failure - 1]) << failure;
    EXPECT_NEAR(static_cast<double>(BackoffMs(failure, 0.999999)), static_cast<double>(most[failure - 1]), 1)
        << failure;
  }
}

TEST_F(RelayReportSender, NothingIsDoneBeforeItIsConnected) {
  EXPECT_EQ(sender_.Next(0), WaitUntil(5000));
  sender_.Connected(10);
  EXPECT_EQ(sender_.Next(10).kind, ActionKind::kLookUp);
}

TEST_F(RelayReportSender, ALookUpComesBeforeThePlaceAndThatBeforeTheStore) {
  sender_.Connected(10);
  sender_.LookUpSent(10, 4);
  EXPECT_EQ(sender_.Next(20), WaitUntil(5010));
  EXPECT_FALSE(sender_.NewestFound(3, 7)) << "the answer to another request";
  EXPECT_TRUE(sender_.NewestFound(4, 7));
  EXPECT_EQ(sender_.Next(30).kind, ActionKind::kPlace);
  sender_.Placed(30, {.incarnation = 5, .next = 10, .hash_before = 99, .ring_slots = 50});
  EXPECT_EQ(sender_.Next(30).kind, ActionKind::kExamine);
  EXPECT_EQ(sender_.LastSequence(), 7U);
}

TEST_F(RelayReportSender, RecordsWaitForOthersUpToTheLingerTime) {
  Follow();
  EXPECT_EQ(See(1000, 12), WaitUntil(1020));
  EXPECT_EQ(sender_.Next(1010), WaitUntil(1020));
  EXPECT_EQ(See(1090, 13), WaitUntil(1100));
  EXPECT_EQ(See(1100, 14), (Action{.kind = ActionKind::kRecords, .first = 10, .count = 4}));
}

TEST_F(RelayReportSender, AFullMessageDoesNotWait) {
  Follow();
  EXPECT_EQ(See(1000, 12, 999), WaitUntil(1020));
  EXPECT_EQ(See(1020, 13, 1000), (Action{.kind = ActionKind::kRecords, .first = 10, .count = 3}));
}

TEST_F(RelayReportSender, RecordsMayHaveWaitedSinceTheLastLook) {
  Follow();
  (void)See(1000, 12, 1000);
  sender_.Sent(1000, 2, 12, 1);
  ASSERT_TRUE(sender_.Stored(1000, 2, 8));
  EXPECT_EQ(See(1010, 12), WaitUntil(1030));
  EXPECT_EQ(See(1090, 13), WaitUntil(1110)) << "100 ms after the last look without records";
  EXPECT_EQ(See(1110, 14), (Action{.kind = ActionKind::kRecords, .first = 12, .count = 2}));
}

// The shortest interval is 20 ms, the longest one is the linger time of 100 ms. Half of a message is 500 bytes.
TEST_F(RelayReportSender, AReportIsExaminedAsOftenAsItFillsMessagesOrItsRing) {
  struct Row {
    std::uint64_t bytes;
    std::uint32_t slots;
    std::int64_t interval;  // after the message
  };
  const Row rows[] = {{10, 0, 40},  {10, 0, 80},  {10, 0, 100},  {10, 0, 100}, {500, 0, 50},
                      {500, 0, 25}, {500, 0, 20}, {10, 100, 40}, {10, 16, 20}, {10, 24, 40}};
  Follow();
  std::int64_t now = 2000;
  std::uint64_t next = 10;
  for (const Row& row : rows) {
    next += 2;
    (void)sender_.Examined(now, {.sendable = {1, next}, .bytes = row.bytes, .slots = row.slots});
    now += 100;
    const Action action = sender_.Examined(now, {.sendable = {1, next}, .bytes = row.bytes, .slots = row.slots});
    ASSERT_EQ(action.kind, ActionKind::kRecords);
    sender_.Sent(now, next, next, 1);
    ASSERT_TRUE(sender_.Stored(now, next, next));
    EXPECT_EQ(sender_.Examined(now, {.sendable = {1, next}}), WaitUntil(now + row.interval)) << next;
  }
}

TEST_F(RelayReportSender, OneMessageIsInFlightAndTheNextComesAfterItsAcknowledgement) {
  Follow();
  (void)See(1000, 20, 5000);
  sender_.Sent(1000, 2, 15, 1234);
  EXPECT_EQ(sender_.Next(1001), WaitUntil(6000));
  EXPECT_FALSE(sender_.Stored(1002, 1, 8)) << "the token of an earlier request";
  EXPECT_EQ(sender_.Position().next, 10U);
  EXPECT_TRUE(sender_.Stored(1002, 2, 8));
  EXPECT_EQ(sender_.Position(), (Mark{.incarnation = 5, .next = 15, .hash_before = 1234, .ring_slots = 50}));
  EXPECT_EQ(sender_.LastSequence(), 8U);
  EXPECT_EQ(See(1002, 20, 5000), (Action{.kind = ActionKind::kRecords, .first = 15, .count = 5}));
}

TEST_F(RelayReportSender, AfterAFailureItWaitsAndLooksUp) {
  Follow();
  (void)See(1000, 20, 5000);
  sender_.Sent(1000, 2, 15, 1234);
  EXPECT_TRUE(sender_.Failed(1100, 2));
  EXPECT_EQ(sender_.Next(1100), WaitUntil(1150));
  EXPECT_EQ(sender_.Next(1150).kind, ActionKind::kLookUp);
  EXPECT_EQ(sender_.Position().next, 10U);
  EXPECT_FALSE(sender_.Stored(1160, 2, 8)) << "a late acknowledgement changes nothing: the look-up decides";
}

TEST_F(RelayReportSender, WithoutAnAnswerInTimeItLooksUp) {
  Follow();
  (void)See(1000, 20, 5000);
  sender_.Sent(1000, 2, 15, 1234);
  EXPECT_EQ(sender_.Next(5999), WaitUntil(6000));
  EXPECT_EQ(sender_.Next(6000), WaitUntil(6050));
  EXPECT_EQ(sender_.Next(6050).kind, ActionKind::kLookUp);
  sender_.LookUpSent(6050, 3);
  EXPECT_EQ(sender_.Next(11050), WaitUntil(11100));
  EXPECT_EQ(sender_.Failures(), 2U);
}

TEST_F(RelayReportSender, AMessageThatWasStoredWithoutAnAnswerIsNoFailure) {
  Follow();
  (void)See(1000, 20, 5000);
  sender_.Sent(1000, 2, 15, 1234);
  EXPECT_TRUE(sender_.Failed(1100, 2));
  EXPECT_EQ(sender_.Failures(), 1U);
  sender_.LookUpSent(1150, 3);
  EXPECT_TRUE(sender_.NewestFound(3, 7));
  EXPECT_EQ(sender_.Failures(), 1U) << "nothing was stored";
  sender_.LookUpSent(1200, 4);
  EXPECT_TRUE(sender_.NewestFound(4, 8));
  EXPECT_EQ(sender_.Failures(), 0U);
}

TEST_F(RelayReportSender, AnAcknowledgementWhoseSequenceDoesNotRiseIsNotBelieved) {
  for (const std::uint64_t sequence : {std::uint64_t{7}, std::uint64_t{1}}) {
    sender_ = ReportSender(kTimes, [] { return 0.0; });
    Follow();
    (void)See(1000, 20, 5000);
    sender_.Sent(1000, 2, 15, 1234);
    EXPECT_FALSE(sender_.Stored(1002, 2, sequence));
    EXPECT_EQ(sender_.Position().next, 10U);
    EXPECT_EQ(sender_.Next(1052).kind, ActionKind::kLookUp);
  }
}

TEST_F(RelayReportSender, WhatTheRingOverwroteIsAGapWithItsCount) {
  Follow();
  EXPECT_EQ(See(1000, 60, 1, 35), (Action{.kind = ActionKind::kGap, .first = 10, .count = 25}));
}

TEST_F(RelayReportSender, AReportWithoutRecordsSendsAnEmptyMessageFromTimeToTime) {
  Follow();
  EXPECT_EQ(See(1000, 10), (Action{.kind = ActionKind::kEmpty, .first = 10})) << "the first message";
  sender_.Sent(1000, 2, 10, 99);
  EXPECT_TRUE(sender_.Stored(1010, 2, 8));
  EXPECT_EQ(See(1010, 10), WaitUntil(1260)) << "the idle poll";
  EXPECT_EQ(See(61000, 10), WaitUntil(61010));
  EXPECT_EQ(See(61010, 10).kind, ActionKind::kEmpty);
  sender_.Sent(61010, 3, 10, 99);
  EXPECT_TRUE(sender_.Stored(61020, 3, 9));
  EXPECT_EQ(See(61020, 10), WaitUntil(61270));
}

TEST_F(RelayReportSender, AReportThatIsBeingWrittenIsPolledMoreOften) {
  Follow();
  (void)See(1000, 20, 5000);
  sender_.Sent(1000, 2, 20, 1);
  ASSERT_TRUE(sender_.Stored(1010, 2, 8));
  EXPECT_EQ(See(1010, 20), WaitUntil(1030));
  EXPECT_EQ(See(3000, 20), WaitUntil(3250));
}

TEST_F(RelayReportSender, AnotherStoreIsPlacedAgain) {
  Follow();
  ASSERT_EQ(sender_.Next(1000).kind, ActionKind::kExamine);
  EXPECT_EQ(sender_.Examined(1000, {.proof = Proof::kContradicted}).kind, ActionKind::kPlace);
  EXPECT_EQ(sender_.Next(1000).kind, ActionKind::kPlace);
}

TEST_F(RelayReportSender, AStoreThatCannotBeReadIsTriedAgainLater) {
  Follow();
  std::int64_t now = 1000;
  for (const std::int64_t wait : {50, 50, 100, 200, 400, 800, 1600, 2500, 2500}) {
    ASSERT_EQ(sender_.Next(now).kind, ActionKind::kExamine);
    EXPECT_EQ(sender_.Examined(now, {.error = 5}), WaitUntil(now + wait));
    now += wait;
  }
}

TEST_F(RelayReportSender, ALostConnectionForgetsWhatIsInFlight) {
  Follow();
  (void)See(1000, 20, 5000);
  sender_.Sent(1000, 2, 15, 1234);
  sender_.Disconnected();
  EXPECT_FALSE(sender_.Stored(1001, 2, 8));
  EXPECT_EQ(sender_.Next(1001).kind, ActionKind::kWait);
  sender_.Connected(2000);
  EXPECT_EQ(sender_.Next(2000).kind, ActionKind::kLookUp);
  EXPECT_EQ(sender_.Position().next, 10U);
}

TEST_F(RelayReportSender, OnceStoppedItStaysStopped) {
  Follow();
  sender_.Stop();
  sender_.Connected(2000);
  sender_.Disconnected();
  EXPECT_EQ(sender_.Next(3000).kind, ActionKind::kStopped);
}

}  // namespace
