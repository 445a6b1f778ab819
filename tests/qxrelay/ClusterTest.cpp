// Tests a sender with a cluster of three servers that loses the leader of the stream.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/NatsCluster.h"
#include "tests/qxrelay/QxrelayProcess.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace {

using qx::relay::StreamSettings;
using qx::relay::StreamState;
using qx::test::QxrelayProcess;
using qx::test::Until;

void Append(const std::string& path, int count) {
  CReportFileBase store;
  ASSERT_TRUE(store.Open(path.c_str(), 1000));
  for (int i = 0; i < count; ++i) ASSERT_TRUE(store.writeLine("x"));
}

TEST(RelayCluster, TheSenderContinuesAfterTheLeaderOfTheStreamIsKilled) {
  qx::test::NatsCluster cluster;
  const qx::test::TempDir dir;
  StreamSettings settings;
  settings.servers = cluster.Urls();
  settings.bytes = 16 * 1024 * 1024;
  ASSERT_TRUE(Until([&] { return !CreateStream(settings).has_value(); })) << cluster.Log();
  std::filesystem::create_directory(dir.File("reports"));
  std::string servers;
  for (const std::string& url : cluster.Urls()) servers += (servers.empty() ? "" : ", ") + url;
  const std::string relay = dir.File("relay.ini");
  qx::test::WriteFile(relay, "[stream]\nservers=" + servers + "\n[host]\nname=h\n[send]\nreports=" +
                                 dir.File("reports") + "\nstate=" + dir.File("state") +
                                 "\nspread=0 s\nlinger=5 ms\npoll=2 ms\npoll_idle=10 ms\ntimeout=1 s\n");
  Append(dir.File("reports/load"), 5);
  QxrelayProcess sender({"send", "--config", relay}, dir.File("log"));
  StreamState state;
  const auto has_messages = [&](std::uint64_t count) {
    return Until([&] { return !ReadStream(settings, state).has_value() && state.messages >= count; });
  };
  ASSERT_TRUE(has_messages(2)) << qx::test::ReadFile(dir.File("log"));
  EXPECT_EQ(QxrelayProcess({"stream", "show", "--wait", "60", "--config", relay}, dir.File("whole")).Wait(), 0);
  EXPECT_NE(qx::test::ReadFile(dir.File("whole")).find("whole copies  3 of 3\n"), std::string::npos);
  ASSERT_TRUE(cluster.Kill(state.leader)) << state.leader;
  Append(dir.File("reports/load"), 5);
  EXPECT_TRUE(has_messages(3)) << qx::test::ReadFile(dir.File("log"));
  EXPECT_EQ(QxrelayProcess({"stream", "show", "--config", relay}, dir.File("lost")).Wait(), 1);
  EXPECT_NE(qx::test::ReadFile(dir.File("lost")).find("only 2 of 3 copies of the stream QX have all messages"),
            std::string::npos)
      << qx::test::ReadFile(dir.File("lost"));
  EXPECT_EQ(sender.End(SIGTERM), 0);
  EXPECT_NE(qx::test::ReadFile(dir.File("state/positions")).find("\nnext 10\n"), std::string::npos);
}

}  // namespace
