// Tests the time limits of connections, and replies that come later.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/qxview/ViewServer.h"
#include "tools/qxview/http/HttpServer.h"
#include "tools/qxview/http/Listener.h"

namespace qx::view {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::WebConnection;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kGet = "GET /x HTTP/1.1\r\nHost: localhost\r\n\r\n";

// A server that runs in the test's own thread.
class ViewHttp : public testing::Test {
 protected:
  ViewHttp() {
    Listener listener = ListenOnLoopback("127.0.0.1:0", 16);
    port_ = listener.port;
    is_started_ = server_->Start(std::move(listener.socket));
  }

  // Lets the server work for this time.
  void Serve(milliseconds time) {
    const auto end = steady_clock::now() + time;
    while (steady_clock::now() < end) {
      server_->Run();
      usleep(1000);
    }
  }
  // Sends a request, and returns its exchange; null if the server did not get it.
  ExchangePtr Ask(const WebConnection& connection) {
    const std::size_t before = asked_.size();
    if (!connection.Send(kGet)) return nullptr;
    Serve(milliseconds(30));
    return asked_.size() == before + 1 ? asked_.back() : nullptr;
  }
  // The text that the connection has received so far.
  std::string Got(WebConnection& connection) {
    Serve(milliseconds(20));
    (void)connection.WaitFor("nothing", milliseconds(1));
    return connection.Text();
  }

  std::vector<ExchangePtr> asked_;
  std::unique_ptr<HttpServer> server_ = std::make_unique<HttpServer>(
      [this](const ExchangePtr& exchange) { asked_.push_back(exchange); }, HttpTimes{.silence_s = 2, .request_s = 1});
  std::uint16_t port_ = 0;
  bool is_started_ = false;
};

HttpReply TextReply(const std::string& text) {
  return {.status = 200, .type = "text/plain", .text = std::make_shared<const std::string>(text)};
}

}  // namespace

TEST_F(ViewHttp, RequestThatComesByteByByteIsCutOff) {
  ASSERT_TRUE(is_started_);
  WebConnection slow(port_);
  const std::string request = "GET / HTTP/1.1\r\nX-" + std::string(4000, 'x');
  const auto begin = steady_clock::now();
  std::size_t sent = 0;
  while (sent < request.size() && slow.Send(request.substr(sent, 1)) && !slow.WaitForEnd(milliseconds(0))) {
    ++sent;
    Serve(milliseconds(20));
  }
  EXPECT_LT(sent, request.size());
  EXPECT_LT(steady_clock::now() - begin, milliseconds(4000));
}

TEST_F(ViewHttp, AnswerMayComeLaterAndOtherRequestsNeedNotWait) {
  WebConnection first(port_);
  WebConnection second(port_);
  const ExchangePtr one = Ask(first);
  const ExchangePtr other = Ask(second);
  ASSERT_TRUE(one != nullptr && other != nullptr);
  other->Reply(TextReply("second"));
  other->Reply(TextReply("ignored"));
  EXPECT_THAT(Got(second), HasSubstr("\r\n\r\nsecond"));
  EXPECT_THAT(Got(first), IsEmpty());
  one->Reply(TextReply("first"));
  EXPECT_THAT(Got(first), HasSubstr("\r\n\r\nfirst"));
}

TEST_F(ViewHttp, RequestThatWaitsIsNotCutOff) {
  WebConnection connection(port_);
  const ExchangePtr exchange = Ask(connection);
  ASSERT_NE(exchange, nullptr);
  Serve(milliseconds(2500));
  exchange->Reply(TextReply("late"));
  EXPECT_THAT(Got(connection), HasSubstr("late"));
}

TEST_F(ViewHttp, StreamSendsPiecesAndDropsAReaderThatIsTooSlow) {
  WebConnection connection(port_);
  const ExchangePtr exchange = Ask(connection);
  ASSERT_NE(exchange, nullptr);
  const std::shared_ptr<ReplyStream> stream = exchange->Stream({.type = "text/plain", .text = nullptr});
  stream->Send(std::make_shared<const std::string>("one"));
  EXPECT_THAT(Got(connection), HasSubstr("one"));
  stream->Send(std::make_shared<const std::string>("two"));
  EXPECT_THAT(Got(connection), HasSubstr("two"));
  const auto large = std::make_shared<const std::string>(std::size_t{1} << 18, 'x');
  for (int i = 0; i < 200 && stream->IsOpen(); ++i) {
    stream->Send(large);
    server_->Run();
  }
  EXPECT_FALSE(stream->IsOpen());
}

TEST_F(ViewHttp, EndOfTheServerAnswersWhatWaits) {
  WebConnection waiting(port_);
  WebConnection streaming(port_);
  const ExchangePtr exchange = Ask(waiting);
  const ExchangePtr begun = Ask(streaming);
  ASSERT_TRUE(exchange != nullptr && begun != nullptr);
  const std::shared_ptr<ReplyStream> stream = begun->Stream({.type = "text/plain", .text = nullptr});
  Serve(milliseconds(30));
  server_.reset();
  EXPECT_TRUE(waiting.WaitForEnd(milliseconds(1000)));
  EXPECT_TRUE(streaming.WaitForEnd(milliseconds(1000)));
  EXPECT_FALSE(stream->IsOpen());
  EXPECT_FALSE(exchange->IsOpen());
}

}  // namespace qx::view
