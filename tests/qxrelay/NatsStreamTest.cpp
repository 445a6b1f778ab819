// Tests the connections to JetStream with a real server.
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/qxrelay/NatsServer.h"
#include "tools/qxrelay/stream/NatsAdmin.h"
#include "tools/qxrelay/stream/NatsConsume.h"
#include "tools/qxrelay/stream/NatsPublish.h"

namespace {

using qx::relay::CreateStream;
using qx::relay::FetchLimits;
using qx::relay::NatsConsume;
using qx::relay::NatsPublish;
using qx::relay::ReplyKind;
using qx::relay::StreamMessage;
using qx::relay::StreamReply;
using qx::relay::StreamSettings;
using qx::relay::StreamState;
using qx::test::NatsServer;
using std::chrono::milliseconds;

StreamSettings SettingsOf(const NatsServer& server) {
  StreamSettings settings;
  settings.servers = {server.Url()};
  settings.replicas = 1;
  settings.bytes = 16 * 1024 * 1024;
  return settings;
}

// The next reply; after ten seconds without one, a kProblem with the text "no reply".
StreamReply NextReply(NatsPublish& stream) {
  for (int i = 0; i < 100; ++i) {
    std::vector<StreamReply> replies;
    pollfd waiting = {stream.Descriptor(), POLLIN, 0};
    (void)poll(&waiting, 1, 100);
    stream.TakeReplies(replies);
    if (!replies.empty()) return replies.front();
  }
  StreamReply none;
  none.text = "no reply";
  return none;
}

StreamReply PublishAndWait(NatsPublish& stream, std::uint64_t token, const std::string& subject,
                           const std::string& text, std::optional<std::uint64_t> expected = std::nullopt) {
  EXPECT_TRUE(stream.Publish(token, subject, text, expected));
  return NextReply(stream);
}

StreamReply LookUpAndWait(NatsPublish& stream, std::uint64_t token, const std::string& subject) {
  EXPECT_TRUE(stream.LookUp(token, subject));
  return NextReply(stream);
}

class RelayNats : public testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = new NatsServer; }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }

  // Each test has a stream and a prefix of its own.
  RelayNats() : settings_(SettingsOf(*server_)) {
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    settings_.name = name;
    settings_.prefix = name;
  }

  [[nodiscard]] std::string Subject(const std::string& report) const {
    return settings_.prefix + ".report.h." + report;
  }

  static NatsServer* server_;
  StreamSettings settings_;
};

NatsServer* RelayNats::server_ = nullptr;

TEST_F(RelayNats, StoredMessagesAreFoundByLookUps) {
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  NatsPublish stream(settings_, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  EXPECT_EQ(stream.PayloadBytesMax(), 1048576U);
  EXPECT_EQ(LookUpAndWait(stream, 1, Subject("a")).kind, ReplyKind::kNone);
  for (std::uint64_t i = 1; i <= 3; ++i) {
    const StreamReply reply = PublishAndWait(stream, 10 + i, Subject("a"), "text " + std::to_string(i));
    EXPECT_EQ(reply.kind, ReplyKind::kStored);
    EXPECT_EQ(reply.token, 10 + i);
    EXPECT_EQ(reply.sequence, i);
  }
  const StreamReply newest = LookUpAndWait(stream, 20, Subject("a"));
  EXPECT_EQ(newest.kind, ReplyKind::kNewest);
  EXPECT_EQ(newest.token, 20U);
  EXPECT_EQ(newest.sequence, 3U);
  EXPECT_EQ(newest.payload, "text 3");
  EXPECT_EQ(LookUpAndWait(stream, 21, Subject("b")).kind, ReplyKind::kNone);
}

TEST_F(RelayNats, AMessageIsRefusedIfTheNewestIsAnotherThanExpected) {
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  NatsPublish stream(settings_, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  EXPECT_EQ(PublishAndWait(stream, 1, Subject("a"), "x", 0).kind, ReplyKind::kStored);
  EXPECT_EQ(PublishAndWait(stream, 2, Subject("b"), "x", 0).sequence, 2U);
  EXPECT_EQ(PublishAndWait(stream, 3, Subject("a"), "y", 1).sequence, 3U);
  EXPECT_EQ(PublishAndWait(stream, 4, Subject("a"), "z", 1).kind, ReplyKind::kWrongLast);
  EXPECT_EQ(PublishAndWait(stream, 5, Subject("a"), "z", 0).kind, ReplyKind::kWrongLast);
  EXPECT_EQ(LookUpAndWait(stream, 6, Subject("a")).payload, "y");
}

TEST_F(RelayNats, WithoutAStreamTheReplySaysSo) {
  NatsPublish stream(settings_, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  EXPECT_EQ(PublishAndWait(stream, 1, Subject("a"), "x").kind, ReplyKind::kNoStream);
}

TEST_F(RelayNats, AConsumerGetsWhatItHasNotAcknowledged) {
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  NatsPublish stream(settings_, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  for (std::uint64_t i = 1; i <= 3; ++i)
    (void)PublishAndWait(stream, i, Subject("a"), "text " + std::to_string(i), i - 1);
  NatsConsume consumer(settings_);
  ASSERT_EQ(consumer.Connect("c1", 100, milliseconds(30000)), std::nullopt);
  std::vector<StreamMessage> messages;
  ASSERT_EQ(consumer.Fetch({.messages = 10}, milliseconds(200), messages), std::nullopt);
  ASSERT_EQ(messages.size(), 3U);
  EXPECT_EQ(messages[1].subject, Subject("a"));
  EXPECT_EQ(messages[1].payload, "text 2");
  EXPECT_EQ(messages[1].sequence, 2U);
  EXPECT_EQ(messages[1].delivered, 1U);
  EXPECT_EQ(messages[1].pending, 1U);
  const std::optional<std::uint64_t> before = messages[1].before;
  EXPECT_EQ(consumer.Acknowledge(messages[0].receipt), std::nullopt);
  messages.clear();
  EXPECT_EQ(consumer.Fetch({.messages = 10}, milliseconds(20), messages), std::nullopt);
  EXPECT_TRUE(messages.empty());
  for (std::size_t copy = 0; copy < consumer.Copies(); ++copy) {
    StreamMessage read;
    ASSERT_EQ(consumer.ReadFromCopy(copy, 2, read), qx::relay::CopyAnswer::kMessage) << copy;
    EXPECT_EQ(read.subject, Subject("a"));
    EXPECT_EQ(read.payload, "text 2");
    EXPECT_EQ(read.before, before);
    EXPECT_EQ(read.receipt, "");
    EXPECT_EQ(consumer.ReadFromCopy(copy, 4, read), qx::relay::CopyAnswer::kNone) << copy;
  }
  std::uint64_t first = 0;
  EXPECT_EQ(consumer.FirstSequence(first), std::nullopt);
  EXPECT_EQ(first, 1U);
  StreamState state;
  ASSERT_EQ(ReadStream(settings_, state), std::nullopt);
  EXPECT_EQ(state.messages, 3U);
  EXPECT_TRUE(state.keeps_newest && state.allows_look_ups);
  EXPECT_EQ(state.settings.age, settings_.age);
  ASSERT_EQ(PurgeHost(settings_, "h"), std::nullopt);
  EXPECT_EQ(consumer.FirstSequence(first), std::nullopt);
  EXPECT_EQ(first, 0U);
}

// The sizes of the messages of each fetch, in thousands of bytes, until a fetch returns nothing.
std::vector<std::vector<std::size_t>> FetchAll(NatsConsume& consumer, const FetchLimits& limits) {
  std::vector<std::vector<std::size_t>> fetches;
  for (;;) {
    std::vector<StreamMessage> messages;
    EXPECT_EQ(consumer.Fetch(limits, milliseconds(50), messages), std::nullopt);
    if (messages.empty()) return fetches;
    fetches.emplace_back();
    for (const StreamMessage& message : messages) {
      fetches.back().push_back(message.payload.size() / 1000);
      EXPECT_EQ(consumer.Acknowledge(message.receipt), std::nullopt);
    }
  }
}

TEST_F(RelayNats, AFetchIsBoundedByMessagesAndBytes) {
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  NatsPublish stream(settings_, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  NatsConsume consumer(settings_);
  ASSERT_EQ(consumer.Connect("c1", 100, milliseconds(30000)), std::nullopt);
  struct Row {
    const char* name;
    std::vector<std::size_t> thousands;  // of bytes, for each message
    FetchLimits limits;
    std::vector<std::vector<std::size_t>> fetches;
  };
  const Row rows[] = {
      {"messages", {1, 2, 3, 4, 5}, {.messages = 2}, {{1, 2}, {3, 4}, {5}}},
      {"bytes", {300, 300, 300, 300}, {.messages = 9, .bytes = 1'000'000}, {{300, 300, 300}, {300}}},
      {"a larger message comes alone", {1, 600, 2, 3}, {.messages = 9, .bytes = 500'000}, {{1}, {600}, {2, 3}}},
      {"only larger messages", {600, 700}, {.messages = 9, .bytes = 500'000}, {{600}, {700}}},
  };
  std::uint64_t token = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    for (const std::size_t thousands : row.thousands) {
      const std::string text(thousands * 1000, 'x');
      ASSERT_EQ(PublishAndWait(stream, ++token, Subject("a"), text).kind, ReplyKind::kStored);
    }
    EXPECT_EQ(FetchAll(consumer, row.limits), row.fetches);
  }
}

// The fetch waits when the message comes.
TEST_F(RelayNats, ALargerMessageEndsAFetchThatWaits) {
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  NatsPublish stream(settings_, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  NatsConsume consumer(settings_);
  ASSERT_EQ(consumer.Connect("c1", 100, milliseconds(30000)), std::nullopt);
  std::thread publisher([&] {
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_TRUE(stream.Publish(1, Subject("a"), std::string(600'000, 'x'), std::nullopt));
  });
  const auto begin = std::chrono::steady_clock::now();
  std::vector<StreamMessage> messages;
  for (int i = 0; i < 3 && messages.empty(); ++i) {
    EXPECT_EQ(consumer.Fetch({.messages = 9, .bytes = 500'000}, std::chrono::seconds(20), messages), std::nullopt);
  }
  EXPECT_EQ(messages.size(), 1U);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
  publisher.join();
}

TEST_F(RelayNats, CreatingAStreamAgainChangesItsLimits) {
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  settings_.age = std::chrono::seconds(60);
  ASSERT_EQ(CreateStream(settings_), std::nullopt);
  StreamState state;
  ASSERT_EQ(ReadStream(settings_, state), std::nullopt);
  EXPECT_EQ(state.settings.age, std::chrono::seconds(60));
  settings_.name = "other";
  EXPECT_EQ(ReadStream(settings_, state), "there is no stream other (\"qxrelay stream create\" creates it)");
}

TEST(RelayNatsFaults, ALostServerIsReportedAndConnectFailsUntilItIsBack) {
  NatsServer server;
  StreamSettings settings = SettingsOf(server);
  NatsPublish stream(settings, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  server.Kill();
  StreamReply reply = NextReply(stream);
  while (reply.kind == ReplyKind::kProblem && reply.text != "no reply") reply = NextReply(stream);
  EXPECT_EQ(reply.kind, ReplyKind::kDisconnect);
  EXPECT_FALSE(stream.Publish(1, "qx.report.h.a", "x", std::nullopt));
  EXPECT_NE(stream.Connect(), std::nullopt);
  EXPECT_FALSE(stream.LookUp(2, "qx.report.h.a"));
  server.Restart();
  EXPECT_EQ(stream.Connect(), std::nullopt);
}

TEST(RelayNatsFaults, WrongCredentialsAndMissingRightsAreReported) {
  const std::string users =
      "authorization { users = [ {user: \"h\", password: \"secret\", permissions: {publish: [\"qx.report.h.*\"], "
      "subscribe: [\"_INBOX_h.>\"]}} ] }\n";
  NatsServer server(users);
  const qx::test::TempDir dir;
  StreamSettings settings = SettingsOf(server);
  settings.user = "h";
  settings.password_file = dir.File("password");
  qx::test::WriteFile(settings.password_file, "wrong\n");
  NatsPublish wrong(settings, "h");
  EXPECT_EQ(wrong.Connect(),
            "the servers refuse the credentials: check user, password_file and credentials_file in [stream]");
  qx::test::WriteFile(settings.password_file, "secret\n");
  NatsPublish stream(settings, "h");
  ASSERT_EQ(stream.Connect(), std::nullopt);
  EXPECT_TRUE(stream.Publish(1, "qx.report.other.a", "x", std::nullopt));
  const StreamReply reply = NextReply(stream);
  EXPECT_EQ(reply.kind, ReplyKind::kProblem);
  EXPECT_NE(reply.text.find("Permissions Violation for Publish to"), std::string::npos) << reply.text;
}

}  // namespace
