// Tests the text of the metrics, and the server that serves it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/HttpGet.h"
#include "tests/support/Support.h"
#include "tools/qxrelay/config/LoopbackAddress.h"
#include "tools/qxrelay/status/FlowMetrics.h"
#include "tools/qxrelay/status/FlowPublisher.h"
#include "tools/qxrelay/status/HttpServer.h"
#include "tools/qxrelay/status/MetricsService.h"
#include "tools/qxrelay/status/MetricsText.h"
#include "tools/qxrelay/status/ReceiverFlow.h"
#include "tools/qxrelay/status/SenderFlow.h"

namespace {

using qx::relay::FlowPublisher;
using qx::relay::HttpAnswer;
using qx::relay::HttpServer;
using qx::relay::LoopbackAddressOf;
using qx::relay::MetricKind;
using qx::relay::MetricsRules;
using qx::relay::MetricsService;
using qx::relay::MetricsSettings;
using qx::relay::MetricsText;
using qx::relay::ReportFlow;
using qx::relay::ServiceFlow;
using qx::test::HttpGet;
using qx::test::HttpReply;
using testing::HasSubstr;
using testing::Not;

TEST(RelayMetricsText, LabelsAndHelpAreEscapedAndNumbersAreExact) {
  MetricsText text;
  text.Family("a_total", MetricKind::kCounter, "with \\ and \"quotes\"\nand lines");
  text.Sample({}, std::uint64_t{18'446'744'073'709'551'615U});
  text.Sample({{"x", "\"\\\n{},=é"}, {"y", ""}}, 0.1);
  text.Family("b", MetricKind::kGauge, "b");
  text.Sample({}, -1e300 * 1e300);
  EXPECT_EQ(text.Text(),
            "# HELP a_total with \\\\ and \"quotes\"\\nand lines\n# TYPE a_total counter\n"
            "a_total 18446744073709551615\na_total{x=\"\\\"\\\\\\n{},=é\",y=\"\"} 0.1\n"
            "# HELP b b\n# TYPE b gauge\nb -Inf\n");
}

// A sender with two reports that have hostile names and records.
class RelayMetrics : public testing::Test {
 protected:
  RelayMetrics() {
    flow_.name = "h";
    flow_.time_ms = 1'800'000'000'500;
    flow_.started_ms = 1'800'000'000'000;
    flow_.is_connected = true;
    flow_.counters = CountersOf(qx::relay::SenderCounters());
    for (const std::string name : {"a\"\\\nb", "load"}) {
      ReportFlow report;
      report.host = "h";
      report.report = name;
      report.lag_records = 7;
      report.lag_ms = 1500;
      flow_.reports.push_back(report);
    }
    rules_.version = "1";
    rules_.series_max = 100;
    rules_.path_of = [this](const ReportFlow&) { return dir_.File("load"); };
    CReportFileBase store;
    EXPECT_TRUE(store.Open(dir_.File("load").c_str(), 10));
    EXPECT_TRUE(store.writeLine("cpu=1"));
    EXPECT_TRUE(store.writeLine("09:00 cpu=12.5% state=ok \"q\\=3 free: 7 GB \xC3=1"));
  }

  [[nodiscard]] std::string Text() const { return MetricsOf(flow_, rules_); }

  qx::test::TempDir dir_;
  ServiceFlow flow_;
  MetricsRules rules_;
};

TEST_F(RelayMetrics, EachReportHasItsSeriesAndWhatIsUnknownHasNone) {
  const std::string text = Text();
  EXPECT_THAT(text, HasSubstr("qxrelay_info{service=\"sender\",name=\"h\",version=\"1\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("qxrelay_report_lag_records{host=\"h\",report=\"a\\\"\\\\\\nb\"} 7\n"));
  EXPECT_THAT(text, HasSubstr("qxrelay_report_lag_seconds{host=\"h\",report=\"load\"} 1.5\n"));
  EXPECT_THAT(text, Not(HasSubstr("qxrelay_report_ring_left_seconds{")));
  EXPECT_THAT(text, HasSubstr("# HELP qxrelay_gap_records_total Records that were counted as lost\n"
                              "# TYPE qxrelay_gap_records_total counter\nqxrelay_gap_records_total 0\n"));
  EXPECT_THAT(text, Not(HasSubstr("The counter"))) << "each one is described";
  EXPECT_THAT(text, HasSubstr("qxrelay_start_time_seconds 1.8e+09\n"));
  EXPECT_THAT(text, Not(HasSubstr("qxrelay_report_field{")));
  EXPECT_THAT(text, HasSubstr("qxrelay_series_left_out 0\n"));
}

TEST_F(RelayMetrics, CountersOfAReceiverAreDescribedToo) {
  flow_.kind = qx::relay::ServiceKind::kReceiver;
  flow_.counters = CountersOf(qx::relay::ReceiverCounters(), {});
  EXPECT_THAT(Text(), Not(HasSubstr("The counter")));
  EXPECT_THAT(Text(), HasSubstr("# TYPE qxrelay_pending_messages gauge\nqxrelay_pending_messages 0\n"));
}

TEST_F(RelayMetrics, NumbersOfTheNewestRecordOfChosenReportsAreSeries) {
  rules_.reports = {"lo*"};
  const std::string text = Text();
  EXPECT_THAT(text, HasSubstr("qxrelay_report_field{host=\"h\",report=\"load\",field=\"cpu\"} 12.5\n"));
  EXPECT_THAT(text, HasSubstr("field=\"free\"} 7\n"));
  EXPECT_THAT(text, Not(HasSubstr("field=\"state\"")));
  EXPECT_THAT(text, HasSubstr("qxrelay_series_left_out 1\n")) << "a name of a field is not UTF-8";
}

TEST_F(RelayMetrics, WhatIsOverTheLimitIsLeftOutAndCounted) {
  rules_.reports = {"*"};
  rules_.series_max = 10;  // the nine of one report, and one number
  const std::string text = Text();
  EXPECT_THAT(text, HasSubstr("qxrelay_report_records_total{host=\"h\",report=\"a"));
  EXPECT_THAT(text, Not(HasSubstr("qxrelay_report_records_total{host=\"h\",report=\"load\"}")));
  std::size_t series = 0;
  for (std::size_t at = text.find("\nqxrelay_report_"); at != std::string::npos;
       at = text.find("\nqxrelay_report_", at + 1)) {
    ++series;
  }
  EXPECT_LE(series, 10U);
  EXPECT_THAT(text, Not(HasSubstr("qxrelay_series_left_out 0\n")));
  flow_.reports[0].report = "\xFF";
  EXPECT_THAT(Text(), HasSubstr("qxrelay_report_records_total{host=\"h\",report=\"load\"}"));
}

#ifdef QX_PROMTOOL
TEST_F(RelayMetrics, PromtoolAcceptsTheText) {
  rules_.reports = {"*"};
  flow_.reports[1].overtaken_in_s = 0.5;
  flow_.reports[1].records_per_second = 1e-7;
  qx::test::WriteFile(dir_.File("metrics"), Text());
  const std::string command =
      std::string(QX_PROMTOOL) + " check metrics <" + dir_.File("metrics") + " >" + dir_.File("findings") + " 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0) << qx::test::ReadFile(dir_.File("findings")) << Text();
}
#endif

TEST(RelayLoopback, OnlyLoopbackAddressesWithAPortAreAccepted) {
  for (const char* good : {"127.0.0.1:9464", "127.1.2.3:0", "[::1]:65535"}) {
    EXPECT_TRUE(LoopbackAddressOf(good).has_value()) << good;
  }
  for (const char* bad : {"", ":9464", "127.0.0.1", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1", "127.0.0.1:9464x",
                          "0.0.0.0:9464", "10.0.0.1:9464", "128.0.0.1:9464", "[::]:9464", "::1:9464", "localhost:9464",
                          "127.0.0.1 :9464", "[::ffff:127.0.0.1]:9464"}) {
    EXPECT_FALSE(LoopbackAddressOf(bad).has_value()) << bad;
  }
}

class RelayHttp : public testing::Test {
 protected:
  RelayHttp() : server_([this](std::string_view path) { return Answer(path); }) {
    EXPECT_EQ(server_.Start(*LoopbackAddressOf("127.0.0.1:0")), std::nullopt);
    EXPECT_NE(server_.Port(), 0);
  }

  HttpAnswer Answer(std::string_view path) {
    ++answers_;
    return {.status = 200, .text = std::make_shared<const std::string>("path " + std::string(path))};
  }

  std::atomic<int> answers_ = 0;
  HttpServer server_;
};

TEST_F(RelayHttp, GetAndHeadAreAnsweredAndNothingElse) {
  const HttpReply reply = HttpGet(server_.Port(), "/a?b=c");
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "path /a");
  EXPECT_THAT(reply.head, HasSubstr("Content-Type: text/plain; charset=utf-8"));
  EXPECT_EQ(HttpGet(server_.Port(), "/a", "HEAD").body, "");
  EXPECT_EQ(answers_, 2);
  const HttpReply post = HttpGet(server_.Port(), "/a", "DELETE");
  EXPECT_EQ(post.status, 405);
  EXPECT_THAT(post.head, HasSubstr("Allow: GET, HEAD"));
  EXPECT_EQ(HttpGet(server_.Port(), "/" + std::string(100'000, 'x')).status, 414) << "more than a connection may have";
  EXPECT_GE(HttpGet(server_.Port(), "/a HTTP/1.0\r\nX: " + std::string(100'000, 'x')).status, 400);
  EXPECT_EQ(answers_, 2);
}

TEST_F(RelayHttp, SilentConnectionsDoNotKeepOthersOutForLong) {
  std::vector<int> silent;
  for (unsigned i = 0; i < HttpServer::kConnectionsMax / 2; ++i) silent.push_back(qx::test::ConnectTo(server_.Port()));
  EXPECT_EQ(HttpGet(server_.Port(), "/").status, 200);
  for (const int connection : silent) close(connection);
}

TEST(RelayMetricsService, ShowsMetricsAndHealth) {
  std::int64_t now = 1'800'000'000'000;
  std::string log;
  MetricsSettings settings;
  settings.listen = "[::1]:0";
  settings.series_max = 10;
  MetricsService none(
      MetricsSettings(), {}, [&] { return now; }, [&](const std::string& line) { log += line; });
  none.Show({});
  EXPECT_EQ(log, "");
  MetricsService service(
      settings, {}, [&] { return now; }, [&](const std::string& line) { log += line; });
  ServiceFlow flow;
  flow.name = "h";
  flow.time_ms = now;
  service.Show(flow);
  ASSERT_THAT(log, testing::StartsWith("metrics are on port "));
  const auto port = static_cast<std::uint16_t>(std::stoi(log.substr(20)));
  EXPECT_EQ(HttpGet(port, "/other").status, 404);
  EXPECT_EQ(HttpGet(port, "/healthz").body, "not connected to the servers\n");
  flow.is_connected = true;
  service.Show(flow);
  EXPECT_EQ(HttpGet(port, "/healthz").body, "ok\n");
  EXPECT_EQ(HttpGet(port, "/healthz").status, 200);
  now += FlowPublisher::kFreshMs + 5000;
  EXPECT_EQ(HttpGet(port, "/healthz").body, "the service has hung for 35 s\n");
  flow.time_ms = now;
  flow.problem = "why";
  service.Show(flow);
  EXPECT_EQ(HttpGet(port, "/healthz").status, 503);
  EXPECT_EQ(HttpGet(port, "/healthz").body, "why\n");
  const HttpReply metrics = HttpGet(port, "/metrics");
  EXPECT_THAT(metrics.head, HasSubstr("Content-Type: text/plain; version=0.0.4"));
  EXPECT_THAT(metrics.body, HasSubstr("\nqxrelay_in_trouble 1\n"));
  EXPECT_EQ(metrics.body, HttpGet(port, "/metrics").body);
  flow.problem.clear();
  service.Show(flow);
  EXPECT_THAT(HttpGet(port, "/metrics").body, HasSubstr("\nqxrelay_in_trouble 0\n"));

  // If another program uses the port, the log gets one line, and the service tries again.
  log.clear();
  settings.listen = "[::1]:" + std::to_string(port);
  MetricsService second(
      settings, {}, [&] { return now; }, [&](const std::string& line) { log += line + "\n"; });
  for (int i = 0; i < 3; ++i, now += MetricsService::kRetryMs) second.Show(flow);
  EXPECT_EQ(log, "there are no metrics: cannot listen: Address already in use\n");
}

}  // namespace
