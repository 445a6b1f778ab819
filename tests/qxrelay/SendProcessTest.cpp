// Tests "qxrelay send" as a process with a real server: kills, stops, refusals, reloads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "tests/qxrelay/FakeStream.h"
#include "tests/qxrelay/NatsServer.h"
#include "tests/qxrelay/QxrelayProcess.h"
#include "tools/qxrelay/stream/NatsAdmin.h"
#include "tools/qxrelay/stream/NatsConsume.h"
#include "tools/qxrelay/stream/NatsPublish.h"

namespace {

using qx::relay::StreamMessage;
using qx::relay::StreamSettings;
using qx::test::NatsServer;
using qx::test::ReceivedReport;
using qx::test::Until;
using Process = qx::test::QxrelayProcess;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using Words = std::vector<std::string>;

class RelaySendProcess : public testing::Test {
 protected:
  explicit RelaySendProcess(const std::string& server_config = {}) : server_(server_config) {
    std::filesystem::create_directory(dir_.File("reports"));
    settings_.servers = {server_.Url()};
    settings_.replicas = 1;
    settings_.bytes = 64 * 1024 * 1024;
  }

  void Configure(const std::string& stream_lines = {}, const std::string& send_lines = {}) {
    qx::test::WriteFile(
        Config(), "[stream]\nservers=" + server_.Url() + "\nreplicas=1\nbytes=64 MiB\n" + stream_lines +
                      "[host]\nname=h\n[send]\nreports=" + dir_.File("reports") + "\nstate=" + dir_.File("state") +
                      "\nspread=0 s\nlinger=5 ms\npoll=2 ms\npoll_idle=10 ms\ntimeout=1 s\nrescan=50 ms\n" +
                      send_lines);
  }
  [[nodiscard]] std::string Config() const { return dir_.File("relay.ini"); }

  void Begin(const Words& more = {}, const Words& environment = {}) {
    Words arguments = {"send", "--config", Config()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    sender_ = std::make_unique<Process>(arguments, dir_.File("log"), environment);
  }

  void Append(std::uint64_t count, const std::string& report = "load") {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(dir_.File("reports/" + report).c_str(), 1000));
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::string text = "record " + std::to_string(written_.size());
      ASSERT_TRUE(store.writeLine(text.c_str()));
      written_.push_back(text + "\r\n");
    }
  }

  [[nodiscard]] std::string Log() const {
    return qx::test::Exists(dir_.File("log")) ? qx::test::ReadFile(dir_.File("log")) : "";
  }

  // The report that a collector gets from all messages of the stream.
  ReceivedReport Received(const std::string& report = "load") {
    ReceivedReport received;
    qx::relay::NatsConsume consumer(settings_);
    EXPECT_EQ(consumer.Connect("c" + std::to_string(++consumers_), 10000, milliseconds(30000)), std::nullopt);
    std::vector<StreamMessage> messages;
    for (std::size_t before = 1; before != messages.size();) {
      before = messages.size();
      EXPECT_EQ(consumer.Fetch({.messages = 100}, milliseconds(100), messages), std::nullopt);
    }
    for (const StreamMessage& stored : messages) {
      if (stored.subject != "qx.report.h." + report) continue;
      const auto message = qx::relay::DecodeMessage(stored.payload);
      EXPECT_EQ(message.fault, qx::relay::MessageFault::kNone);
      received.Take(message.head, message.texts);
    }
    return received;
  }

  [[nodiscard]] bool HasArrived() {
    qx::relay::StreamState state;
    if (ReadStream(settings_, state).has_value()) return false;
    if (state.last_sequence == last_seen_) return false;
    last_seen_ = state.last_sequence;
    return Received().next >= written_.size();
  }

  void ExpectAll() {
    EXPECT_TRUE(Until([&] { return HasArrived(); })) << Log();
    const ReceivedReport report = Received();
    EXPECT_EQ(report.records, written_) << Log();
    EXPECT_EQ(report.gap + report.holes, 0U);
    EXPECT_EQ(report.incarnations.size(), 1U);
    last_seen_ = 0;
  }

  qx::test::TempDir dir_;
  NatsServer server_;
  StreamSettings settings_;
  std::unique_ptr<Process> sender_;
  Words written_;
  int consumers_ = 0;
  std::uint64_t last_seen_ = 0;
};

TEST_F(RelaySendProcess, RecordsReachTheStreamAndASigtermEndsInOrder) {
  Configure();
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(3);
  Begin();
  ExpectAll();
  Append(4);
  ExpectAll();
  const auto begin = steady_clock::now();
  EXPECT_EQ(sender_->End(SIGTERM), 0);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
  EXPECT_THAT(Log(), HasSubstr("1 reports, 7 records sent, 0 lost"));
  EXPECT_THAT(qx::test::ReadFile(dir_.File("state/positions")), HasSubstr("\nnext 7\n"));
}

TEST_F(RelaySendProcess, KilledSendersAndServersLoseAndRepeatNothing) {
  Configure();
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(5);
  Begin();
  ExpectAll();
  for (int i = 0; i < 6; ++i) {
    Append(20);
    if (i % 3 == 0) (void)sender_->End(SIGKILL);
    if (i % 3 == 1) server_.Restart();
    if (i % 3 == 2) {
      sender_->Signal(SIGSTOP);
      server_.Pause();
      std::this_thread::sleep_for(milliseconds(20));
      server_.Continue();
      sender_->Signal(SIGCONT);
    }
    Append(20);
    if (i % 3 == 0) Begin();
    ExpectAll();
  }
}

TEST_F(RelaySendProcess, AStreamThatIsCreatedLaterOrLostGetsWhatTheRingHas) {
  Configure();
  Append(5);
  Begin();
  EXPECT_TRUE(Until([&] { return Log().find("connected") != std::string::npos; })) << Log();
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  ExpectAll();
  server_.Kill();
  server_.EraseStore();  // the messages that no server had synced before the power failed
  server_.Restart();
  Append(3);
  EXPECT_TRUE(Until([&] { return Log().find("the connection is lost") != std::string::npos; })) << Log();
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  ExpectAll();
}

TEST_F(RelaySendProcess, APurgedStreamGetsTheRecordsAgain) {
  Configure();
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(5);
  Begin();
  ExpectAll();
  ASSERT_EQ(PurgeHost(settings_, "h"), std::nullopt);
  Append(5);
  ExpectAll();
}

// A stream that an operator has made with "discard new" refuses messages when it is full.
TEST_F(RelaySendProcess, AFullStreamIsReportedAndContinuesWhenThereIsSpace) {
  Configure();
  qx::relay::NatsPublish raw(settings_, "h");
  ASSERT_EQ(raw.Connect(), std::nullopt);
  const auto set_limit = [&](const std::string& request, const std::string& messages) {
    const std::string json =
        R"({"name":"QX","subjects":["qx.>"],"storage":"file","num_replicas":1,"retention":"limits",)"
        R"("discard":"new","allow_direct":true,"max_msgs":)" +
        messages + "}";
    EXPECT_TRUE(raw.Publish(1, "$JS.API.STREAM." + request + ".QX", json, std::nullopt));
    qx::relay::StreamState state;
    EXPECT_TRUE(Until([&] { return !ReadStream(settings_, state).has_value(); }));
  };
  set_limit("CREATE", "2");
  Append(5);
  Begin();
  EXPECT_TRUE(Until([&] { return Received().next == 5; })) << Log();
  Append(1);
  EXPECT_TRUE(Until([&] { return Log().find("refuses a message: maximum messages exceeded") != std::string::npos; }))
      << Log();
  Append(5);
  set_limit("UPDATE", "1000");
  ExpectAll();
}

TEST_F(RelaySendProcess, ASighupReadsTheSettingsAgainAndKeepsTheOldIfTheyAreWrong) {
  Configure({}, "include=load\n");
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(3);
  Begin();
  ExpectAll();
  Configure({}, "include=lo*\nlinger=x\n");
  sender_->Signal(SIGHUP);
  EXPECT_TRUE(Until([&] { return Log().find("the settings in force stay as they are") != std::string::npos; }))
      << Log();
  Append(2);
  ExpectAll();
  Configure({}, "include=load, other\n");
  sender_->Signal(SIGHUP);
  EXPECT_TRUE(Until([&] { return Log().find("the settings were read again") != std::string::npos; })) << Log();
  const Words load = written_;
  Append(1, "other");
  EXPECT_TRUE(Until([&] { return Received("other").records.size() == 1; })) << Log();
  EXPECT_EQ(Received().records, load);
}

TEST_F(RelaySendProcess, ASecondSenderWithTheSameStateIsRefused) {
  Configure();
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(1);
  Begin();
  ExpectAll();
  Process second({"send", "--config", Config()}, dir_.File("log2"));
  EXPECT_EQ(second.Wait(), 5);
  EXPECT_EQ(qx::test::ReadFile(dir_.File("log2")), "qxrelay: another sender uses " + dir_.File("state") + "\n");
}

// The user may subscribe to its inbox, but may not publish.
class RelayRefusedProcess : public RelaySendProcess {
 protected:
  RelayRefusedProcess()
      : RelaySendProcess(
            "authorization { users = [ {user: \"h\", password: \"secret\", permissions: "
            "{publish: [\"none\"], subscribe: [\"_INBOX_h.>\"]}} ] }\n") {}
};

TEST_F(RelayRefusedProcess, WrongCredentialsAndMissingRightsAreReportedOnce) {
  const std::string password = dir_.File("password");
  qx::test::WriteFile(password, "wrong\n");
  Configure("user=h\npassword_file=" + password + "\n");
  Append(3);
  Begin();
  EXPECT_TRUE(Until([&] { return Log().find("the servers refuse the credentials: check user") != std::string::npos; }));
  std::this_thread::sleep_for(milliseconds(300));
  const std::string once = Log();
  EXPECT_EQ(once.find("refuse the credentials"), once.rfind("refuse the credentials")) << once;
  qx::test::WriteFile(password, "secret\n");
  EXPECT_TRUE(Until([&] { return Log().find("Permissions Violation for Publish to") != std::string::npos; })) << Log();
  EXPECT_EQ(sender_->End(SIGTERM), 0);
}

// A clone of the machine also has a clone of the state directory.
TEST_F(RelaySendProcess, OfTwoClonesTheEarlierOneStopsWithinSeconds) {
  Configure();
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  Append(3);
  Begin();
  ExpectAll();
  std::filesystem::copy(dir_.File("state"), dir_.File("clone"));
  std::filesystem::remove(dir_.File("clone/lock"));
  const std::string text = qx::test::ReadFile(Config());
  const std::size_t at = text.find(dir_.File("state"));
  qx::test::WriteFile(dir_.File("clone.ini"),
                      std::string(text).replace(at, dir_.File("state").size(), dir_.File("clone")));
  Process clone({"send", "--config", dir_.File("clone.ini")}, dir_.File("log2"));
  Append(1);
  EXPECT_TRUE(Until([&] { return Log().find("was started later") != std::string::npos; }))
      << Log() << qx::test::ReadFile(dir_.File("log2"));
  EXPECT_EQ(sender_->Wait(), 5);
  ExpectAll();
}

TEST_F(RelaySendProcess, TheServiceManagerIsInformed) {
  const int listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = dir_.File("notify");
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  Configure();
  Begin({}, {"NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=60000"});
  std::string said;
  EXPECT_TRUE(Until([&] {
    char bytes[512];
    const ssize_t size = recv(listener, bytes, sizeof bytes, MSG_DONTWAIT);
    if (size > 0) said += std::string(bytes, static_cast<std::size_t>(size)) + "\n";
    return said.find("READY=1") != std::string::npos && said.find("WATCHDOG=1\nWATCHDOG=1") != std::string::npos;
  })) << said;
  EXPECT_EQ(sender_->End(SIGTERM), 0);
  char bytes[512];
  for (ssize_t size = 1; size > 0; size = recv(listener, bytes, sizeof bytes, MSG_DONTWAIT)) {
    said += std::string(bytes, static_cast<std::size_t>(size));
  }
  EXPECT_THAT(said, HasSubstr("STOPPING=1"));
  close(listener);
}

// The rights of a host are enough for its sender, and allow nothing on the subjects of another host.
TEST(RelayRights, AHostMaySendItsOwnReportsAndNothingElse) {
  const qx::test::TempDir dir;
  const std::string users = dir.File("users.conf");
  const std::string config = dir.File("relay.ini");
  qx::test::WriteFile(config, "");
  const auto run = [&](Words arguments) {
    arguments.insert(arguments.end(), {"--users", users, "--config", config});
    Process process(arguments, dir.File("log"));
    return process.Wait();
  };
  ASSERT_EQ(run({"host", "add", "h", "--password-file", dir.File("h")}), 0) << qx::test::ReadFile(dir.File("log"));
  ASSERT_EQ(run({"host", "add", "op", "--role", "operator", "--password-file", dir.File("op")}), 0);
  ASSERT_EQ(run({"host", "add", "c", "--role", "collector", "--password-file", dir.File("c")}), 0);
  EXPECT_EQ(run({"host", "add", "h", "--password-file", dir.File("h2")}), 5);
  EXPECT_EQ(run({"host", "retire", "none"}), 4);
  NatsServer server("authorization {\n" + qx::test::ReadFile(users) + "}\n");

  StreamSettings settings;
  settings.servers = {server.Url()};
  settings.replicas = 1;
  settings.bytes = 16 * 1024 * 1024;
  settings.user = "op";
  settings.password_file = dir.File("op");
  ASSERT_EQ(CreateStream(settings), std::nullopt);
  const std::string common = "[stream]\nservers=" + server.Url() + "\nuser=h\npassword_file=" + dir.File("h") +
                             "\n[host]\nname=h\n[send]\nreports=" + dir.Path() + "\nstate=" + dir.File("state") + "\n";
  qx::test::WriteFile(config, common);
  EXPECT_EQ(Process({"check", "--config", config}, dir.File("check")).Wait(), 0)
      << qx::test::ReadFile(dir.File("check"));
  std::string other = common;
  other.replace(other.find("name=h"), 6, "name=x");
  qx::test::WriteFile(config, other);
  EXPECT_EQ(Process({"check", "--config", config}, dir.File("check2")).Wait(), 1);
  EXPECT_THAT(qx::test::ReadFile(dir.File("check2")), HasSubstr("Permissions Violation"));

  settings.user = "c";
  settings.password_file = dir.File("c");
  qx::relay::NatsConsume collector(settings);
  EXPECT_EQ(collector.Connect("c", 100, milliseconds(1000)), std::nullopt);

  settings.user = "h";
  settings.password_file = dir.File("h");
  qx::relay::NatsPublish host(settings, "h");
  ASSERT_EQ(host.Connect(), std::nullopt);
  std::uint64_t token = 0;
  for (const std::string subject :
       {"qx.report.x.load", "qx.report.h", "qx.other", "$JS.API.STREAM.DELETE.QX", "$JS.API.STREAM.MSG.GET.QX",
        "$JS.API.STREAM.PURGE.QX", "$JS.API.DIRECT.GET.QX.qx.report.x.load", "$JS.ACK.QX.c.1.1.1.1.1"}) {
    EXPECT_TRUE(host.Publish(++token, subject, "", std::nullopt));
    std::vector<qx::relay::StreamReply> replies;
    EXPECT_TRUE(Until([&] {
      host.TakeReplies(replies);
      return !replies.empty();
    })) << subject;
    ASSERT_FALSE(replies.empty());
    EXPECT_THAT(replies.front().text, HasSubstr("Permissions Violation")) << subject;
  }
}

}  // namespace
