// Tests the figures of a sender and a receiver: rates, ages, how long a ring lasts, and the status file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/FakeStream.h"
#include "tests/support/Support.h"
#include "tools/qxrelay/status/FlowDocument.h"
#include "tools/qxrelay/status/FlowGauge.h"
#include "tools/qxrelay/status/FlowPublisher.h"
#include "tools/qxrelay/status/ReceiverFlow.h"
#include "tools/qxrelay/status/SenderFlow.h"
#include "tools/qxrelay/status/StoppedSender.h"

namespace {

using qx::relay::CollectedReport;
using qx::relay::CollectedState;
using qx::relay::FlowGauge;
using qx::relay::FlowOfText;
using qx::relay::FlowPublisher;
using qx::relay::MessageHead;
using qx::relay::MessageKind;
using qx::relay::ReceiverFlow;
using qx::relay::ReportFlow;
using qx::relay::SenderFlow;
using qx::relay::SentReport;
using qx::relay::ServiceFlow;
using qx::relay::ServiceKind;
using qx::relay::StoppedSender;
using qx::relay::TextOfFlow;

TEST(RelayFlowGauge, TheRateIsThatOfTheLastMinute) {
  FlowGauge gauge;
  EXPECT_EQ(gauge.Rate(0), std::nullopt);
  gauge.Add(0, 1000);
  EXPECT_EQ(gauge.Rate(999), std::nullopt) << "less than a second";
  gauge.Add(1000, 1010);
  EXPECT_EQ(gauge.Rate(1000), 10.0);
  EXPECT_EQ(gauge.Rate(10'000), 1.0);
  for (int second = 2; second <= 100; ++second) gauge.Add(second * 1000, 1010 + static_cast<std::uint64_t>(second) * 6);
  EXPECT_EQ(gauge.Rate(100'000), 6.0);
  EXPECT_EQ(gauge.Rate(160'000), 0.0) << "a minute without records";
}

TEST(RelayFlowGauge, TheOldestWaitingRecordHasTheAgeOfTheLastCountWithoutIt) {
  FlowGauge gauge;
  EXPECT_EQ(gauge.LagMs(5, 0), 0);
  gauge.Add(1000, 10);
  gauge.Add(2000, 10);
  gauge.Add(3000, 15);
  gauge.Add(4000, 20);
  EXPECT_EQ(gauge.LagMs(9000, 20), 0) << "nothing waits";
  EXPECT_EQ(gauge.LagMs(9000, 19), 6000);
  EXPECT_EQ(gauge.LagMs(9000, 15), 6000);
  EXPECT_EQ(gauge.LagMs(9000, 14), 7000);
  EXPECT_EQ(gauge.LagMs(9000, 10), 7000);
  EXPECT_EQ(gauge.LagMs(9000, 9), 8000) << "since the first count at least";
}

TEST(RelayFlowGauge, ASmallerCountIsThatOfAnotherStore) {
  FlowGauge gauge;
  gauge.Add(0, 1000);
  gauge.Add(1000, 5);
  EXPECT_EQ(gauge.Rate(1500), std::nullopt);
  EXPECT_EQ(gauge.LagMs(1500, 0), 500);
}

TEST(RelayFlowGauge, ADayOfCountsKeepsItsBoundsAndTheAgeOfAnOldRecord) {
  FlowGauge gauge;
  std::int64_t now = 0;
  for (std::uint64_t second = 0; second < 86'400; ++second, now += 1000) gauge.Add(now, second * 2);
  EXPECT_NEAR(gauge.Rate(now).value_or(0), 2.0, 0.05);
  const std::int64_t age = gauge.LagMs(now, 86'400 * 2 - 3600 * 2);
  EXPECT_GE(age, 3600 * 1000);
  EXPECT_LT(age, 3600 * 1000 * 9 / 8);
}

ReportFlow FlowWith(std::uint64_t slots, std::uint64_t lag, double rate) {
  ReportFlow flow;
  flow.ring_slots = slots;
  flow.lag_records = lag;
  flow.records_per_second = rate;
  SetOvertaken(flow);
  return flow;
}

TEST(RelayFlow, ARingLastsAsLongAsItHasSlotsForNewRecords) {
  EXPECT_EQ(FlowWith(101, 0, 10).overtaken_in_s, 10.0);
  EXPECT_EQ(FlowWith(4, 1, 2).overtaken_in_s, 1.0);
  EXPECT_EQ(FlowWith(4, 3, 2).overtaken_in_s, 0.0);
  EXPECT_EQ(FlowWith(4, 100, 2).overtaken_in_s, 0.0);
  EXPECT_EQ(FlowWith(4, 1, 0).overtaken_in_s, std::nullopt) << "nobody writes";
}

ServiceFlow SomeFlow() {
  ServiceFlow flow = {.kind = ServiceKind::kReceiver,
                      .name = "c1",
                      .time_ms = 1'800'000'000'123,
                      .started_ms = 1'800'000'000'000,
                      .is_connected = true,
                      .problem = "a \"problem\"\n",
                      .findings = {"a limit was met"},
                      .counters = {{"records", 18'446'744'073'709'551'615U}, {"bytes", 2}, {"a", 1}},
                      .reports = {}};
  ReportFlow report;
  report.host = "h1";
  report.report = "disk/sda\xFF";
  flow.reports.push_back(report);
  report.report = "load";
  report.trouble = "why";
  report.lag_records = 4;
  report.lag_ms = 1234;
  report.records_per_second = 0.25;
  report.overtaken_in_s = 1e6;
  report.ring_slots = 1000;
  report.records = 5;
  report.gap_records = 6;
  report.holes = 7;
  report.repeats = 8;
  flow.reports.push_back(report);
  return flow;
}

TEST(RelayFlowDocument, WhatIsWrittenIsReadBack) {
  EXPECT_EQ(FlowOfText(TextOfFlow(SomeFlow())), SomeFlow());
  const qx::test::TempDir dir;
  const std::string path = dir.File("status");
  EXPECT_EQ(WriteFlowFile(path, SomeFlow()), std::nullopt);
  qx::test::WriteFile(path + ".new", "of a killed service");
  EXPECT_EQ(WriteFlowFile(path, SomeFlow()), std::nullopt);
  EXPECT_EQ(qx::relay::ReadFlowFile(path), SomeFlow());
  EXPECT_FALSE(qx::test::Exists(path + ".new"));
  EXPECT_EQ(WriteFlowFile(dir.File("none/status"), SomeFlow()),
            "cannot write " + dir.File("none/status") + ": No such file or directory");
}

TEST(RelayFlowDocument, NoPrefixAndNoOtherDocumentIsAFlow) {
  const std::string text = TextOfFlow(SomeFlow());
  for (std::size_t size = 0; size < text.size() - 2; ++size) {
    EXPECT_EQ(FlowOfText(text.substr(0, size)), std::nullopt) << size;
  }
  for (const std::string other : {"[]", "{}", "7", R"({"service": 7})", R"({"service": "sender", "name": null})"}) {
    EXPECT_EQ(FlowOfText(other), std::nullopt) << other;
  }
}

class RelaySenderFlow : public testing::Test {
 protected:
  void Append(int count, std::uint32_t slots = 10) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(dir_.File("load").c_str(), slots));
    for (int i = 0; i < count; ++i) ASSERT_TRUE(store.writeLine("x"));
  }

  ReportFlow Take(std::uint64_t next, std::int64_t now) {
    SentReport sent;
    sent.report = "load";
    sent.is_placed = true;
    sent.next = next;
    sent.counters.records = 3;
    sent.counters.gap_records = 2;
    return flow_.Take({sent}, now, now).front();
  }

  qx::test::TempDir dir_;
  SenderFlow flow_{"h", dir_.Path()};
};

TEST_F(RelaySenderFlow, WhatTheRingHasAndWasNotSentWaits) {
  Append(4);
  const ReportFlow first = Take(4, 1000);
  EXPECT_EQ(first.host + "/" + first.report, "h/load");
  EXPECT_EQ(first.records, 3U);
  EXPECT_EQ(first.gap_records, 2U);
  EXPECT_EQ(first.lag_records, 0U);
  EXPECT_EQ(first.lag_ms, 0);
  EXPECT_EQ(first.ring_slots, 10U);
  Append(3);
  const ReportFlow second = Take(4, 2000);
  EXPECT_EQ(second.lag_records, 3U);
  EXPECT_EQ(second.lag_ms, 1000);
  EXPECT_EQ(second.records_per_second, 3.0);
  EXPECT_EQ(second.overtaken_in_s, 2.0);
  Append(20);
  const ReportFlow third = Take(4, 3000);
  EXPECT_EQ(third.lag_records, 23U) << "more than the ring has";
  EXPECT_EQ(third.overtaken_in_s, 0.0);
}

TEST_F(RelaySenderFlow, AStoreThatIsGoneOrAnotherOneHasNoLag) {
  EXPECT_EQ(Take(4, 1000).lag_records, std::nullopt);
  Append(4);
  EXPECT_EQ(Take(9, 2000).lag_records, std::nullopt) << "it has fewer records than were sent";
  EXPECT_EQ(Take(4, 3000).lag_records, 0U);
  std::filesystem::remove(dir_.File("load.ind"));
  EXPECT_EQ(Take(4, 4000).lag_records, std::nullopt);
  qx::test::WriteFile(dir_.File("load.ind"), std::string(24, '\xFF'));
  EXPECT_EQ(Take(4, 5000).lag_records, std::nullopt);
}

TEST_F(RelaySenderFlow, AStoppedSenderIsPlacedByTheNewestMessageOrItsState) {
  Append(8, 100);
  StoppedSender sender;
  sender.host = "h";
  sender.directory = dir_.Path();
  EXPECT_EQ(sender.Reports(), std::vector<std::string>{"load"});
  ServiceFlow flow = sender.Flow(50'000, 1'000'000);
  EXPECT_EQ(flow.problem, "the sender is not running");
  EXPECT_EQ(flow.reports.at(0).trouble, "no record was sent yet");
  EXPECT_EQ(flow.reports.at(0).lag_records, std::nullopt);
  sender.states["load"].mark.next = 5;
  EXPECT_EQ(sender.Flow(50'000, 1'000'000).reports.at(0).lag_records, 3U);
  MessageHead& newest = sender.newest["load"];
  newest.first = 4;
  newest.count = 2;
  newest.store_next = 6;
  newest.sent_ms = 1'000'000 - 10'000;
  flow = sender.Flow(50'000, 1'000'000);
  EXPECT_EQ(flow.reports.at(0).lag_records, 2U);
  EXPECT_EQ(flow.reports.at(0).lag_ms, 10'000);
  EXPECT_EQ(flow.reports.at(0).records_per_second, 0.2);
}

TEST(RelayNewestMessages, AreLookedUpAFewAtATimeAndForeignOnesAreLeftOut) {
  qx::test::FakeStream stream;
  ASSERT_EQ(stream.Connect(), std::nullopt);
  std::vector<std::string> reports;
  for (int i = 0; i < 11; ++i) reports.push_back("r" + std::to_string(i));
  MessageHead head;
  head.kind = MessageKind::kEmpty;
  head.incarnation = 1;
  head.first = 7;
  for (const std::string& report : reports) {
    head.report = report;
    if (report != "r3") stream.Store("qx.report.h." + report, EncodeMessage(head));
  }
  stream.Store("qx.report.h.r5", "of a stranger");
  reports.emplace_back("..");  // has no subject
  const auto newest = qx::relay::NewestMessages(stream, "qx", "h", reports, 2000);
  EXPECT_EQ(newest.size(), 9U);
  EXPECT_FALSE(newest.contains("r3") || newest.contains("r5"));
  EXPECT_EQ(newest.at("r10").first, 7U);
}

TEST(RelayReceiverFlow, LagAndHolesFollowFromTheNewestMessage) {
  CollectedReport report;
  report.host = "h";
  report.report = "load";
  report.is_placed = true;
  report.next = 100;
  report.counters.records = 90;
  report.counters.gap_records = 10;
  report.counters.repeats = 4;
  ReceiverFlow flow;
  EXPECT_EQ(flow.Take({report}, 0, 5000).at(0).lag_records, std::nullopt) << "no message yet";
  report.store_next = 100;
  report.ring_slots = 50;
  report.sent_ms = 3000;
  EXPECT_EQ(flow.Take({report}, 1000, 5000).at(0).lag_ms, 0);
  report.state = CollectedState::kWaits;
  report.store_next = 120;
  report.waiting_first = 104;
  const ReportFlow waiting = flow.Take({report}, 3000, 7000).at(0);
  EXPECT_EQ(waiting.lag_records, 20U);
  EXPECT_EQ(waiting.lag_ms, 4000);
  EXPECT_EQ(waiting.holes, 4U);
  EXPECT_EQ(waiting.records_per_second, 10.0);
  EXPECT_EQ(waiting.overtaken_in_s, 2.9);
  EXPECT_EQ(waiting.records, 90U);
  EXPECT_EQ(waiting.gap_records, 10U);
  EXPECT_EQ(waiting.repeats, 4U);
}

TEST(RelayFlowPublisher, PublishesOnceASecondAndItsEnd) {
  const qx::test::TempDir dir;
  std::vector<std::string> log;
  int taken = 0;
  std::vector<ServiceFlow> shown;
  const auto take = [&] {
    ++taken;
    return SomeFlow();
  };
  FlowPublisher publisher(
      dir.File("status"), take, [&](const ServiceFlow& flow) { shown.push_back(flow); },
      [&](const std::string& line) { log.push_back(line); });
  for (std::int64_t now = 5000; now < 7000; now += 50) publisher.Step(now);
  EXPECT_EQ(taken, 2);
  EXPECT_EQ(shown.size(), 2U);
  EXPECT_GE(publisher.Wake(), 7000);
  EXPECT_EQ(qx::relay::ReadFlowFile(dir.File("status")), SomeFlow());
  publisher.Finish();
  EXPECT_EQ(qx::relay::ReadFlowFile(dir.File("status"))->started_ms, 0);
  EXPECT_TRUE(log.empty());
  FlowPublisher failing(
      dir.File("none/status"), take, [](const ServiceFlow&) {}, [&](const std::string& line) { log.push_back(line); });
  for (std::int64_t now = 0; now < 5000; now += 1000) failing.Step(now);
  EXPECT_EQ(log.size(), 1U) << "one line, not one for each second";
}

}  // namespace
