// Tests qxctl follow: records as they appear, and changes of the report meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

using Texts = std::vector<std::string>;

class QxctlFollow : public testing::Test, protected QxctlFixture {
 protected:
  static Texts Arguments(Texts more) {
    more.insert(more.begin(), {"follow", "load", "--interval", "0.01"});
    return more;
  }
  Ran Follow(Texts more) const { return Qxctl(Arguments(std::move(more))); }
  static Texts Command(Texts more) {
    Texts command = Arguments(std::move(more));
    command.insert(command.begin(), QxctlPath());
    return command;
  }
  // Changes the report while the follower is stopped.
  template <typename Change>
  static void WhileStopped(const Child& child, Change change) {
    child.Kill(SIGSTOP);
    change();
    child.Kill(SIGCONT);
  }
  void RemoveReport() const {
    for (const char* const end : {".ind", ".dat"}) (void)unlink((ReportPath("load") + end).c_str());
  }
};

std::vector<json> Lines(const std::string& text) {
  std::vector<json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line));
  return lines;
}

// Reads until `text` has arrived.
std::string ReadUntil(Child& child, const std::string& text) {
  std::string out;
  while (out.find(text) == std::string::npos) {
    const std::string some = child.ReadSome();
    if (some.empty()) return out;
    out += some;
  }
  return out;
}

}  // namespace

TEST_F(QxctlFollow, ExistingRecordsComeFirstAndCountEndsIt) {
  MakeReport("load", 9, {"a", "b", "c"});
  const Ran ran = Follow({"--count", "2"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "a\r\nb\r\n");
  EXPECT_EQ(ran.err, "load: 2 records, gaps 0, ambiguous 0, started over 0\n");
}

TEST_F(QxctlFollow, NewRecordsArePrintedAlsoWhenTheRingAdvances) {
  MakeReport("load", 3, {"a", "b", "c"});
  Child child(Command({"--count", "6"}), StartHere());
  EXPECT_EQ(ReadUntil(child, "c\r\n"), "a\r\nb\r\nc\r\n");
  Append("load", {"d"});
  EXPECT_EQ(ReadUntil(child, "d\r\n"), "d\r\n");
  Append("load", {"e", "f"});
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.out, "e\r\nf\r\n");
  EXPECT_EQ(ran.code, 0) << ran.err;
}

TEST_F(QxctlFollow, ForEndsItAfterTheTime) {
  MakeReport("load", 9, {"a"});
  const Ran ran = Follow({"--for", "0.05"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "a\r\n");
}

TEST_F(QxctlFollow, FromNowLeavesOutExistingRecords) {
  MakeReport("load", 9, {"a", "b"});
  const Ran ran = Follow({"--from-now", "--for", "0.05"});
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.code, 0) << ran.err;
}

TEST_F(QxctlFollow, FromNowPrintsAllRecordsOfALaterReport) {
  Child child(Command({"--from-now", "--wait", "--count", "2", "--json"}), StartHere());
  ReadUntil(child, "missing");
  MakeReport("load", 9, {"a", "b"});
  EXPECT_THAT(child.Wait().out, HasSubstr("\"text\":\"a\""));
}

TEST_F(QxctlFollow, MissingReportIsNotFound) {
  const Ran ran = Follow({"--for", "5"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_THAT(ran.err, HasSubstr("qxctl: no report load in " + Dir().File("Reports")));
}

TEST_F(QxctlFollow, WaitWaitsForTheReport) {
  Child child(Command({"--wait", "--count", "1", "--json"}), StartHere());
  EXPECT_EQ(ReadUntil(child, "\n"), "{\"kind\":\"missing\"}\n");
  MakeReport("load", 9, {"a"});
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(Lines(ran.out).front(), json::parse(R"({"kind": "record", "index": 0, "text": "a"})"));
}

TEST_F(QxctlFollow, GapIsReportedAndCounted) {
  MakeReport("load", 3, {"a", "b", "c"});
  Child child(Command({"--count", "6", "--json"}), StartHere());
  ReadUntil(child, "\"c\"}\n");
  WhileStopped(child, [&] { Append("load", {"d", "e", "f", "g"}); });
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr("qxctl: load: gap:"));
  const std::vector<json> lines = Lines(ran.out);
  ASSERT_EQ(lines.size(), 5U) << ran.out;
  EXPECT_EQ(lines[0], json::parse(R"({"kind": "gap", "lost": null})"));
  EXPECT_EQ(lines[1], json::parse(R"({"kind": "record", "index": 3, "text": "e"})"));
  EXPECT_EQ(lines[4], json::parse(R"({"kind": "end", "report": "load", "records": 6, "gaps": 1, "recordsLost": null,
                                      "ambiguous": 0, "startedOver": 0, "failedCalls": 0, "exitCode": 1})"));
}

TEST_F(QxctlFollow, RestartedReportIsReportedAndFollowed) {
  MakeReport("load", 9, {"a", "b", "c"});
  Child child(Command({"--count", "4"}), StartHere());
  ReadUntil(child, "c\r\n");
  WhileStopped(child, [&] {
    RemoveReport();
    MakeReport("load", 9, {"x"});
  });
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "x\r\n");
  EXPECT_THAT(ran.err, HasSubstr("qxctl: load: started over:"));
}

TEST_F(QxctlFollow, ReportThatIsMissingForAMomentIsWaitedFor) {
  MakeReport("load", 9, {"a"});
  Child child(Command({"--count", "2", "--json"}), StartHere());
  ReadUntil(child, "\"a\"}\n");
  RemoveReport();
  EXPECT_EQ(ReadUntil(child, "missing"), "{\"kind\":\"missing\"}\n");
  MakeReport("load", 9, {"a", "b"});
  const Ran ran = child.Wait();
  EXPECT_THAT(ran.out, HasSubstr("\"b\""));
  EXPECT_EQ(ran.code, 0) << ran.err;
}

TEST_F(QxctlFollow, EqualRecordsAreAmbiguousAndReportedOnce) {
  MakeReport("load", 9, {"ok", "ok", "ok"});
  Child child(Command({"--count", "5"}), StartHere());
  ReadUntil(child, "ok\r\nok\r\nok\r\n");
  Append("load", {"ok"});
  ReadUntil(child, "ok\r\n");
  Append("load", {"ok"});
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.err.find("ambiguous: records repeat"), ran.err.rfind("ambiguous: records repeat"));
  EXPECT_THAT(ran.err, HasSubstr("load: 5 records"));
}

TEST_F(QxctlFollow, SignalEndsItWithTheSummary) {
  for (const int signal : {SIGINT, SIGTERM}) {
    RemoveReport();
    MakeReport("load", 9, {"a"});
    Child child(Command({"--json"}), StartHere());
    ReadUntil(child, "\"a\"}\n");
    child.Kill(signal);
    const Ran ran = child.Wait();
    EXPECT_EQ(ran.code, -signal);
    ASSERT_EQ(Lines(ran.out).size(), 1U) << ran.out;
    EXPECT_EQ(Lines(ran.out)[0]["kind"], "end");
    EXPECT_EQ(ran.err, "");
  }
}

// Records and summary go to the same terminal. If the terminal is nearly full, `poll` returns at once, and the write
// waits. If it is full, the summary waits.
TEST_F(QxctlFollow, SignalEndsItOnATerminalThatNobodyReads) {
  MakeReport("load", 500, Texts(500, std::string(1000, 'x')));
  Start start = StartHere();
  start.out_is_terminal = true;
  const std::string fill =
      "for size in 4096 1; do dd if=/dev/zero of=/proc/self/fd/1 oflag=nonblock bs=$size; done 2>&-; ";
#if defined(SYS_poll)
  constexpr long kPollCall = SYS_poll;
#else
  constexpr long kPollCall = SYS_ppoll;
#endif
  const std::pair<std::string, long> terminals[] = {{"", SYS_write}, {fill, kPollCall}};
  for (const auto& [prepare, call] : terminals) {
    const std::vector<std::string> command = {"/bin/sh", "-c", prepare + "exec \"$0\" follow load 2>&1", QxctlPath()};
    std::optional<Child> child;
    bool is_waiting = false;
    for (int tries = 20; !is_waiting && tries > 0; --tries) {  // how full the terminal is depends on the kernel
      child.emplace(command, start);
      is_waiting = child->WaitUntilItIsIn(call, 1000);
    }
    ASSERT_TRUE(is_waiting) << call;
    child->Kill(SIGTERM);
    EXPECT_TRUE(child->WaitUntilItEnds()) << call;
    EXPECT_EQ(child->Wait().code, -SIGTERM);
  }
}

TEST_F(QxctlFollow, UnwritableOutputEndsIt) {
  MakeReport("load", 9, {"a"});
  Start start = StartHere();
  start.out_file = "/dev/full";
  EXPECT_EQ(Qxctl(Arguments({"--for", "5"}), start).code, 6);
}

// Nothing is written after the record, so qxctl must notice the end of the reader itself.
TEST_F(QxctlFollow, ReaderThatGoesAwayEndsItWithoutWaitingForARecord) {
  MakeReport("load", 9, {"a"});
  for (const std::string more : {"", " --json"}) {
    const std::string script =
        "(timeout 60 \"$0\" follow load --interval 1000" + more + "; echo \"code $?\" >&2) | head -1";
    const Ran ran = Child({"bash", "-c", script, QxctlPath()}, StartHere()).Wait();
    EXPECT_NE(ran.out, "");
    EXPECT_EQ(ran.err, "code 141\n");
  }
}

TEST_F(QxctlFollow, ReaderThatGoesAwayIsAnIoFailureIfTheParentIgnoresSigpipe) {
  MakeReport("load", 9, {"a"});
  const std::string script =
      "(trap '' PIPE; timeout 60 \"$0\" follow load --interval 1000 --quiet; echo \"code $?\" >&2) | head -1";
  const Ran ran = Child({"bash", "-c", script, QxctlPath()}, StartHere()).Wait();
  EXPECT_EQ(ran.err, "qxctl: cannot write standard output: Broken pipe\ncode 6\n");
}

TEST_F(QxctlFollow, RefusedCallerGetsNothing) {
  MakeReport("load", 9, {"secret"});
  const Ran ran = Follow({"--user", "bob", "--for", "5"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_EQ(ran.out, "");
}

// --- with a module that returns prepared replies

namespace {

class QxctlFollowOfAFakeModule : public QxctlFollow {
 protected:
  QxctlFollowOfAFakeModule() { std::filesystem::create_directory(Dir().File("fake")); }
  void Reply(int number, const std::string& reply) const {
    WriteFile(Dir().File("fake/reply." + std::to_string(number)), reply);
  }
  Ran FollowFake(const Texts& more) const {
    Start start = StartHere();
    start.environment["QX_MODULE"] = FakeModulePath();
    start.environment["QX_FAKE"] = Dir().File("fake");
    return Qxctl(Arguments(more), start);
  }
};

const char kOneRecord[] = "0\n<ReportData StartIndex=\"0\" NextIndex=\"1\"><![CDATA[a\r\n]]></ReportData>";
const char kFailure[] = "12\n<Error Msg=\"Report data for report 'load' could not be read\" LastError=\"5\"/>";

}  // namespace

// A read is tried three times; then the report is read again at the next interval.
TEST_F(QxctlFollowOfAFakeModule, FailedReadsAreReportedOnceAndTriedAgain) {
  for (int i = 1; i <= 18; ++i) Reply(i, kFailure);
  Reply(19, kOneRecord);
  Reply(22, kOneRecord);  // 20 and 21 request what follows the record; 22 checks that it is still there
  const Ran ran = FollowFake({"--count", "1"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "a\r\n");
  EXPECT_THAT(ran.err, HasSubstr("could not be read: Input/output error; trying again"));
  EXPECT_EQ(ran.err.find("trying again"), ran.err.rfind("trying again")) << ran.err;
}

TEST_F(QxctlFollowOfAFakeModule, ReadThatFailsTwiceIsNotReported) {
  Reply(1, kFailure);
  Reply(2, kFailure);
  Reply(3, kOneRecord);
  Reply(6, kOneRecord);
  const Ran ran = FollowFake({"--count", "1"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, "a\r\n");
}

TEST_F(QxctlFollowOfAFakeModule, FromNowPrintsOnlyLaterRecords) {
  Reply(1, kOneRecord);
  Reply(4, kOneRecord);
  Reply(5, kOneRecord);  // the index of a; 6 requests what follows it
  Reply(6, "0\n<ReportData StartIndex=\"1\" NextIndex=\"2\"><![CDATA[b\r\n]]></ReportData>");
  Reply(9, "0\n<ReportData StartIndex=\"0\" NextIndex=\"2\"><![CDATA[a\r\nb\r\n]]></ReportData>");
  const Ran ran = FollowFake({"--from-now", "--count", "1"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, "b\r\n");
}

TEST_F(QxctlFollowOfAFakeModule, ReportThatStaysUnreadableDoesNotEndIt) {
  for (int i = 1; i <= 1000; ++i) Reply(i, kFailure);
  const Ran ran = FollowFake({"--json", "--for", "0.6"});
  EXPECT_EQ(ran.code, 1);
  const std::vector<json> lines = Lines(ran.out);
  ASSERT_EQ(lines.size(), 2U) << ran.out;
  EXPECT_EQ(lines[0]["kind"], "failure");
  EXPECT_GT(lines[1]["failedCalls"], 5);
  EXPECT_EQ(lines[1]["exitCode"], 1);
}

TEST_F(QxctlFollowOfAFakeModule, ModuleThatAlwaysContradictsItselfEndsIt) {
  for (int i = 1; i <= 300; ++i)
    Reply(i, "0\n<ReportData StartIndex=\"7\" NextIndex=\"8\"><![CDATA[a\r\n]]></ReportData>");
  const Ran ran = FollowFake({"--json"});
  EXPECT_EQ(ran.code, 3);
  EXPECT_EQ(Lines(ran.out).back()["failedCalls"], 5);
}

}  // namespace qx::test
