// Tests that hostile pages, hostile clients and hostile files cannot do harm.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "reportfile/ReportFileBase.h"
#include "sdk/Writer.h"
#include "tests/qxview/ViewServer.h"
#include "tests/support/Support.h"

namespace qx::test {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::AnyOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ViewSecurity : public testing::Test {
 protected:
  ViewSecurity() {
    for (const char* const name : {"reports", "traces"}) std::filesystem::create_directory(dir_.File(name));
    Append("load", "2026-01-31 10:20:30 cpu=12%");
  }

  void Append(const std::string& report, const std::string& text) {
    CReportFileBase store;
    ASSERT_TRUE(store.Open(dir_.File("reports/" + report).c_str(), 100));
    ASSERT_TRUE(store.writeLine(text.c_str()));
  }

  [[nodiscard]] ViewServer::Words Arguments() const {
    return {"--reports", dir_.File("reports"), "--traces", dir_.File("traces"), "--state", dir_.File("state")};
  }

  TempDir dir_;
};

}  // namespace

TEST_F(ViewSecurity, TokenIsValidOnceAndDataNeedsASession) {
  ViewServer server(Arguments());
  EXPECT_EQ(server.Get("overview").status, 401);
  EXPECT_THAT(server.Get("overview").body, HasSubstr("\"code\":\"QX601\""));
  EXPECT_EQ(server.Get("events?view=overview").status, 401);
  EXPECT_EQ(server.Ask({.method = "POST", .target = "/api/v1/session", .body = "token=0"}).status, 403);
  const WebReply reply = server.LogIn();
  EXPECT_EQ(reply.status, 204);
  EXPECT_THAT(reply.Header("Set-Cookie"), HasSubstr("qxview-" + std::to_string(server.Port()) + "="));
  EXPECT_THAT(reply.Header("Set-Cookie"), HasSubstr("; HttpOnly; SameSite=Strict; Path=/"));
  EXPECT_EQ(server.Get("overview").status, 200);
  const WebReply again = server.Ask({.method = "POST", .target = "/api/v1/session", .body = "token=" + server.Token()});
  EXPECT_EQ(again.status, 403);
  EXPECT_THAT(again.body, HasSubstr("\"code\":\"QX602\""));
  server.RenewToken();
  EXPECT_EQ(server.LogIn().status, 204) << "SIGHUP makes a new token";
  EXPECT_EQ(server.End(SIGTERM), 0);
}

TEST_F(ViewSecurity, SessionSurvivesARestartUntilTheKeyIsRemoved) {
  std::string cookie;
  std::string name;
  {
    ViewServer server(Arguments());
    (void)server.LogIn();
    cookie = server.Cookie().substr(server.Cookie().find('=') + 1);
    name = "localhost:" + std::to_string(server.Port());
  }
  const std::string port = name.substr(name.find(':') + 1);
  const auto status = [&] {
    const ViewServer server(Arguments());
    return server
        .Ask({.target = "/api/v1/overview", .headers = {{"Host", name}, {"Cookie", "qxview-" + port + "=" + cookie}}})
        .status;
  };
  EXPECT_EQ(status(), 200);
  std::filesystem::remove(dir_.File("state/key"));
  EXPECT_EQ(status(), 401);
}

TEST_F(ViewSecurity, ForeignHostsAndOriginsAreRefused) {
  ViewServer server(Arguments());
  (void)server.LogIn();
  const auto ask = [&](const std::string& target, const std::string& header, const std::string& value) {
    return server.Ask({.target = target, .headers = {{header, value}}});
  };
  for (const char* const target : {"/", "/assets/main.js", "/api/v1/overview", "/api/v1/events?view=overview"}) {
    const WebReply reply = ask(target, "Host", "evil.example");
    EXPECT_EQ(reply.status, 403) << target;
    EXPECT_THAT(reply.body, HasSubstr("\"code\":\"QX603\""));
    EXPECT_EQ(ask(target, "Origin", "http://evil.example").status, 403) << target;
  }
  EXPECT_THAT(ask("/api/v1/overview", "Origin", "null").body, HasSubstr("\"code\":\"QX604\""));
  EXPECT_EQ(ask("/api/v1/overview", "Sec-Fetch-Site", "cross-site").status, 403);
  EXPECT_EQ(ask("/api/v1/overview", "Sec-Fetch-Site", "same-origin").status, 200);
  EXPECT_EQ(server
                .Ask({.method = "POST",
                      .target = "/api/v1/session",
                      .headers = {{"Origin", "http://evil.example"}},
                      .body = "token=" + server.Token()})
                .status,
            403);
}

TEST_F(ViewSecurity, OnlyReadingMethodsAreAnswered) {
  ViewServer server(Arguments());
  (void)server.LogIn();
  for (const char* const method : {"PUT", "DELETE", "OPTIONS", "TRACE", "PATCH", "POST", "FOO"}) {
    for (const char* const target : {"/", "/api/v1/overview", "/api/v1/text?report=load"}) {
      EXPECT_EQ(server.Ask({.method = method, .target = target}).status, 405) << method << " " << target;
    }
  }
  const WebReply head = server.Ask({.method = "HEAD", .target = "/api/v1/overview"});
  EXPECT_EQ(head.status, 200);
  EXPECT_THAT(head.body, IsEmpty());
}

TEST_F(ViewSecurity, NoPathLeadsOutOfTheReportsAndThePages) {
  WriteFile(dir_.File("secret.ind"), "secret");
  WriteFile(dir_.File("secret.dat"), "secret\r\n");
  ViewServer server(Arguments());
  (void)server.LogIn();
  for (const char* const target :
       {"/../secret.dat", "/assets/../../etc/passwd", "/assets/%2e%2e/main.js", "/assets//etc/passwd", "/assets/", "//",
        "/assets/main.js/", "/api/v1/../../secret.dat"}) {
    EXPECT_EQ(server.Ask({.target = target}).status, 404) << target;
  }
  for (const char* const name : {"../secret", "%2e%2e/secret", "/etc/passwd", "load/../../secret", "./load", "",
                                 "load%00", "load/", "%2Fetc%2Fpasswd", "..", "load%2F..%2F..%2Fsecret"}) {
    for (const char* const document : {"report", "names", "fields", "chart", "records", "text", "events", "changes"}) {
      const WebReply reply = server.Get(std::string(document) + "?view=report&report=" + name);
      EXPECT_EQ(reply.status, 404) << document << " " << name;
      EXPECT_THAT(reply.body, Not(HasSubstr("secret\\r\\n")));
    }
  }
}

TEST_F(ViewSecurity, HostileTextsAreJsonAndNothingElse) {
  constexpr const char* kScript = "<script>alert(1)</script>";
  Append("load", std::string("2026-01-31 10:20:31 ") + kScript + "\x1b[2J \"quoted\" \\ \xff");
  Append("<img src=x onerror=alert(1)>", "2026-01-31 10:20:31 x=1");
  WriteFile(dir_.File("traces/log.one"),
            std::string("2026-01-31 10:20:30.123 [0A1B2C3D] QxTrace       ") + kScript + "\n");
  ViewServer server(Arguments());
  (void)server.LogIn();
  for (const char* const target : {"overview", "records?report=load", "traces", "changes?view=overview",
                                   "records?report=%3Cimg%20src%3Dx%20onerror%3Dalert(1)%3E", "report?report=<x>"}) {
    const WebReply reply = server.Get(target);
    EXPECT_EQ(reply.Header("Content-Type"), "application/json") << target;
    EXPECT_EQ(reply.Header("X-Content-Type-Options"), "nosniff") << target;
    EXPECT_THAT(reply.Header("Content-Security-Policy"), HasSubstr("default-src 'none'; script-src 'self';")) << target;
    EXPECT_THAT(reply.Header("Content-Security-Policy"), HasSubstr("frame-ancestors 'none'")) << target;
    EXPECT_EQ(reply.Header("Cache-Control"), "no-store") << target;
    EXPECT_THAT(reply.body, Not(HasSubstr("\x1b"))) << target;
  }
  EXPECT_THAT(server.Get("traces").body, HasSubstr(kScript)) << "the pages set it as text";
  const WebReply text = server.Get("text?report=load");
  EXPECT_EQ(text.Header("Content-Type"), "text/plain; charset=utf-8");
  EXPECT_EQ(text.Header("Content-Disposition"), "attachment; filename=\"load.txt\"");
}

TEST_F(ViewSecurity, WrongParametersAreRefused) {
  ViewServer server(Arguments());
  (void)server.LogIn();
  const std::string many = "&field=a&field=b&field=c&field=d&field=e&field=f&field=g&field=h&field=i";
  for (const std::string& target :
       {std::string("chart?report=load&columns=0"), std::string("chart?report=load&columns=4001"),
        std::string("chart?report=load&from=x"), std::string("chart?report=load&to=99999999999999999999"),
        "chart?report=load" + many, std::string("records?report=load&newest=5001"),
        std::string("records?report=load&newest=-1"), std::string("events?view=nothing"), std::string("changes"),
        std::string("traces?level=loud"), "records?report=load&filter=" + std::string(600, 'x')}) {
    const WebReply reply = server.Get(target);
    EXPECT_EQ(reply.status, 400) << target;
    EXPECT_THAT(reply.body, HasSubstr("\"code\":\"QX607\"")) << target;
  }
  EXPECT_EQ(server.Get("chart?report=load&field=cpu&from=9223372036854775807&to=-9223372036854775808").status, 200);
  EXPECT_EQ(server.Get("records?report=load&after=nonsense").status, 200);
}

TEST_F(ViewSecurity, OversizedAndEndlessRequestsNeedNoMemory) {
  ViewServer server(Arguments());
  (void)server.LogIn();
  EXPECT_EQ(server.Ask({.method = "POST", .target = "/api/v1/session", .body = std::string(2000, 'x')}).status, 413);
  EXPECT_THAT(server.Ask({.target = "/" + std::string(20'000, 'x')}).status, AnyOf(0, 414, 431, 413));
  EXPECT_THAT(server.Ask({.target = "/", .headers = {{"X", std::string(20'000, 'x')}}}).status, AnyOf(0, 431, 413));
  std::vector<WebConnection> connections;
  for (int i = 0; i < 50; ++i) connections.emplace_back(server.Port());
  for (const WebConnection& connection : connections) {
    (void)connection.Send("GET / HTTP/1.1\r\nHost: " + server.Host() + "\r\n");
    const std::string line = "X-" + std::string(500, 'x') + ": y\r\n";
    for (int i = 0; i < 1000 && connection.Send(line); ++i) continue;
  }
  EXPECT_EQ(server.Get("overview").status, 200);
  EXPECT_LT(server.PeakKb(), 64 * 1024);
}

TEST_F(ViewSecurity, ChunkedBodyWithoutEndIsCutOff) {
  ViewServer server(Arguments());
  WebConnection connection(server.Port());
  ASSERT_TRUE(connection.Send("POST /api/v1/session HTTP/1.1\r\nHost: " + server.Host() +
                              "\r\nTransfer-Encoding: chunked\r\n\r\n"));
  const std::string chunk = "400\r\n" + std::string(1024, 'x') + "\r\n";
  for (int i = 0; i < 100 && connection.Send(chunk); ++i) continue;
  EXPECT_TRUE(connection.WaitForEnd(milliseconds(2000)));
  EXPECT_THAT(connection.Text(), Not(HasSubstr("200")));
}

TEST_F(ViewSecurity, IdleConnectionsAndStreamsDoNotDelayOthers) {
  ViewServer server(Arguments());
  (void)server.LogIn();
  std::vector<WebConnection> connections;
  for (int i = 0; i < 200; ++i) {
    connections.emplace_back(server.Port());
    ASSERT_TRUE(connections.back().IsOpen());
  }
  for (int i = 0; i < 200; ++i)
    connections.push_back(server.Events(i % 2 == 0 ? "view=overview" : "view=report&report=load"));
  for (const char* const target : {"records?report=load", "overview", "chart?report=load&field=cpu"}) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(server.Get(target).status, 200);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(100)) << target;
  }
  Append("load", "2026-01-31 10:20:31 cpu=99%");
  for (int i = 201; i < 400; i += 2)
    EXPECT_TRUE(connections[static_cast<std::size_t>(i)].WaitFor("cpu=99%", milliseconds(5000)));
  EXPECT_LT(server.PeakKb(), 64 * 1024);
}

// If the work were not done in steps, the first of the other requests would wait until the chart is complete.
TEST_F(ViewSecurity, FirstChartOfALargeReportDoesNotDelayOthers) {
  constexpr std::uint32_t kRecords = 200'000;
  Writer writer;
  ASSERT_FALSE(writer.Open(dir_.File("reports/large"), kRecords).Failed());
  const std::vector<std::string> texts(kRecords, "2026-01-31 10:20:30 cpu=12%");
  ASSERT_FALSE(writer.Append(texts).Failed());
  ViewServer server(Arguments());
  (void)server.LogIn();
  WebConnection large(server.Port());
  ASSERT_TRUE(large.Send(server.Bytes({.target = "/api/v1/chart?report=large&field=cpu"})));
  const auto sent = steady_clock::now();
  std::vector<steady_clock::duration> delays;
  do {
    const auto begin = steady_clock::now();
    EXPECT_EQ(server.Get(delays.size() % 2 == 0 ? "records?report=load" : "chart?report=load&field=cpu").status, 200);
    delays.push_back(steady_clock::now() - begin);
  } while (!large.WaitFor("[12.0,12.0,12.0]", milliseconds(1)) && delays.size() < 10'000);
  const steady_clock::duration total = steady_clock::now() - sent;
  ASSERT_GE(delays.size(), 2U) << large.Text();
  std::sort(delays.begin(), delays.end());
  const steady_clock::duration limit =
      std::max<steady_clock::duration>(milliseconds(100), total / 3);  // a busy machine
  EXPECT_LT(delays[delays.size() / 2], limit);
}

TEST_F(ViewSecurity, StreamsAreLimitedAndOthersAreAnsweredThen) {
  ViewServer server(Arguments());
  (void)server.LogIn();
  std::vector<WebConnection> streams;
  for (int i = 0; i < 400; ++i) streams.push_back(server.Events("view=report&report=load"));
  const WebReply reply = server.Get("events?view=overview");
  EXPECT_EQ(reply.status, 503);
  EXPECT_THAT(reply.body, HasSubstr("\"code\":\"QX610\""));
  EXPECT_EQ(server.Get("overview").status, 200);
}

// Starts qxview with these words after the state directory. Returns its exit code; `problem` gets its message.
int StartRefused(const TempDir& dir, const std::string& words, std::string& problem) {
  const std::string command =
      std::string(QX_QXVIEW) + " --state " + dir.File("state") + " " + words + " 2>" + dir.File("problem");
  const int status = std::system(("exec timeout 20 " + command).c_str());
  problem = ReadFile(dir.File("problem"));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(ViewSecurity, ForeignAddressesAreRefusedAtTheStart) {
  std::string problem;
  for (const char* const address :
       {"0.0.0.0:8070", "192.0.2.1:8070", "[::]:8070", "localhost:8070", "8070", "127.0.0.1:x"}) {
    EXPECT_NE(StartRefused(dir_, "--reports " + dir_.File("reports") + " --listen " + address, problem), 0);
    EXPECT_THAT(problem, HasSubstr("is no address of this machine's loopback network")) << address;
  }
}

TEST_F(ViewSecurity, RefusedStartSaysWhichOptionToChange) {
  const ViewServer server(Arguments());
  const std::string port = std::to_string(server.Port());
  const std::string reports = "--reports " + dir_.File("reports");
  std::string problem;
  EXPECT_EQ(StartRefused(dir_, reports + " --listen 127.0.0.1:" + port, problem), 6);
  EXPECT_THAT(problem, HasSubstr("Address already in use; give another one with --listen (port 0: any free one)"));
  EXPECT_EQ(StartRefused(dir_, "--reports " + dir_.File("none"), problem), 4);
  EXPECT_THAT(problem, HasSubstr("there is no directory " + dir_.File("none") + "; --reports names another one"));
  EXPECT_EQ(StartRefused(dir_, reports + " --socket ''", problem), 2);
  EXPECT_THAT(problem, HasSubstr("--socket: the path is empty"));
}

}  // namespace qx::test
