// Tests "qxrelay receive" as a process, with a real server and a real sender.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/qxrelay/Collector.h"
#include "tests/qxrelay/NatsServer.h"
#include "tests/qxrelay/QxrelayProcess.h"
#include "tools/qxrelay/message/Message.h"
#include "tools/qxrelay/stream/NatsAdmin.h"
#include "tools/qxrelay/stream/NatsConsume.h"
#include "tools/qxrelay/stream/NatsPublish.h"

namespace {

using qx::test::NatsServer;
using qx::test::QxrelayProcess;
using qx::test::RecordsAt;
using qx::test::Until;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using Lines = std::vector<std::string>;

class RelayReceiveProcess : public testing::Test {
 protected:
  RelayReceiveProcess() {
    std::filesystem::create_directory(dir_.File("reports"));
    settings_.servers = {server_.Url()};
    settings_.replicas = 1;
    settings_.bytes = 64 * 1024 * 1024;
    Configure();
    EXPECT_EQ(CreateStream(settings_), std::nullopt);
  }

  void Configure(const std::string& receive_lines = {}, const std::string& root = "root") {
    qx::test::WriteFile(Config(), "[stream]\nservers=" + server_.Url() +
                                      "\nreplicas=1\nbytes=64 MiB\n[host]\nname=h\n[send]\nreports=" +
                                      dir_.File("reports") + "\nstate=" + dir_.File("state") +
                                      "\nspread=0 s\nlinger=5 ms\npoll=2 ms\npoll_idle=10 ms\ntimeout=1 s\n"
                                      "rescan=50 ms\n[receive]\nname=c\nroot=" +
                                      dir_.File(root) + "\nsync=50 ms\nredeliver=1 s\n" + receive_lines);
  }
  [[nodiscard]] std::string Config() const { return dir_.File("relay.ini"); }
  [[nodiscard]] std::string Log() const { return qx::test::ReadFile(dir_.File("log")); }

  void Send() {
    sender_ = std::make_unique<QxrelayProcess>(Lines{"send", "--config", Config()}, dir_.File("send.log"));
  }
  void Receive(const Lines& more = {}, const Lines& environment = {}) {
    Lines arguments = {"receive", "--config", Config()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    receiver_ = std::make_unique<QxrelayProcess>(arguments, dir_.File("log"), environment);
  }

  void Append(std::uint64_t count, const std::string& report = "load", std::uint32_t slots = 1000) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(dir_.File("reports/" + report).c_str(), slots));
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::string text = report + " " + std::to_string(written_++);
      ASSERT_TRUE(store.writeLine(text.c_str()));
    }
  }
  [[nodiscard]] bool IsCopied(const std::string& root = "root", const std::string& report = "load") const {
    return RecordsAt(dir_.File(root + "/h/" + report)) == RecordsAt(dir_.File("reports/" + report));
  }
  void ExpectCopy(const std::string& root = "root", const std::string& report = "load") {
    EXPECT_TRUE(Until([&] { return IsCopied(root, report); })) << Log();
  }

  qx::test::TempDir dir_;
  NatsServer server_;
  qx::relay::StreamSettings settings_;
  std::unique_ptr<QxrelayProcess> sender_;
  std::unique_ptr<QxrelayProcess> receiver_;
  std::uint64_t written_ = 0;
};

TEST_F(RelayReceiveProcess, KilledReceiversAndServersLoseAndRepeatNothing) {
  Append(5);
  Send();
  Receive();
  ExpectCopy();
  for (int round = 0; round < 4; ++round) {
    Append(20);
    if (round % 2 == 0) server_.Restart();
    EXPECT_EQ(receiver_->End(SIGKILL), -1);
    Append(3);
    Receive({"--slots", "500"});
  }
  ExpectCopy();
  const auto begin = steady_clock::now();
  EXPECT_EQ(receiver_->End(SIGTERM), 0);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(5000));
  EXPECT_THAT(Log(), HasSubstr("0 lost, 0 messages refused"));
}

// The number of records in all gap messages of the stream.
std::uint64_t GapRecordsOfStream(const qx::relay::StreamSettings& settings) {
  qx::relay::NatsConsume consumer(settings);
  EXPECT_EQ(consumer.Connect("checker", 100, std::chrono::seconds(30)), std::nullopt);
  std::vector<qx::relay::StreamMessage> messages;
  EXPECT_EQ(consumer.Fetch({.messages = 1000}, std::chrono::milliseconds(200), messages), std::nullopt);
  std::uint64_t count = 0;
  for (const qx::relay::StreamMessage& message : messages) {
    const qx::relay::DecodedMessage decoded = qx::relay::DecodeMessage(message.payload);
    if (decoded.head.kind == qx::relay::MessageKind::kGap) count += decoded.head.count;
  }
  return count;
}

// A ring of 10 slots gets 35 records; the last 30 come while the stream cannot be reached. The oldest slot of a full
// ring is never sent, so 9 of these records arrive.
TEST_F(RelayReceiveProcess, AGapHasTheSameCountInStreamCollectorAndStatus) {
  constexpr std::uint64_t kLost = 30 - 9;
  Append(5, "load", 10);
  Send();
  Receive();
  EXPECT_TRUE(Until([&] { return RecordsAt(dir_.File("root/h/load")).size() == 5; })) << Log();
  server_.Kill();
  Append(30, "load", 10);
  server_.Restart();
  EXPECT_TRUE(Until([&] { return RecordsAt(dir_.File("root/h/load")).size() == 5 + 9; })) << Log();
  Lines expected;
  for (std::uint64_t number = 0; number < 35; ++number) {
    if (number < 5 || number >= 5 + kLost) expected.push_back("load " + std::to_string(number) + "\r\n");
  }
  EXPECT_EQ(RecordsAt(dir_.File("root/h/load")), expected);
  EXPECT_EQ(GapRecordsOfStream(settings_), kLost);
  std::string text;
  const auto both_have_the_count = [&] {
    std::filesystem::remove(dir_.File("status"));
    (void)QxrelayProcess({"status", "--json", "--config", Config()}, dir_.File("status")).Wait();
    text = qx::test::ReadFile(dir_.File("status"));
    const std::string count = "\"gapRecords\": " + std::to_string(kLost) + ",";
    int found = 0;
    for (std::size_t at = text.find(count); at != std::string::npos; at = text.find(count, at + 1)) ++found;
    return found == 4;  // the sums of sender and receiver, and the report of each
  };
  EXPECT_TRUE(Until(both_have_the_count)) << text;
}

TEST_F(RelayReceiveProcess, ASecondCollectorIsASecondCopy) {
  Append(5);
  Send();
  Receive();
  ExpectCopy();
  QxrelayProcess second({"receive", "--config", Config(), "--name", "c2", "--root", dir_.File("root2")},
                        dir_.File("log2"));
  ExpectCopy("root2");
  QxrelayProcess same_root({"receive", "--config", Config(), "--name", "c3"}, dir_.File("log"));
  EXPECT_EQ(same_root.Wait(), 5);
  EXPECT_THAT(Log(), HasSubstr("another receiver writes " + dir_.File("root")));
}

TEST_F(RelayReceiveProcess, ASighupReadsTheSettingsAgain) {
  Receive();
  EXPECT_TRUE(Until([&] { return qx::test::Exists(dir_.File("root/.qxrelay/lock")); }));
  Configure("slots=7\n");
  receiver_->Signal(SIGHUP);
  EXPECT_TRUE(Until([&] { return Log().find("the settings were read again") != std::string::npos; })) << Log();
  Configure("slots=0\n");
  receiver_->Signal(SIGHUP);
  EXPECT_TRUE(Until([&] { return Log().find("the settings in force stay as they are") != std::string::npos; }));
  Configure({}, "other");
  receiver_->Signal(SIGHUP);
  EXPECT_TRUE(Until([&] { return Log().find("a change of root needs a restart") != std::string::npos; })) << Log();
  Configure();
  Append(20);
  Send();
  EXPECT_TRUE(Until([&] { return RecordsAt(dir_.File("root/h/load")).size() == 7; })) << Log();
  EXPECT_EQ(receiver_->End(SIGTERM), 0);
}

TEST_F(RelayReceiveProcess, TheServiceManagerIsInformed) {
  const int listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = dir_.File("notify");
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  Receive({}, {"NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=600000"});
  std::string said;
  const auto take = [&] {
    char bytes[512];
    for (ssize_t size = 1; size > 0;) {
      size = recv(listener, bytes, sizeof bytes, MSG_DONTWAIT);
      if (size > 0) said += std::string(bytes, static_cast<std::size_t>(size)) + "\n";
    }
  };
  EXPECT_TRUE(Until([&] {
    take();
    return said.find("READY=1") != std::string::npos && said.find("WATCHDOG=1\nWATCHDOG=1") != std::string::npos;
  })) << said;
  EXPECT_EQ(receiver_->End(SIGTERM), 0);
  take();
  EXPECT_THAT(said, HasSubstr("STOPPING=1"));
  close(listener);
}

// Each report needs three descriptors, and there are not enough for all reports at once.
TEST_F(RelayReceiveProcess, ManyReportsAreWrittenWithFewDescriptors) {
  constexpr int kReports = 60;
  for (int i = 0; i < kReports; ++i) Append(2, "r" + std::to_string(i));
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  rlimit low = limit;
  low.rlim_cur = 80;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  Receive();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  Send();
  for (int i = 0; i < kReports; ++i) ExpectCopy("root", "r" + std::to_string(i));
  for (int i = 0; i < kReports; ++i) Append(1, "r" + std::to_string(i));
  for (int i = 0; i < kReports; ++i) ExpectCopy("root", "r" + std::to_string(i));
  EXPECT_EQ(Log().find("open files"), std::string::npos) << Log();
}

// The findings of "qxrelay check"; empty if the settings are sound.
std::string FindingsOfCheck(const Lines& arguments) {
  const qx::test::TempDir dir;
  Lines command = {"check"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const int code = QxrelayProcess(command, dir.File("log")).Wait();
  const std::string text = qx::test::ReadFile(dir.File("log"));
  EXPECT_EQ(code, text.find("are sound") == std::string::npos ? 1 : 0) << text;
  return code == 0 ? "" : text;
}

// The settings are sound for a collector, but not for a host. The check must not create anything.
void ExpectCheckOfACollector(const std::string& config, const qx::relay::StreamSettings& of_operator) {
  EXPECT_EQ(FindingsOfCheck({"--collector", "--config", config}), "");
  EXPECT_THAT(FindingsOfCheck({"--config", config}), HasSubstr("cannot look up a message"));
  std::uint64_t pending = 0;
  EXPECT_NE(ReadPending(of_operator, "c", pending), std::nullopt) << "there is a consumer";
}

void ExpectCopiesCanBeRead(qx::relay::StreamSettings settings, const std::string& collector,
                           const std::string& password) {
  settings.user = collector;
  settings.password_file = password;
  qx::relay::NatsConsume consumer(settings);
  ASSERT_EQ(consumer.Connect(collector, 100, std::chrono::seconds(30)), std::nullopt);
  for (std::size_t copy = 0; copy < consumer.Copies(); ++copy) {
    qx::relay::StreamMessage message;
    EXPECT_EQ(consumer.ReadFromCopy(copy, 1, message), qx::relay::CopyAnswer::kMessage) << copy;
  }
}

TEST(RelayReceiveRights, TheRightsOfACollectorAreEnough) {
  const qx::test::TempDir dir;
  const std::string users = dir.File("users.conf");
  const std::string config = dir.File("relay.ini");
  qx::test::WriteFile(config, "");
  const auto add = [&](const std::string& name, const std::string& role) {
    QxrelayProcess process(
        {"host", "add", name, "--role", role, "--password-file", dir.File(name), "--users", users, "--config", config},
        dir.File("log"));
    EXPECT_EQ(process.Wait(), 0) << qx::test::ReadFile(dir.File("log"));
  };
  add("op", "operator");
  add("h", "host");
  add("c", "collector");
  NatsServer server("authorization {\n" + qx::test::ReadFile(users) + "}\n");
  qx::relay::StreamSettings settings;
  settings.servers = {server.Url()};
  settings.replicas = 1;
  settings.bytes = 64 * 1024 * 1024;
  settings.user = "op";
  settings.password_file = dir.File("op");
  ASSERT_EQ(CreateStream(settings), std::nullopt);
  std::filesystem::create_directory(dir.File("reports"));
  CReportFileBase store;
  ASSERT_TRUE(store.Open(dir.File("reports/load").c_str(), 10));
  ASSERT_TRUE(store.writeLine("a"));
  const auto configure = [&](const std::string& user, const std::string& root = "root") {
    qx::test::WriteFile(config, "[stream]\nservers=" + server.Url() + "\nuser=" + user +
                                    "\npassword_file=" + dir.File(user) +
                                    "\n[host]\nname=h\n[send]\nspread=0 s\nreports=" + dir.File("reports") +
                                    "\nstate=" + dir.File("state") + "\n[receive]\nroot=" + dir.File(root) + "\n");
  };
  configure("h");
  QxrelayProcess sender({"send", "--config", config}, dir.File("log"));
  EXPECT_TRUE(Until([&] { return qx::test::Exists(dir.File("state/lock")); }));
  configure("c");
  ExpectCheckOfACollector(config, settings);
  configure("c", "missing/root");
  EXPECT_THAT(FindingsOfCheck({"--collector", "--config", config}),
              HasSubstr("missing/root is missing, and this user"));
  configure("c");
  QxrelayProcess receiver({"receive", "--config", config}, dir.File("log"));
  EXPECT_TRUE(Until([&] { return RecordsAt(dir.File("root/h/load")) == Lines{"a\r\n"}; }))
      << qx::test::ReadFile(dir.File("log"));
  EXPECT_EQ(receiver.End(SIGTERM), 0);
  ExpectCopiesCanBeRead(settings, "c", dir.File("c"));
}

TEST(RelayReceiveConsumer, ChangedSettingsOfTheConsumerAreUsed) {
  NatsServer server;
  qx::relay::StreamSettings settings;
  settings.servers = {server.Url()};
  settings.replicas = 1;
  settings.bytes = 64 * 1024 * 1024;
  ASSERT_EQ(CreateStream(settings), std::nullopt);
  qx::relay::NatsPublish stream(settings, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  EXPECT_TRUE(stream.Publish(1, "qx.report.h.a", "x", 0));
  qx::relay::NatsConsume consumer(settings);
  std::vector<qx::relay::StreamMessage> messages;
  ASSERT_EQ(consumer.Connect("c", 100, milliseconds(30000)), std::nullopt);
  ASSERT_EQ(consumer.Fetch({.messages = 10}, milliseconds(500), messages), std::nullopt);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].before, 0U);
  EXPECT_TRUE(stream.Publish(2, "qx.report.h.a", "y", 1));
  ASSERT_EQ(consumer.Connect("c", 200, milliseconds(300)), std::nullopt);
  ASSERT_EQ(consumer.Fetch({.messages = 10}, milliseconds(500), messages), std::nullopt);
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[1].before, 1U);
  qx::relay::ConsumerState state;
  ASSERT_EQ(consumer.ReadState(state), std::nullopt);
  EXPECT_EQ(state.first, 1U);
  EXPECT_EQ(state.acknowledged, 0U);
  EXPECT_GT(state.created, 0);
  EXPECT_EQ(consumer.Refuse(messages[0].receipt), std::nullopt);
  messages.clear();
  ASSERT_TRUE(Until([&] {
    return consumer.Fetch({.messages = 10}, milliseconds(100), messages) == std::nullopt && !messages.empty();
  })) << "after the new time it comes again";
  EXPECT_EQ(messages[0].sequence, 2U);
  EXPECT_EQ(messages[0].delivered, 2U);
  EXPECT_EQ(consumer.Acknowledge(messages[0].receipt), std::nullopt);
  EXPECT_TRUE(Until([&] { return consumer.ReadState(state) == std::nullopt && state.acknowledged == 2; }));
}

}  // namespace
