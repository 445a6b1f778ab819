// Tests the limits for hosts: of the reports that a collector creates, and of the messages that it keeps in memory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/qxrelay/Collector.h"

namespace {

using qx::relay::EncodeMessage;
using qx::relay::MessageKind;
using qx::test::Collector;
using qx::test::Exists;
using qx::test::FakeSender;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(RelayReportLimits, AHostCannotCreateMoreReportsThanItMay) {
  Collector collector;
  collector.settings.host_reports_max = 2;
  collector.context->settings = collector.settings;
  FakeSender first(collector.stream, "h", "a");
  FakeSender second(collector.stream, "h", "b/c");
  FakeSender third(collector.stream, "h", "d");
  FakeSender other(collector.stream, "g", "d");
  for (FakeSender* const sender : {&first, &second, &third, &other}) sender->Records(3);
  collector.Run();
  EXPECT_FALSE(Exists(collector.PathOf("d.ind")));
  EXPECT_EQ(collector.Records("d", "g"), other.sent) << "another host";
  EXPECT_THAT(collector.stream.acknowledged, ElementsAre(1, 2, 3, 4));
  EXPECT_EQ(collector.receiver->Counters().left_out, 3U);
  const std::string finding = "host h: report \"d\" and other new ones are left out: host_reports_max is 2";
  EXPECT_THAT(collector.receiver->Findings(), ElementsAre(finding + "; 3 records of them skipped"));

  collector.Restart();
  for (FakeSender* const sender : {&third, &first, &second}) sender->Records(2);
  collector.Run();
  EXPECT_EQ(collector.Records("a"), first.sent) << "reports that exist continue";
  EXPECT_EQ(collector.Records("b/c"), second.sent);
  EXPECT_FALSE(Exists(collector.PathOf("d.ind")));
  EXPECT_THAT(collector.receiver->Findings(), ElementsAre(finding + "; 2 records of them skipped"));
  EXPECT_EQ(std::count(collector.log.begin(), collector.log.end(), finding), 2) << "once for each start";

  collector.settings.host_reports_max = 3;
  collector.Restart();
  third.Records(4);
  collector.Run();
  EXPECT_THAT(collector.Records("d"), ElementsAre("7.5\r\n", "7.6\r\n", "7.7\r\n", "7.8\r\n"));
  EXPECT_THAT(collector.receiver->Findings(), IsEmpty());
}

TEST(RelayReportLimits, HostsAndReportsOfACollectorAreBounded) {
  Collector collector;
  collector.settings.hosts_max = 2;
  collector.settings.reports_max = 3;
  collector.context->settings = collector.settings;
  FakeSender one(collector.stream, "h1", "a");
  FakeSender two(collector.stream, "h2", "a");
  FakeSender three(collector.stream, "h2", "b");
  FakeSender four(collector.stream, "h1", "b");
  FakeSender five(collector.stream, "h3", "a");
  for (FakeSender* const sender : {&one, &two, &three, &four, &five}) sender->Records(2);
  collector.Run();
  EXPECT_EQ(collector.Records("b", "h2"), three.sent);
  EXPECT_FALSE(Exists(collector.PathOf("b.ind", "h1")));
  EXPECT_FALSE(Exists(collector.Root() + "/h3"));
  EXPECT_EQ(collector.stream.acknowledged.size(), 5U);
  EXPECT_THAT(collector.receiver->Findings(),
              ElementsAre("host h3 and other new ones are left out: hosts_max is 2; 2 records of them skipped",
                          "host h1: report \"b\" and other new ones are left out: reports_max is 3; 2 records of them "
                          "skipped"));
}

TEST(RelayReportLimits, NamesAndLabelsCountAsTheirReportsAndHosts) {
  Collector collector;
  collector.settings.hosts_max = 1;
  collector.settings.host_reports_max = 1;
  collector.Restart();
  const std::uint32_t size = 4;
  const auto names = [&](const std::string& report) {
    collector.stream.Publish(
        "qx.names.h." + report,
        EncodeMessage({.kind = MessageKind::kNames, .count = 1, .report = report}, {&size, 1}, "a=1\n"));
  };
  const auto labels = [&](const std::string& host) {
    collector.stream.Publish(
        "qx.about." + host, EncodeMessage({.kind = MessageKind::kAbout, .count = 1, .report = {}}, {&size, 1}, "a=bc"));
  };
  for (const bool is_restarted : {false, true}) {
    SCOPED_TRACE(is_restarted);
    if (is_restarted) collector.Restart();
    names(is_restarted ? "b" : "a");
    names(is_restarted ? "a" : "b");
    labels(is_restarted ? "g" : "h");
    labels(is_restarted ? "h" : "g");
    collector.Run();
    EXPECT_TRUE(Exists(collector.PathOf("a.names")));
    EXPECT_FALSE(Exists(collector.PathOf("b.names")));
    EXPECT_TRUE(Exists(collector.Root() + "/.qxrelay/about/h"));
    EXPECT_FALSE(Exists(collector.Root() + "/.qxrelay/about/g"));
    EXPECT_TRUE(collector.stream.pending.empty());
  }
}

// If all reports of a host have holes, the host can use only its own share of the memory.
TEST(RelayReportLimits, TheMessagesOfAHostThatWaitInMemoryAreBounded) {
  Collector collector;
  collector.context->host_queue_bytes_max = 100'000;
  std::vector<std::unique_ptr<FakeSender>> senders;
  for (const char* const host : {"greedy", "h"}) {
    senders.push_back(std::make_unique<FakeSender>(collector.stream, host, "a"));
    senders.back()->Records(1);
    const int messages = *host == 'h' ? 2 : 20;
    for (int i = 0; i < messages; ++i) senders.back()->Send(std::vector<std::string>(1000, ""));
  }
  const std::uint64_t second = 22;
  collector.stream.next = collector.stream.last + 1;
  for (std::uint64_t sequence = 1; sequence <= collector.stream.last; ++sequence) {
    collector.stream.pending[sequence] = 1;
    if (sequence != 1 && sequence != second) collector.stream.again.push_back(sequence);
  }
  collector.Run();
  EXPECT_EQ(collector.Report("a", "greedy").waiting_messages, 5U) << "a text costs memory although it is empty";
  EXPECT_EQ(collector.Report("a", "h").waiting_messages, 2U);
  EXPECT_LT(collector.context->queued_bytes, 150'000U);
  for (int i = 0; i < 5; ++i) {
    collector.stream.Redeliver();
    collector.Run(4);
  }
  EXPECT_EQ(collector.Report("a", "greedy").next, 20'001U);
  EXPECT_EQ(collector.Report("a", "h").next, 2001U);
  EXPECT_EQ(collector.context->queued_bytes, 0U);
}

}  // namespace
