// Tests power failures of a collector or a sender at any change of its files. Only changes that were not synced may be
// lost.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/qxrelay/Collector.h"
#include "tests/qxrelay/LosingDisk.h"
#include "tools/qxrelay/send/SenderState.h"

namespace {

using qx::relay::CollectedState;
using qx::test::Collector;
using qx::test::FakeSender;
using qx::test::LosingDisk;
using qx::test::Loss;

// The messages of a report: records, a gap, a new incarnation, and repeats. There is a sync between most of them, and
// the power fails before, after, or during it.
void SendAll(Collector& collector, FakeSender& sender) {
  sender.next = 4;
  sender.Records(3);
  collector.Run(4);
  sender.Records(2);
  sender.Records(1);
  collector.Run(1);
  sender.Gap(10);
  sender.Records(2);
  collector.Run(4);
  sender.incarnation = 8;
  sender.next = 50;
  sender.hash = 0;
  sender.Records(2);
  collector.Run(2);
  sender.Records(30);
  collector.Run(4);
}

// The report must be a complete copy, or be left alone with a finding. So no torn record stays unnoticed.
void ExpectAllOrAFinding(Collector& collector, const FakeSender& sender) {
  if (collector.Report("a/b").state == CollectedState::kLeftAlone) {
    EXPECT_NE(collector.Report("a/b").trouble, "");
  } else {
    EXPECT_EQ(collector.Records("a/b"), sender.sent);
  }
  EXPECT_TRUE(collector.stream.pending.empty());
}

void ExpectAll(Collector& collector, const FakeSender& sender) {
  EXPECT_EQ(collector.Records("a/b"), sender.sent);
  EXPECT_EQ(collector.Report("a/b").counters.gap_records_ever, 10U);
  EXPECT_EQ(collector.Report("a/b").next, 83U);
  EXPECT_TRUE(collector.stream.pending.empty());
}

// Sends everything; the power fails after `changes` changes. False if there were fewer changes.
bool LosePower(int changes, Loss loss, std::mt19937_64& random) {
  Collector collector;
  FakeSender sender(collector.stream, "h", "a/b");
  LosingDisk disk(collector.dir.Path());
  disk.FailAfter(changes);
  SendAll(collector, sender);
  const bool has_failed = disk.HasFailed();
  collector.Kill();
  disk.Restart(loss, random);
  collector.Start();
  sender.Records(1);
  for (int i = 0; i < 3; ++i) {
    collector.stream.Redeliver();
    collector.Run(4);
  }
  loss == Loss::kOfSectors ? ExpectAllOrAFinding(collector, sender) : ExpectAll(collector, sender);
  return has_failed;
}

void LosePowerAtEachChange(Loss loss, std::uint64_t round = 0) {
  std::mt19937_64 random(qx::test::Seed("RelayPowerLoss") + round);
  for (int changes = 0;; ++changes) {
    SCOPED_TRACE("loss " + std::to_string(static_cast<int>(loss)) + " after change " + std::to_string(changes));
    if (!LosePower(changes, loss, random) || testing::Test::HasFailure()) break;
  }
}

TEST(RelayPowerLoss, WhatIsAcknowledgedIsOnTheDisk) {
  LosePowerAtEachChange(Loss::kEverything);
  LosePowerAtEachChange(Loss::kTheLast);
  for (const std::uint64_t round : {1U, 2U}) LosePowerAtEachChange(Loss::kOfEachName, round);
}

// The disk may have the header, but not the records that it counts. These records were not acknowledged, so they come
// again.
TEST(RelayPowerLoss, AReportWithALostSectorIsWholeOrAFinding) { LosePowerAtEachChange(Loss::kOfSectors); }

// Writes the states of two reports again and again, like a sender. Returns the position of the last write that
// succeeded; 0 if there was no such write.
std::uint64_t WriteStates(const std::string& directory) {
  qx::relay::SenderState state;
  std::uint64_t written = 0;
  if (state.Open(directory, false).has_value() || state.BeginSession(0).has_value()) return written;
  for (std::uint64_t next = 1; next <= 3; ++next) {
    for (const char* const report : {"a", "b"}) state.Of(report).mark = {.incarnation = 7, .next = next};
    if (state.Write().has_value()) break;
    written = next;
  }
  return written;
}

TEST(RelayPowerLoss, TheStateOfASenderIsTheLastOneThatWasWritten) {
  std::mt19937_64 random(qx::test::Seed("RelayPowerLoss"));
  for (const Loss loss : {Loss::kEverything, Loss::kTheLast, Loss::kOfEachName, Loss::kOfSectors}) {
    bool has_failed = true;
    for (int changes = 0; has_failed; ++changes) {
      SCOPED_TRACE("loss " + std::to_string(static_cast<int>(loss)) + " after change " + std::to_string(changes));
      const qx::test::TempDir dir;
      LosingDisk disk(dir.Path());
      disk.FailAfter(changes);
      const std::uint64_t written = WriteStates(dir.File("state"));
      has_failed = disk.HasFailed();
      disk.Restart(loss, random);
      qx::relay::SenderState state;
      ASSERT_EQ(state.Open(dir.File("state"), false), std::nullopt);
      for (const char* const report : {"a", "b"}) {
        const std::uint64_t next = state.Of(report).mark.next;
        EXPECT_GE(next, written);
        EXPECT_LE(next, written + 1);
      }
      EXPECT_EQ(state.Of("a").mark, state.Of("b").mark);
      EXPECT_EQ(state.BeginSession(0), std::nullopt);
    }
  }
}

}  // namespace
