// Compares a receiver with a model, after random messages, orders, kills and failures.
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/qxrelay/Collector.h"
#include "tests/support/FailingFileCalls.h"

namespace {

using qx::test::Collector;
using qx::test::FailingCall;
using qx::test::FakeSender;
using qx::test::FileCall;

// A sender, and the expected content of its report on the collector.
struct ModelReport {
  std::string name;
  FakeSender sender;
  std::vector<std::string> records = {};
  std::uint64_t first = 0;  // the first record that may be sent again: of the incarnation, or after its last gap
  std::uint64_t lost = 0;

  ModelReport(Collector& collector, const std::string& report) : name(report), sender(collector.stream, "h", report) {}

  void Send(std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) records.push_back(sender.Text(sender.next + i));
    sender.Records(count);
  }
  void LoseSome(std::uint64_t count) {
    lost += count;
    sender.Gap(count);
    first = sender.next;
  }
  // Sends records again, as a sender does after a lost answer and after servers that lost messages.
  void SendAgain(std::uint64_t count) {
    const std::uint64_t next = sender.next;
    const std::uint64_t hash = sender.hash;
    const std::uint64_t again = std::min(count, next - first);
    if (again == 0) return;
    sender.next -= again;
    sender.hash = sender.next > first ? qx::report::RecordHash(sender.Text(sender.next - 1)) : 0;
    sender.Records(again);
    sender.hash = hash;
  }
  void BeginAgain(std::uint64_t next) {
    ++sender.incarnation;
    sender.next = first = next;
    sender.hash = 0;
  }
};

// Threads: one thread. The seed determines all events.
class ReceiverModel {
 public:
  explicit ReceiverModel(std::uint64_t seed) : random_(seed) {
    collector_.open_max = collector_.context->open_max = 2;
    for (const char* const name : {"a", "b/c", "d"}) reports_.emplace_back(collector_, name);
  }

  void Happen() {
    collector_.stream.fetch_max = 1 + Below(3);  // so that messages that come in another order are also handled in it
    ModelReport& report = reports_[Below(reports_.size())];
    switch (Below(13)) {
      case 0:
        return report.LoseSome(1 + Below(5));
      case 1:
        return report.SendAgain(1 + Below(6));
      case 2:
        return report.BeginAgain(Below(50));
      case 3:
        report.sender.Empty();
        return;
      case 4:
        return Shuffle();
      case 5:
        collector_.Kill();
        Shuffle();
        return collector_.Start();
      case 6:
        return Fail(qx::test::kAlways);
      case 7:
        return Fail(1 + static_cast<int>(Below(2)));
      case 8:
        return collector_.Run(2);
      case 9:
        return KillAfterAFetch();
      default:
        return report.Send(1 + Below(5));
    }
  }

  void Check() {
    collector_.stream.fetch_max = 1000;
    for (ModelReport& report : reports_) report.sender.Empty();  // so that each report is used after the last start
    for (int i = 0; i < 5; ++i) {
      Shuffle();
      collector_.now += 5000;
      collector_.Run(6);
    }
    EXPECT_TRUE(collector_.stream.pending.empty());
    for (const ModelReport& report : reports_) {
      SCOPED_TRACE(report.name);
      EXPECT_EQ(collector_.Records(report.name), report.records);
      EXPECT_EQ(collector_.Report(report.name).counters.gap_records_ever, report.lost);
    }
  }

 private:
  std::uint64_t Below(std::uint64_t end) { return random_() % end; }

  // Everything that was not acknowledged comes again, in any order.
  void Shuffle() {
    collector_.stream.Redeliver();
    std::shuffle(collector_.stream.again.begin(), collector_.stream.again.end(), random_);
  }

  // Kills the receiver after it has fetched messages. They come again in any order, so there are holes.
  void KillAfterAFetch() {
    for (ModelReport& report : reports_) report.Send(1 + Below(3));
    collector_.Kill();
    collector_.stream.DeliverToNobody(2 + Below(8));
    Shuffle();
    collector_.Start();
  }

  // Makes calls fail. Either a few calls fail, and the receiver continues; or all later calls fail, and the receiver is
  // killed.
  void Fail(int times) {
    constexpr FileCall kCalls[] = {FileCall::kAnyWriteAt, FileCall::kOpen, FileCall::kSyncFileSystem};
    {
      const FailingCall fault({.call = kCalls[Below(std::size(kCalls))],
                               .nth = 1 + static_cast<int>(Below(20)),
                               .times = times,
                               .error = ENOSPC});
      collector_.Run(3);
      if (times != qx::test::kAlways) return;
      collector_.Kill();
    }
    Shuffle();
    collector_.Start();
  }

  Collector collector_;
  std::mt19937_64 random_;
  std::deque<ModelReport> reports_;
};

TEST(RelayReceiverModel, WhateverHappensTheReportsAreThoseOfTheHost) {
  const std::uint64_t seed = qx::test::Seed("RelayReceiverModel");
  for (std::uint64_t round = 0; round < 20; ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed + round));
    ReceiverModel model(seed + round);
    for (int i = 0; i < 60; ++i) model.Happen();
    model.Check();
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace
