// "qxrelay status" with a sender and a server that are real.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/NatsServer.h"
#include "tests/qxrelay/QxrelayProcess.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace {

using qx::test::NatsServer;
using qx::test::QxrelayProcess;
using qx::test::Until;
using testing::HasSubstr;

class RelayStatusProcess : public testing::Test {
 protected:
  RelayStatusProcess() {
    std::filesystem::create_directory(dir_.File("reports"));
    qx::test::WriteFile(Config(), "[stream]\nservers=" + server_.Url() +
                                      "\nreplicas=1\nbytes=64 MiB\n[host]\nname=h\n[send]\nreports=" +
                                      dir_.File("reports") + "\nstate=" + dir_.File("state") +
                                      "\nspread=0 s\nlinger=5 ms\npoll=2 ms\npoll_idle=10 ms\ntimeout=1 s\n");
    settings_.servers = {server_.Url()};
    settings_.replicas = 1;
    settings_.bytes = 64 * 1024 * 1024;
  }

  [[nodiscard]] std::string Config() const { return dir_.File("relay.ini"); }

  void Append(int count) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(dir_.File("reports/load").c_str(), 1000));
    for (int i = 0; i < count; ++i) ASSERT_TRUE(store.writeLine("x"));
  }

  // The exit code; the output is in text_.
  int Status(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"status", "--config", Config()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    std::filesystem::remove(dir_.File("status.txt"));
    const int code = QxrelayProcess(arguments, dir_.File("status.txt")).Wait();
    text_ = qx::test::ReadFile(dir_.File("status.txt"));
    return code;
  }

  // What is wrong with the document, according to docs/schemas/.
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

TEST_F(RelayStatusProcess, ShowsTheSenderAsItRunsAndAsItLeftTheReports) {
  EXPECT_EQ(Status(), 4);
  EXPECT_THAT(text_, HasSubstr("no sender has run with these settings"));
  EXPECT_EQ(Status({"--json"}), 4);
  EXPECT_EQ(Faults(), 0) << "a failure is a document, too: " << text_;
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(7);
  QxrelayProcess sender({"send", "--config", Config()}, dir_.File("log"));
  EXPECT_TRUE(Until([&] { return Status({"--json"}) == 0 && text_.find("\"records\": 7,") != std::string::npos; }))
      << text_;
  EXPECT_THAT(text_, HasSubstr("\"lagRecords\": 0,"));
  EXPECT_EQ(Faults(), 0) << text_;
  EXPECT_EQ(Status(), 0);
  EXPECT_THAT(text_,
              testing::MatchesRegex("sender h: connected, running for .* s, 1 report\n"
                                    "host  report  lag  oldest  ring lasts +rate  records  lost  holes  repeats\n"
                                    "h     load      0     0 s .* 7     0      0        0\n"));
  server_.Pause();
  Append(5);
  EXPECT_TRUE(Until([&] { return Status({"--json"}) == 1; })) << "the servers do not answer";
  EXPECT_THAT(text_, HasSubstr("\"lagRecords\": 5,"));
  EXPECT_THAT(text_, HasSubstr("\"trouble\": \"the servers do not acknowledge"));
  (void)sender.End(SIGKILL);
  server_.Continue();
  std::filesystem::remove(dir_.File("state/status"));
  EXPECT_EQ(Status(), 1);
  EXPECT_THAT(text_, testing::StartsWith("sender h: not connected, 1 report\nthe sender is not running\n"));
  EXPECT_EQ(Status({"--report", "other*"}), 1);
  EXPECT_THAT(text_, testing::Not(HasSubstr("load")));
}

}  // namespace
