// Tests "qxrelay status" with a real sender and a real server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/HttpGet.h"
#include "tests/qxrelay/NatsServer.h"
#include "tests/qxrelay/QxrelayProcess.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace {

using qx::test::HttpGet;
using qx::test::NatsServer;
using qx::test::QxrelayProcess;
using qx::test::Until;
using testing::HasSubstr;

class RelayStatusProcess : public testing::Test {
 protected:
  RelayStatusProcess() {
    std::filesystem::create_directory(dir_.File("reports"));
    Configure();
    settings_.servers = {server_.Url()};
    settings_.replicas = 1;
    settings_.bytes = 64 * 1024 * 1024;
  }

  // A message whose acknowledgement comes after the timeout does not count as sent. So the timeout is long, except in a
  // test without acknowledgements.
  void Configure(const std::string& more = {}, const std::string& timeout = "1 min") {
    qx::test::WriteFile(Config(), "[stream]\nservers=" + server_.Url() +
                                      "\nreplicas=1\nbytes=64 MiB\n[host]\nname=h\n[send]\nreports=" +
                                      dir_.File("reports") + "\nstate=" + dir_.File("state") +
                                      "\nspread=0 s\nlinger=5 ms\npoll=2 ms\npoll_idle=10 ms\ntimeout=" + timeout +
                                      "\n[receive]\nroot=" + dir_.File("collected") + "\nsync=10 ms\n" + more);
  }

  [[nodiscard]] std::string Config() const { return dir_.File("relay.ini"); }

  void Append(int count) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(dir_.File("reports/load").c_str(), 1000));
    for (int i = 0; i < count; ++i) ASSERT_TRUE(store.writeLine("09:00 cpu=12%"));
  }

  // Runs the command and returns its exit code; its output is in text_.
  int Status(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"status", "--config", Config()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    std::filesystem::remove(dir_.File("status.txt"));
    const int code = QxrelayProcess(arguments, dir_.File("status.txt")).Wait();
    text_ = qx::test::ReadFile(dir_.File("status.txt"));
    return code;
  }

  // Waits until the document has all these parts and the command returns this code.
  bool WaitUntilStatusHas(const std::vector<std::string>& parts, int code) {
    return Until([&] {
      return Status({"--json"}) == code && std::all_of(parts.begin(), parts.end(), [&](const std::string& part) {
               return text_.find(part) != std::string::npos;
             });
    });
  }

  // Checks the document against docs/schemas/. Returns 0 if it has no faults.
  int Faults() {
    qx::test::WriteFile(dir_.File("transcript"), "$ qxrelay status --json\n" + text_);
    const std::string source = QX_SOURCE_DIR;
    const std::string command =
        "python3 " + source + "/tests/docs/check_documents.py " + source + "/docs/schemas <" + dir_.File("transcript");
    return std::system(command.c_str());
  }

  qx::test::TempDir dir_;
  NatsServer server_;
  qx::relay::StreamSettings settings_;
  std::string text_;
};

TEST_F(RelayStatusProcess, ShowsTheSenderAsItRuns) {
  EXPECT_EQ(Status(), 4);
  EXPECT_THAT(text_, HasSubstr("nothing has run with these settings"));
  EXPECT_EQ(Status({"--json"}), 4);
  EXPECT_EQ(Faults(), 0) << "a failure is a document, too: " << text_;
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(7);
  QxrelayProcess sender({"send", "--config", Config()}, dir_.File("log"));
  EXPECT_TRUE(WaitUntilStatusHas({"\"records\": 7,", "\"lagRecords\": 0,"}, 0)) << text_;
  EXPECT_EQ(Faults(), 0) << text_;
  EXPECT_EQ(Status(), 0);
  EXPECT_THAT(text_,
              testing::MatchesRegex("sender h: connected, running for .* s, 1 report\n"
                                    "host  report  lag  oldest  ring lasts +rate  records  lost  holes  repeats\n"
                                    "h     load      0     0 s .* 7     0      0        0\n"));
}

// An acknowledgement may come after the timeout. Then only the lag shows that the stream has the records.
TEST_F(RelayStatusProcess, ShowsRecordsThatAreNotAcknowledgedAndAStoppedSender) {
  Configure({}, "1 s");
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(7);
  QxrelayProcess sender({"send", "--config", Config()}, dir_.File("log"));
  ASSERT_TRUE(WaitUntilStatusHas({"\"lagRecords\": 0,"}, 0)) << text_;
  server_.Pause();
  Append(5);
  EXPECT_TRUE(WaitUntilStatusHas({"\"trouble\": \"the servers do not acknowledge", "\"lagRecords\": 5,"}, 1)) << text_;
  (void)sender.End(SIGKILL);
  server_.Continue();
  std::filesystem::remove(dir_.File("state/status"));
  EXPECT_EQ(Status(), 1);
  EXPECT_THAT(text_, testing::StartsWith("sender h: not connected, 1 report\nthe sender is not running\n"));
  EXPECT_EQ(Status({"--report", "other*"}), 1);
  EXPECT_THAT(text_, testing::Not(HasSubstr("load")));
}

// Reads the port after "metrics are on port " from the log; 0 if it does not come.
std::uint16_t MetricsPort(const std::string& log) {
  const std::string mark = "metrics are on port ";
  std::uint16_t port = 0;
  (void)Until([&] {
    const std::string text = qx::test::Exists(log) ? qx::test::ReadFile(log) : "";
    const std::size_t at = text.find(mark);
    if (at != std::string::npos) port = static_cast<std::uint16_t>(std::atoi(text.c_str() + at + mark.size()));
    return port != 0;
  });
  return port;
}

TEST_F(RelayStatusProcess, ShowsTheReceiverAsItRunsAndWhatWaitsForIt) {
  Configure("[metrics]\nlisten=127.0.0.1:0\nreports=load\n");
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(7);
  QxrelayProcess sender({"send", "--config", Config()}, dir_.File("log"));
  QxrelayProcess receiver({"receive", "--name", "c1", "--config", Config()}, dir_.File("log2"));
  const auto shows_records = [&](const std::string& number) {
    const std::size_t at = text_.find("\"records\": " + number + ",", text_.find("\"reports\": ["));
    return at != std::string::npos && text_.find("\"records\": " + number + ",", at + 1) != std::string::npos;
  };
  EXPECT_TRUE(Until([&] { return Status({"--json"}) == 0 && shows_records("7"); })) << text_;
  EXPECT_THAT(text_, HasSubstr("\"service\": \"receiver\",\n      \"name\": \"c1\""));
  EXPECT_EQ(Faults(), 0) << text_;
  EXPECT_THAT(HttpGet(MetricsPort(dir_.File("log2")), "/metrics").body,
              HasSubstr("qxrelay_report_field{host=\"h\",report=\"load\",field=\"cpu\"} 12\n"));
  EXPECT_EQ(receiver.End(SIGTERM), 0);
  Append(1);  // more records may be sent in several messages
  EXPECT_TRUE(Until([&] {
    return Status() == 1 && text_.find("messages that wait for it in the stream: 1\n") != std::string::npos;
  })) << text_;
  EXPECT_THAT(text_, HasSubstr("receiver c1: not connected, 1 report\nthe receiver is not running; "));
  EXPECT_EQ(Status({"--offline", "--host", "h"}), 1);
  EXPECT_THAT(text_, HasSubstr("the receiver is not running\n"));
}

#ifdef QX_PROMETHEUS
// Prometheus as a child process, which dies with the test. Its output goes to a file.
class Prometheus {
 public:
  Prometheus(const std::string& directory, std::uint16_t port) : log_(directory + "/prometheus.log") {
    qx::test::WriteFile(
        directory + "/prometheus.yml",
        "global: {scrape_interval: 100ms, scrape_timeout: 100ms}\nscrape_configs:\n- job_name: qxrelay\n"
        "  static_configs: [{targets: [\"127.0.0.1:" +
            std::to_string(port) + "\"]}]\n");
    process_ = fork();
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int file = open(log_.c_str(), O_WRONLY | O_CREAT, 0644);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    execl(QX_PROMETHEUS, QX_PROMETHEUS, ("--config.file=" + directory + "/prometheus.yml").c_str(),
          ("--storage.tsdb.path=" + directory + "/prometheus").c_str(), "--web.listen-address=127.0.0.1:0", nullptr);
    _exit(127);
  }
  ~Prometheus() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  Prometheus(const Prometheus&) = delete;
  Prometheus& operator=(const Prometheus&) = delete;

  [[nodiscard]] std::string Log() const { return qx::test::Exists(log_) ? qx::test::ReadFile(log_) : ""; }

  // The port; 0 if it does not listen yet.
  [[nodiscard]] std::uint16_t Port() const {
    const std::string log = Log();
    const std::string mark = "msg=\"Listening on\" address=127.0.0.1:";
    const std::size_t at = log.find(mark);
    return at != std::string::npos ? static_cast<std::uint16_t>(std::atoi(log.c_str() + at + mark.size())) : 0;
  }

  // The document with the answer to a query.
  [[nodiscard]] std::string Ask(const std::string& query) const {
    return qx::test::HttpGet(Port(), "/api/v1/query?query=" + query).body;
  }

 private:
  std::string log_;
  pid_t process_ = 0;
};

TEST_F(RelayStatusProcess, APrometheusScrapesTheSender) {
  Configure("[metrics]\nlisten=127.0.0.1:0\nreports=lo*\n");
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(7);
  QxrelayProcess sender({"send", "--config", Config()}, dir_.File("log"));
  const std::uint16_t port = MetricsPort(dir_.File("log"));
  ASSERT_NE(port, 0);
  EXPECT_TRUE(Until([&] { return HttpGet(port, "/healthz").body == "ok\n"; }));
  const Prometheus prometheus(dir_.Path(), port);
  ASSERT_TRUE(Until([&] { return prometheus.Port() != 0; })) << prometheus.Log();
  EXPECT_TRUE(Until([&] {
    return prometheus.Ask("qxrelay_report_records_total").find(",\"7\"]") != std::string::npos;
  })) << prometheus.Log();
  EXPECT_THAT(prometheus.Ask("qxrelay_report_records_total"), HasSubstr("\"host\":\"h\""));
  EXPECT_THAT(prometheus.Ask("qxrelay_report_field"), HasSubstr("\"field\":\"cpu\""));
  EXPECT_THAT(prometheus.Ask("up"), HasSubstr(",\"1\"]"));
  EXPECT_EQ(sender.End(SIGTERM), 0);
}
#endif

}  // namespace
