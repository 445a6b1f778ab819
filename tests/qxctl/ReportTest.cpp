// Tests qxctl report create, append, cat and info: the commands for a report's own files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class QxctlReport : public testing::Test, protected QxctlFixture {
 protected:
  json Info(const std::string& path) const {
    const Ran ran = Qxctl({"report", "info", path, "--json"});
    EXPECT_EQ(ran.code, 0) << ran.err;
    return json::parse(ran.out);
  }
  std::string IndexBytes(const std::string& name) const { return ReadFile(ReportPath(name) + ".ind"); }
};

std::string Repeated(std::string_view text, int count) {
  std::string repeated;
  for (int i = 0; i < count; ++i) repeated += text;
  return repeated;
}

}  // namespace

TEST_F(QxctlReport, CreateWritesTheRingSizeIntoTheHeader) {
  const Ran ran = Qxctl({"report", "create", "Reports/r", "--slots", "3"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out + ran.err, "");
  EXPECT_EQ(IndexBytes("r"), std::string(12, '\0') + "\x03" + std::string(11, '\0'));
  EXPECT_EQ(ReadFile(ReportPath("r") + ".dat"), "");
  EXPECT_EQ(Info("Reports/r")["maxRecord"], 3);
}

TEST_F(QxctlReport, CreateRefusesWhenEitherFileExists) {
  for (const char* const existing : {".ind", ".dat"}) {
    WriteFile(ReportPath("r") + existing, "precious");
    const Ran ran = Qxctl({"report", "create", "Reports/r", "--slots", "3"});
    EXPECT_EQ(ran.code, 5);
    EXPECT_THAT(ran.err, HasSubstr(std::string("Reports/r") + existing + " exists already"));
    EXPECT_EQ(ReadFile(ReportPath("r") + existing), "precious");
    (void)unlink((ReportPath("r") + existing).c_str());
  }
}

TEST_F(QxctlReport, CreateInAMissingDirectoryIsAnIoFailure) {
  const Ran ran = Qxctl({"report", "create", "nowhere/r", "--slots", "3"});
  EXPECT_EQ(ran.code, 6);
  EXPECT_THAT(ran.err, HasSubstr("No such file or directory"));
}

TEST_F(QxctlReport, CreateWithoutSlotsOrWithZeroIsAUsageError) {
  EXPECT_EQ(Qxctl({"report", "create", "Reports/r"}).code, 2);
  EXPECT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "0"}).code, 2);
  EXPECT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "1073741824"}).code, 2);
  EXPECT_FALSE(Exists(ReportPath("r") + ".ind"));
}

TEST_F(QxctlReport, AppendedTextsArePrintedInAgeOrderAfterAWrap) {
  ASSERT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "3"}).code, 0);
  const Ran ran = Qxctl({"report", "append", "Reports/r", "a", "b", "c", "d"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out + ran.err, "");
  const Ran cat = Qxctl({"report", "cat", "Reports/r"});
  EXPECT_EQ(cat.code, 0);
  EXPECT_EQ(cat.out, "b\r\nc\r\nd\r\n");
  EXPECT_EQ(cat.err, "");
}

TEST_F(QxctlReport, LinesOfStandardInputAreAppendedWithoutTheirLineEnds) {
  ASSERT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "9"}).code, 0);
  EXPECT_EQ(Qxctl({"report", "append", "Reports/r", "first", "-", "last"}, "unix\nother\r\n\nunended").code, 0);
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/r"}).out, "first\r\nunix\r\nother\r\n\r\nunended\r\nlast\r\n");
}

TEST_F(QxctlReport, OutputOfCatCanBeAppendedToGetTheSameBytes) {
  MakeReport("r", 9, {"one", "", "\xE4\xF6\xFC tab\t <&]]> ", " spaces "});
  const std::string printed = Qxctl({"report", "cat", "Reports/r"}).out;
  ASSERT_EQ(Qxctl({"report", "create", "Reports/copy", "--slots", "9"}).code, 0);
  ASSERT_EQ(Qxctl({"report", "append", "Reports/copy", "-"}, printed).code, 0);
  EXPECT_EQ(ReadFile(ReportPath("copy") + ".dat"), ReadFile(ReportPath("r") + ".dat"));
  EXPECT_EQ(IndexBytes("copy"), IndexBytes("r"));
}

TEST_F(QxctlReport, UnreadableTextIsAFindingAndEndsTheAppending) {
  for (const std::string& bad : {std::string("a\nb"), std::string("a\xFF") + "b"}) {
    MakeReport("r", 9, {});
    const Ran ran = Qxctl({"report", "append", "Reports/r", "good", bad, "never"});
    EXPECT_EQ(ran.code, 1);
    EXPECT_THAT(ran.err, StartsWith("qxctl: text 2 has a line feed, a NUL or a byte 0xFF"));
    EXPECT_EQ(Qxctl({"report", "cat", "Reports/r"}).out, "good\r\n");
    (void)unlink((ReportPath("r") + ".ind").c_str());
  }
  const Ran ran = Qxctl({"report", "append", "Reports/r", "-"}, std::string("x\ny\0z\n", 6));
  EXPECT_EQ(ran.code, 4) << "without its index file, nothing may start the report over";
  MakeReport("s", 9, {});
  const Ran nul = Qxctl({"report", "append", "Reports/s", "-"}, std::string("x\ny\0z\nw\n", 8));
  EXPECT_EQ(nul.code, 1);
  EXPECT_THAT(nul.err, StartsWith("qxctl: line 2 of standard input has"));
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/s"}).out, "x\r\n");
}

TEST_F(QxctlReport, ManyLinesAreAppendedUpToTheFirstBadOne) {
  ASSERT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "100000"}).code, 0);
  std::string lines;
  std::string expected;
  for (int i = 1; i <= 70000; ++i) {
    const std::string line = "line " + std::to_string(i);
    lines += line + "\n";
    expected += line + "\r\n";
  }
  const Ran ran = Qxctl({"report", "append", "Reports/r", "-"}, lines + "bad\xFF\nnever\n");
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, StartsWith("qxctl: line 70001 of standard input has a line feed"));
  EXPECT_EQ(ReadFile(ReportPath("r") + ".dat"), expected + "===>\r\n");
}

TEST_F(QxctlReport, LineThatIsTooLongForAReplyIsAFinding) {
  ASSERT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "9"}).code, 0);
  const std::string longest(0x100000 - 3, 'x');
  const Ran ran = Qxctl({"report", "append", "Reports/r", "-"}, longest + "\n" + longest + "y\nnever\n");
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, StartsWith("qxctl: line 2 of standard input is longer than a reply of the module can hold"));
  EXPECT_EQ(ReadFile(ReportPath("r") + ".dat"), longest + "\r\n===>\r\n");
}

// A line that is typed, or that a program writes before it waits, must be appended before a batch is full.
TEST_F(QxctlReport, LineOnAPipeIsAppendedAtOnce) {
  ASSERT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "9"}).code, 0);
  std::FILE* const pipe = popen((QxctlPath() + " report append " + ReportPath("r") + " -").c_str(), "w");
  ASSERT_NE(pipe, nullptr);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  std::string expected;
  for (const char* line : {"one", "two", "three"}) {
    ASSERT_GT(std::fprintf(pipe, "%s\n", line), 0);
    ASSERT_EQ(std::fflush(pipe), 0);
    expected += std::string(line) + "\r\n";
    while (ReadFile(ReportPath("r") + ".dat") != expected + "===>\r\n" && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    ASSERT_EQ(ReadFile(ReportPath("r") + ".dat"), expected + "===>\r\n");
  }
  EXPECT_EQ(pclose(pipe), 0);
}

TEST_F(QxctlReport, AppendNeverStartsAReportOver) {
  MakeReport("r", 3, {"precious"});
  const std::string data = ReadFile(ReportPath("r") + ".dat");
  ASSERT_EQ(unlink((ReportPath("r") + ".ind").c_str()), 0);
  const Ran ran = Qxctl({"report", "append", "Reports/r", "x"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_THAT(ran.err, HasSubstr("qxctl: there is no Reports/r.ind"));
  EXPECT_EQ(ReadFile(ReportPath("r") + ".dat"), data);
}

TEST_F(QxctlReport, MissingReportIsNotFoundAndTheMessageExplainsPath) {
  for (const char* const command : {"cat", "info"}) {
    const Ran ran = Qxctl({"report", command, "Reports/none"});
    EXPECT_EQ(ran.code, 4);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "qxctl: no report none in Reports, which has no reports; \"qxctl report create\" makes one\n");
  }
}

TEST_F(QxctlReport, FileThatIsNotRegularIsAnIoFailure) {
  ASSERT_EQ(mkfifo((ReportPath("r") + ".ind").c_str(), 0600), 0);
  WriteFile(ReportPath("r") + ".dat", "");
  for (const char* const command : {"cat", "info"}) EXPECT_EQ(Qxctl({"report", command, "Reports/r"}).code, 6);
  EXPECT_EQ(Qxctl({"report", "append", "Reports/r", "x"}).code, 6);
}

TEST_F(QxctlReport, InfoShowsTheHeaderTheSizesAndTheRing) {
  MakeReport("r", 3, {"a", "b", "c", "d"});
  const json info = Info("Reports/r");
  EXPECT_EQ(info, json::parse(R"({
    "path": "Reports/r", "ring": "full", "writePosition": 12, "fileEnd": 12, "elementCount": 4, "maxRecord": 3,
    "highestIndex": 3, "oldestIndex": 1, "recordsUntilRestart": 2, "indexFileBytes": 36, "dataFileBytes": 18})"));
}

TEST_F(QxctlReport, InfoNamesEachStateOfTheRing) {
  MakeReport("unwritten", 3, {});
  EXPECT_EQ(Info("Reports/unwritten")["ring"], "unwritten");
  ASSERT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "2"}).code, 0);
  EXPECT_EQ(Info("Reports/r")["ring"], "empty");
  Append("r", {"a"});
  EXPECT_EQ(Info("Reports/r")["ring"], "filling");
  Append("r", {"b"});
  EXPECT_EQ(Info("Reports/r")["ring"], "full");
}

TEST_F(QxctlReport, ContradictoryHeaderIsAFinding) {
  MakeReport("r", 3, {"a", "b", "c"});
  std::string index = IndexBytes("r");
  index[16] = 4;  // more slots in use than there are
  WriteFile(ReportPath("r") + ".ind", index);
  const Ran ran = Qxctl({"report", "info", "Reports/r", "--json"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(json::parse(ran.out)["ring"], "damaged");
  EXPECT_THAT(ran.err, HasSubstr("contradicts itself"));
}

TEST_F(QxctlReport, CatReadsNoSlotsBeyondTheIndexFile) {
  MakeReport("r", 3, {"a", "b", "c"});
  std::string index = IndexBytes("r");
  index.replace(12, 8, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF");  // slots in the ring and in use
  WriteFile(ReportPath("r") + ".ind", index);
  const Ran ran = Qxctl({"report", "cat", "Reports/r"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "a\r\nb\r\nc\r\n");
  EXPECT_EQ(ran.err, "qxctl: the header counts 4294967295 records, but Reports/r.ind holds 3 slots\n");
}

TEST_F(QxctlReport, OutputThatCannotBeWrittenIsAnIoFailure) {
  MakeReport("r", 3, {"a"});
  const Ran full = Qxctl({"report", "cat", "Reports/r"}, Start{.directory = {}, .out_file = "/dev/full"});
  EXPECT_EQ(full.code, 6);
  EXPECT_EQ(full.err, "qxctl: cannot write standard output: No space left on device\n");
  const Ran closed = Qxctl({"report", "cat", "Reports/r"}, Start{.directory = {}, .close_out = true});
  EXPECT_EQ(closed.code, 6);
  EXPECT_THAT(closed.err, HasSubstr("Bad file descriptor"));
}

TEST_F(QxctlReport, ReaderThatEndsEndsItWithSigpipeAndWithoutAMessage) {
  MakeReport("r", 20000, std::vector<std::string>(20000, Repeated("text ", 20)));
  Start start = StartHere();
  Child child({"/bin/sh", "-c", "(\"$0\" report cat Reports/r; echo \"code $?\" >&2) | head -c 1", QxctlPath()}, start);
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.out, "t");
  EXPECT_EQ(ran.err, "code 141\n");
}

TEST_F(QxctlReport, ReaderThatGoesAwayIsAnIoFailureIfTheParentIgnoresSigpipe) {
  MakeReport("r", 20000, std::vector<std::string>(20000, Repeated("text ", 20)));
  const std::string script = "(trap '' PIPE; \"$0\" report cat Reports/r; echo \"code $?\" >&2) | head -c 1";
  const Ran ran = Child({"/bin/sh", "-c", script, QxctlPath()}, StartHere()).Wait();
  EXPECT_EQ(ran.err, "qxctl: cannot write standard output: Broken pipe\ncode 6\n");
}

TEST_F(QxctlReport, EmptyReportPrintsNothing) {
  ASSERT_EQ(Qxctl({"report", "create", "Reports/r", "--slots", "3"}).code, 0);
  const Ran ran = Qxctl({"report", "cat", "Reports/r"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out + ran.err, "");
}

}  // namespace qx::test
