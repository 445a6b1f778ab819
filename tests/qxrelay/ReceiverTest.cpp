// Tests the receiver with a stream in memory and a private root: which records are written, and when messages are
// acknowledged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "sdk/Writer.h"
#include "tests/qxrelay/Collector.h"
#include "tests/support/FailingFileCalls.h"

namespace {

using namespace qx::relay;
using qx::test::Collector;
using qx::test::FailingCall;
using qx::test::FakeSender;
using qx::test::FileCall;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(RelayReceiver, RecordsAreWrittenAndAcknowledgedAfterTheSync) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "disk/sda");
  sender.Records(3);
  sender.Records(2);
  const qx::test::CountedCalls syncs(FileCall::kSyncFileSystem);
  (void)collector.Step();
  EXPECT_EQ(syncs.Calls(), 1) << "the base, before the first record";
  EXPECT_EQ(collector.Records("disk/sda"), sender.sent);
  EXPECT_THAT(collector.stream.acknowledged, IsEmpty());
  collector.now += 999;
  (void)collector.Step();
  EXPECT_THAT(collector.stream.acknowledged, IsEmpty());
  collector.now += 1;
  (void)collector.Step();
  EXPECT_THAT(collector.stream.acknowledged, ElementsAre(1, 2));
  EXPECT_EQ(syncs.Calls(), 2);
  collector.Run();
  EXPECT_EQ(syncs.Calls(), 2) << "nothing to sync";
  const CollectedReport report = collector.Report("disk/sda");
  EXPECT_EQ(report.next, 5U);
  EXPECT_EQ(report.counters.records, 5U);
  EXPECT_EQ(report.counters.repeats, 0U);
  EXPECT_EQ(report.state, CollectedState::kFollows);
}

TEST(RelayReceiver, AFetchTakesAtMostEightMebibytes) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  for (int i = 0; i < 2000; ++i) sender.Records(1);  // after many small messages, many large ones wait
  collector.Run();
  for (int i = 0; i < 20; ++i) (void)sender.Send({std::string(1'000'000, 'x') + "\r\n"});
  (void)collector.Step();
  EXPECT_EQ(collector.Report("a").next, 2008U);
  collector.Run(2);
  EXPECT_EQ(collector.Report("a").next, 2020U);
  EXPECT_EQ(collector.Report("a").counters.gap_records, 0U);
}

TEST(RelayReceiver, AFailedSyncAcknowledgesNothing) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(3);
  {
    const FailingCall fault({.call = FileCall::kSyncFileSystem, .times = qx::test::kAlways, .error = EIO});
    collector.Run();
    EXPECT_THAT(collector.stream.acknowledged, IsEmpty());
    EXPECT_THAT(collector.Records("a"), IsEmpty()) << "its base may not be on the disk";
    EXPECT_THAT(collector.receiver->Problem(), HasSubstr("cannot sync the file system"));
  }
  collector.Run();
  EXPECT_EQ(collector.receiver->Problem(), "");
  EXPECT_TRUE(collector.IsLogged("synced again"));
  EXPECT_THAT(collector.stream.acknowledged, ElementsAre(1));
  EXPECT_EQ(collector.Records("a"), sender.sent);
}

TEST(RelayReceiver, RepeatsAreDroppedRecordByRecord) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(5);
  collector.Run();
  sender.next = 3;
  sender.hash = qx::report::RecordHash(sender.Text(2));
  sender.Records(4);
  collector.Run();
  EXPECT_EQ(collector.Report("a").next, 7U);
  EXPECT_EQ(collector.Report("a").counters.repeats, 2U);
  EXPECT_EQ(collector.Records("a").size(), 7U);
}

TEST(RelayReceiver, AHoleWaitsForTheMissingMessage) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  for (int i = 0; i < 4; ++i) sender.Records(2);
  collector.stream.next = 5;  // fetched by a receiver that was killed
  collector.stream.pending = {{1, 1}, {2, 1}, {3, 1}, {4, 1}};
  collector.stream.again = {3, 4};
  FakeSender other(collector.stream, "h", "b");
  other.Records(1);
  collector.Run();
  EXPECT_THAT(collector.Records("a"), IsEmpty());
  EXPECT_EQ(collector.Records("b"), other.sent);
  EXPECT_EQ(collector.Report("a").state, CollectedState::kWaits);
  EXPECT_EQ(collector.Report("a").waiting_messages, 2U);
  EXPECT_EQ(collector.Report("a").waiting_first, 4U);
  EXPECT_THAT(collector.stream.acknowledged, ElementsAre(5));
  collector.stream.again = {2, 1};
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  EXPECT_THAT(collector.stream.acknowledged, ElementsAre(1, 2, 3, 4, 5));
  EXPECT_EQ(collector.Report("a").counters.gap_records, 0U);
  EXPECT_EQ(collector.Report("a").state, CollectedState::kFollows);
}

// The consumer reads the copy of a server that was stopped. This copy has other messages with the same sequences.
TEST(RelayReceiver, MessagesThatOneCopyLacksAreTakenFromAnother) {
  Collector collector;
  FakeSender other(collector.stream, "h", "b");
  const std::uint64_t of_other = other.Records(3);
  FakeSender sender(collector.stream, "h", "a");
  const std::uint64_t earlier = sender.Records(2);
  collector.Run();
  const std::uint64_t gap = sender.Gap(5);
  const std::uint64_t records = sender.Records(2);
  const std::uint64_t last = sender.Records(2);
  collector.stream.MoveToOtherCopy(gap, of_other);
  collector.stream.MoveToOtherCopy(records, earlier);
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  EXPECT_EQ(collector.Report("a").counters.gap_records, 5U);
  EXPECT_EQ(collector.Report("a").counters.missing, 0U);
  EXPECT_EQ(collector.receiver->Counters().read_again, 2U);
  EXPECT_THAT(collector.stream.acknowledged, Contains(last));
  EXPECT_EQ(collector.Records("b"), other.sent);
}

TEST(RelayReceiver, AMessageThatNoCopyHasIsLostAfterThreeTries) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(2);
  collector.Run();
  collector.stream.messages.erase(sender.Records(3));
  sender.Records(2);
  collector.Run(4);
  EXPECT_EQ(collector.Report("a").state, CollectedState::kWaits);
  EXPECT_EQ(collector.Report("a").counters.missing, 0U);
  collector.Run();
  EXPECT_EQ(collector.Report("a").counters.missing, 3U);
  EXPECT_EQ(collector.Report("a").next, 7U);
  EXPECT_EQ(collector.stream.copy_reads, 3 * 2);
}

TEST(RelayReceiver, AHoleThatNoMessageExplainsIsLostAfterThreeTries) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(2);
  collector.Run();
  sender.next += 3;  // no sender does this
  sender.hash = 0;
  sender.Records(2);
  collector.Run();
  EXPECT_EQ(collector.Report("a").counters.missing, 3U);
  EXPECT_EQ(collector.receiver->Counters().read_again, 0U) << "the message before it was written already";
}

TEST(RelayReceiver, AMessageWaitsAMinuteForACopyThatDoesNotAnswer) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(2);
  collector.Run();
  const std::uint64_t records = sender.Records(3);
  sender.Records(2);
  collector.stream.other_copy[records] = collector.stream.messages.at(records);
  collector.stream.messages.erase(records);
  collector.stream.is_other_copy_silent = true;
  collector.Run(100);
  EXPECT_EQ(collector.Report("a").counters.missing, 0U);
  EXPECT_EQ(collector.Report("a").waiting_messages, 1U);
  collector.stream.is_other_copy_silent = false;
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  const std::uint64_t lost = sender.Records(3);
  sender.Records(2);
  collector.stream.messages.erase(lost);
  collector.stream.is_other_copy_silent = true;
  collector.Run(130);
  EXPECT_EQ(collector.Report("a").counters.missing, 3U);
}

TEST(RelayReceiver, WhatIsGoneFromTheStreamIsCountedAsLost) {
  for (const bool has_before : {true, false}) {
    SCOPED_TRACE(has_before);
    Collector collector;
    collector.stream.has_before = has_before;
    FakeSender sender(collector.stream, "h", "a");
    sender.Records(3);
    collector.Run();
    sender.Records(4);
    const std::uint64_t lost = sender.Records(5);
    sender.Records(2);
    collector.stream.Expire(lost);
    collector.Run();
    EXPECT_EQ(collector.Report("a").counters.gap_records, 9U);
    EXPECT_EQ(collector.Report("a").counters.missing, 9U);
    EXPECT_EQ(collector.Report("a").next, 14U);
    EXPECT_EQ(collector.Records("a").size(), 5U);
    EXPECT_EQ(collector.Records("a").back(), sender.Text(13));
    EXPECT_TRUE(collector.IsLogged("report h/a: 9 records are lost from number 3 on"));
    collector.Restart();
    sender.Records(1);
    collector.Run();
    EXPECT_EQ(collector.Report("a").counters.gap_records_ever, 9U);
    EXPECT_EQ(collector.Report("a").next, 15U);
  }
}

TEST(RelayReceiver, TheGapOfASenderIsCountedOnce) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(3);
  sender.Gap(10);
  sender.Records(2);
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  EXPECT_EQ(collector.Report("a").counters.gap_records, 10U);
  EXPECT_EQ(collector.Report("a").counters.missing, 0U);
  EXPECT_EQ(collector.Report("a").next, 15U);
  collector.stream.pending = {{1, 1}, {2, 1}, {3, 1}};  // the acknowledgements were lost
  collector.Restart();
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  EXPECT_EQ(collector.Report("a").counters.gap_records, 0U);
  EXPECT_EQ(collector.Report("a").counters.repeats, 5U);
  EXPECT_EQ(collector.Report("a").counters.gap_records_ever, 10U);
}

TEST(RelayReceiver, ANewIncarnationBeginsAfterTheOldOne) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(3);
  sender.Records(2);
  sender.incarnation = 8;
  sender.next = 100;
  sender.hash = 0;
  sender.Records(2);
  collector.stream.next = 4;
  collector.stream.pending = {{1, 1}, {2, 1}, {3, 1}};
  collector.stream.again = {3, 1};
  collector.Run();
  EXPECT_EQ(collector.Records("a").size(), 3U);
  EXPECT_EQ(collector.Report("a").incarnation, 7U);
  collector.stream.again = {2};
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  EXPECT_EQ(collector.Report("a").incarnation, 8U);
  EXPECT_EQ(collector.Report("a").next, 102U);
  collector.stream.pending = {{1, 2}, {3, 2}};  // comes again although it was acknowledged
  collector.Restart();
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  EXPECT_EQ(collector.Report("a").counters.repeats, 5U);
}

TEST(RelayReceiver, AStreamThatIsReplacedContinuesByNumbers) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  for (int i = 0; i < 5; ++i) sender.Records(2);
  collector.Run();
  collector.stream.messages.clear();
  collector.stream.newest.clear();
  collector.stream.pending.clear();
  collector.stream.last = 0;
  collector.stream.next = 1;
  collector.stream.created = 2;
  collector.stream.is_connected = false;
  sender.Records(3);
  collector.Run();
  sender.incarnation = 9;
  sender.next = 0;
  sender.hash = 0;
  sender.Records(1);  // its sequence is lower than those of the old stream
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  EXPECT_EQ(collector.Report("a").incarnation, 9U);
}

// All calls from some call on fail, as for a process that is killed there. The next start must continue from the files:
// no record is lost, repeated or counted twice.
TEST(RelayReceiver, AKillAtAnyFileCallLosesNothing) {
  for (const FileCall call : {FileCall::kAnyWriteAt, FileCall::kOpen, FileCall::kSyncFileSystem}) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) + " number " + std::to_string(nth));
      Collector collector;
      FakeSender sender(collector.stream, "h", "a");
      sender.next = 4;
      sender.Records(3);
      sender.Gap(10);
      sender.Records(2);
      sender.incarnation = 8;
      sender.next = 50;
      sender.hash = 0;
      sender.Records(2);
      bool has_failed = false;
      {
        const FailingCall fault({.call = call, .nth = nth, .times = qx::test::kAlways, .error = EIO});
        collector.Run(6);
        has_failed = fault.HasFailed();
        collector.Kill();
      }
      for (const std::uint64_t sequence : collector.stream.acknowledged) EXPECT_LE(sequence, 4U);
      collector.Start();
      collector.stream.Redeliver();
      sender.Records(1);
      collector.Run();
      EXPECT_EQ(collector.Records("a"), sender.sent);
      EXPECT_EQ(collector.Report("a").counters.gap_records_ever, 10U);
      EXPECT_EQ(collector.Report("a").next, 53U);
      EXPECT_EQ(collector.stream.acknowledged.size(), 5U);
      if (!has_failed) break;
    }
  }
}

// The same for calls that fail once or three times in a row. Here the receiver is not restarted.
TEST(RelayReceiver, AFailureAtAnyWriteIsTriedAgain) {
  for (const int times : {1, 3}) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("write number " + std::to_string(nth) + ", " + std::to_string(times) + " times");
      Collector collector;
      FakeSender sender(collector.stream, "h", "a");
      sender.Records(3);
      sender.Gap(10);
      sender.Records(2);
      sender.Records(4);
      const FailingCall fault({.call = FileCall::kAnyWriteAt, .nth = nth, .times = times, .error = ENOSPC});
      collector.Run(40);
      EXPECT_EQ(collector.Records("a"), sender.sent);
      EXPECT_EQ(collector.Report("a").counters.gap_records_ever, 10U);
      EXPECT_EQ(collector.stream.acknowledged.size(), 4U);
      EXPECT_EQ(collector.Report("a").counters.repeats, 0U);
      if (!fault.HasFailed()) break;
    }
  }
}

TEST(RelayReceiver, AFullDiskIsTriedAgainWithoutABusyLoop) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(3);
  collector.Run();
  {
    const qx::test::FullDisk disk(2, 5);
    sender.Records(4);
    sender.Records(2);
    int steps = 0;
    for (const TimeMs end = collector.now + 60'000; collector.now < end; ++steps) {
      collector.now = std::max(collector.now + 1, collector.Step());
    }
    EXPECT_LT(steps, 60);
    EXPECT_EQ(collector.stream.acknowledged.size(), 1U);
    EXPECT_THAT(collector.receiver->Problem(), HasSubstr("No space left"));
    EXPECT_EQ(collector.Report("a").state, CollectedState::kHeld);
  }
  collector.now += 5000;
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  EXPECT_EQ(collector.stream.acknowledged.size(), 3U);
  EXPECT_EQ(collector.receiver->Problem(), "");
  EXPECT_EQ(collector.Report("a").counters.repeats, 0U);
}

std::size_t OpenDescriptors() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) count += entry.exists() ? 1 : 0;
  return count;
}

TEST(RelayReceiver, OpenFilesAreBounded) {
  Collector collector;
  collector.context->open_max = 4;
  constexpr int kReports = 30;
  std::vector<std::unique_ptr<FakeSender>> senders;
  for (int i = 0; i < kReports; ++i) {
    senders.push_back(std::make_unique<FakeSender>(collector.stream, "h", "r" + std::to_string(i)));
  }
  std::size_t descriptors = 0;
  for (int round = 0; round < 3; ++round) {
    for (const auto& sender : senders) sender->Records(2);
    collector.Run(4);
    descriptors = std::max(descriptors, OpenDescriptors());
  }
  EXPECT_LT(descriptors, 8U + 4 * 3 + 8);
  for (int i = 0; i < kReports; ++i)
    EXPECT_EQ(collector.Records("r" + std::to_string(i)), senders[static_cast<std::size_t>(i)]->sent);
  EXPECT_EQ(collector.stream.acknowledged.size(), 3U * kReports);
}

TEST(RelayReceiver, SlotsAreThoseOfNewReports) {
  Collector collector;
  collector.context->settings.slots = 4;
  FakeSender sender(collector.stream, "h", "a");
  sender.Records(7);
  collector.Run();
  EXPECT_THAT(collector.Records("a"), ElementsAre("7.3\r\n", "7.4\r\n", "7.5\r\n", "7.6\r\n"));
  collector.context->settings.slots = 10;
  collector.Restart();
  sender.Records(1);
  collector.Run();
  EXPECT_EQ(collector.Records("a").size(), 4U);
  EXPECT_EQ(collector.Report("a").next, 8U);
}

// A record is stored with the bytes that the host's readers return, whichever byte ends it.
TEST(RelayReceiver, UnusualRecordsAreCopiedByteForByte) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a");
  sender.Send({"cut at a NUL", "a\n", "", "b\xFF", "\r\n", "\n", "\xFF", std::string(5000, 'x') + "\r\n"});
  sender.Send({"\n", "c\r\n"});
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
  collector.Restart();
  sender.Send({"cut"});
  collector.Run();
  collector.Restart();
  sender.Send({"d\r\n"});
  collector.Run();
  EXPECT_EQ(collector.Records("a"), sender.sent);
}

TEST(RelayReceiver, NamesAndLabelsAreKept) {
  Collector collector;
  const auto publish = [&](MessageKind kind, const std::string& subject, const std::string& report,
                           const std::vector<std::string>& texts) {
    std::vector<std::uint32_t> lengths;
    std::string bytes;
    for (const std::string& text : texts) {
      lengths.push_back(static_cast<std::uint32_t>(text.size()));
      bytes += text;
    }
    return collector.stream.Publish(
        subject,
        EncodeMessage({.kind = kind, .incarnation = 1, .count = texts.size(), .report = report}, lengths, bytes));
  };
  publish(MessageKind::kNames, "qx.names.h.disk%2Fsda", "disk/sda", {"a=1\n"});
  publish(MessageKind::kAbout, "qx.about.h", "", {"site=north", "evil=\n", "role=web"});
  collector.Run();
  const std::string names = collector.PathOf("disk/sda.names");
  EXPECT_EQ(qx::test::ReadFile(names), "a=1\n");
  EXPECT_EQ(qx::test::ReadFile(collector.Root() + "/.qxrelay/about/h"), "site=north\nrole=web\n");
  EXPECT_THAT(collector.stream.acknowledged, ElementsAre(1, 2));
  publish(MessageKind::kNames, "qx.names.h.disk%2Fsda", "disk/sda", {"a=2\n"});
  collector.Run();
  EXPECT_EQ(qx::test::ReadFile(names), "a=2\n");
  collector.stream.pending = {{1, 1}};
  collector.stream.again = {1};
  collector.Run();
  EXPECT_EQ(qx::test::ReadFile(names), "a=2\n") << "an older message that comes again";
  publish(MessageKind::kNames, "qx.names.h.disk%2Fsda", "disk/sda", {});
  collector.Run();
  EXPECT_FALSE(qx::test::Exists(names));
}

}  // namespace
