// Tests qxctl fetch: a whole report through the module.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const char kPrivilege[] = "AccessPerformanceMgr";

class QxctlFetch : public testing::Test, protected QxctlFixture {
 protected:
  json FetchJson(const std::string& name, std::vector<std::string> more = {}) const {
    std::vector<std::string> arguments = {"fetch", name, "-o", "out", "--json"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return json::parse(Qxctl(arguments).out);
  }
  std::string Out() const { return ReadFile(Dir().File("out")); }
  std::vector<std::string> FilesHere() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(Dir().Path())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
};

// The records as they are in the data file, one after another.
std::string Stored(const std::vector<std::string>& texts) {
  std::string stored;
  for (const std::string& text : texts) stored += text + "\r\n";
  return stored;
}

std::vector<std::string> Numbered(int count, const std::string& text) {
  std::vector<std::string> texts;
  for (int i = 0; i < count; ++i) texts.push_back(std::to_string(i) + " " + text);
  return texts;
}

// Texts of every byte that a record can have, with many strings that are special in markup.
std::vector<std::string> RandomTexts(std::size_t bytes) {
  std::mt19937_64 random(Seed("QxctlFetch"));
  const std::vector<std::string> pieces = {"]]>", "<![CDATA[", "]]",    ">",   "&amp;",         "<Error/>",
                                           "\r",  "\t",        "&#65;", "\"'", "</ReportData>", "]]]]><![CDATA[>",
                                           " "};
  std::vector<std::string> texts;
  for (std::size_t total = 0; total < bytes; total += texts.back().size() + 2) {
    std::string text;
    for (std::uint64_t i = random() % 60; i > 0; --i) {
      const auto byte = static_cast<char>(1 + random() % 254);  // never NUL or 0xFF
      text += random() % 3 == 0 ? pieces[random() % pieces.size()] : std::string(byte == '\n' ? 0 : 1, byte);
    }
    texts.push_back(text);
  }
  return texts;
}

}  // namespace

TEST_F(QxctlFetch, RecordsGoToStandardOutputAndTheSummaryToStandardError) {
  MakeReport("load", 9, {"one", "two"});
  const Ran ran = Qxctl({"fetch", "load"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "one\r\ntwo\r\n");
  EXPECT_THAT(ran.err, testing::MatchesRegex("load: 2 records, 1 chunk, 10 bytes, [0-9.]+ ms in the module, [0-9.]+ "
                                             "MB/s\n"));
}

TEST_F(QxctlFetch, ThreeMebibytesOfRandomBytesArriveUnchanged) {
  const std::vector<std::string> texts = RandomTexts(std::size_t{7} << 19);
  MakeReport("load", static_cast<unsigned>(texts.size()), texts);
  const json summary = FetchJson("load");
  EXPECT_EQ(summary["records"], texts.size());
  EXPECT_EQ(summary["bytes"], Stored(texts).size());
  EXPECT_GE(summary["chunks"], 4);
  EXPECT_TRUE(Out() == Stored(texts));
  EXPECT_TRUE(Qxctl({"report", "cat", "Reports/load"}).out == Out());
}

TEST_F(QxctlFetch, WrappedRingIsPrintedOldestFirst) {
  const std::vector<std::string> texts = Numbered(1000, "text");
  MakeReport("load", 120, texts);
  EXPECT_EQ(Qxctl({"fetch", "load"}).out, Stored({texts.end() - 120, texts.end()}));
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/load"}).out, Stored({texts.end() - 120, texts.end()}));
}

TEST_F(QxctlFetch, SmallChunksPrintTheSameBytes) {
  const std::vector<std::string> texts = Numbered(10, "text");
  MakeReport("load", 7, texts);
  const json summary = FetchJson("load", {"--chunk-records", "2"});
  EXPECT_EQ(summary["chunks"], 4);
  EXPECT_EQ(Out(), Stored({texts.end() - 7, texts.end()}));
}

TEST_F(QxctlFetch, RecordsThatEndEarlyArePrintedAsAReaderSeesThem) {
  MakeReport("load", 9, {"a\nlost", "b\xFFlost", "", "c"});
  const Ran ran = Qxctl({"fetch", "load"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, "a\nb\xFF\r\nc\r\n");
  EXPECT_EQ(ran.out, Qxctl({"report", "cat", "Reports/load"}).out);
}

TEST_F(QxctlFetch, RecordCutAtANulIsNotAChange) {
  MakeReport("load", 9, {"abcdef", "second"});
  std::string data = ReadFile(ReportPath("load") + ".dat");
  data[3] = '\0';
  WriteFile(ReportPath("load") + ".dat", data);
  const Ran ran = Qxctl({"fetch", "load"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, "abcsecond\r\n");
}

TEST_F(QxctlFetch, EmptyReportIsCompleteWithoutRecords) {
  MakeReport("load", 9, {});
  const Ran ran = Qxctl({"fetch", "load", "-o", "out"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(Out(), "");
  EXPECT_THAT(ran.err, HasSubstr("load: 0 records, 0 chunks, 0 bytes"));
}

TEST_F(QxctlFetch, JsonSummaryHasTheDocumentedKeys) {
  MakeReport("load", 9, {"one", "two"});
  const Ran ran = Qxctl({"fetch", "load", "-o", "out", "--json"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.err, "");
  json summary = json::parse(ran.out);
  EXPECT_GT(summary["seconds"], 0);
  EXPECT_GT(summary["bytesPerSecond"], 0);
  summary.erase("seconds");
  summary.erase("bytesPerSecond");
  EXPECT_EQ(summary, json::parse(R"({"report": "load", "output": "out", "outcome": "complete", "message": "",
                                     "records": 2, "chunks": 1, "bytes": 10, "exitCode": 0})"));
}

TEST_F(QxctlFetch, JsonWithoutAnOutputFileIsAUsageError) {
  MakeReport("load", 9, {"one"});
  const Ran ran = Qxctl({"fetch", "load", "--json"});
  EXPECT_EQ(ran.code, 2);
  EXPECT_THAT(ran.out, HasSubstr("\"problem\":\"--json needs --output;"));
  EXPECT_THAT(ran.out, Not(HasSubstr("one")));
}

TEST_F(QxctlFetch, MissingReportIsNotFoundAndLeavesTheOldFile) {
  WriteFile(Dir().File("out"), "old");
  const Ran ran = Qxctl({"fetch", "none", "-o", "out"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_EQ(ran.out, "");
  EXPECT_THAT(ran.err, HasSubstr("qxctl: no report none in " + Dir().File("Reports") + ", which has no reports"));
  EXPECT_EQ(Out(), "old");
  EXPECT_THAT(FilesHere(), testing::ElementsAre("Reports", "out"));
  EXPECT_EQ(FetchJson("none")["outcome"], "not found");
}

TEST_F(QxctlFetch, ReportThatCannotBeOpenedIsAnIoFailure) {
  ASSERT_EQ(mkfifo((ReportPath("load") + ".ind").c_str(), 0600), 0);
  WriteFile(ReportPath("load") + ".dat", "");
  const Ran ran = Qxctl({"fetch", "load"});
  EXPECT_EQ(ran.code, 6);
  EXPECT_THAT(ran.err, HasSubstr("Invalid argument"));
}

TEST_F(QxctlFetch, CallerWithoutThePrivilegeIsRefusedAndGetsNoRecordByte) {
  MakeReport("load", 9, {"secret"});
  for (const std::vector<std::string>& caller :
       {std::vector<std::string>{"--user", "bob"},
        {"--privilege", "accessperformancemgr"},
        {"--user", "bob", "--privilege", "Operations:Other", "--privilege", "Other"}}) {
    std::vector<std::string> arguments = {"fetch", "load"};
    arguments.insert(arguments.end(), caller.begin(), caller.end());
    const Ran ran = Qxctl(arguments);
    EXPECT_EQ(ran.code, 5);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "qxctl: the module refuses: the caller lacks the privilege \"AccessPerformanceMgr\"\n");
  }
  EXPECT_EQ(FetchJson("load", {"--user", "bob"})["outcome"], "refused");
  EXPECT_FALSE(Exists(Dir().File("out")));
}

TEST_F(QxctlFetch, CallerWithThePrivilegeGetsTheRecords) {
  MakeReport("load", 9, {"secret"});
  for (const std::string& privilege : {std::string(kPrivilege), std::string("Operations:") + kPrivilege}) {
    const Ran ran = Qxctl({"fetch", "load", "--user", "bob", "--privilege", "Other:x", "--privilege", privilege});
    EXPECT_EQ(ran.code, 0) << ran.err;
    EXPECT_EQ(ran.out, "secret\r\n");
  }
}

TEST_F(QxctlFetch, BlockWithoutThreadIdIsRefused) {
  MakeReport("load", 9, {"one"});
  const Ran ran = Qxctl({"fetch", "load", "--omit", "2"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_EQ(ran.err, "qxctl: the module refuses with result -1: krx_gendata thread id is 0\n");
}

// Without element 1 the module has no state between calls: each call with an index opens the report again.
TEST_F(QxctlFetch, WithoutElementOneTheRecordsStillArrive) {
  const std::vector<std::string> texts = Numbered(5, "text");
  MakeReport("load", 9, texts);
  const Ran ran = Qxctl({"fetch", "load", "--omit", "1,14", "--chunk-records", "2"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, Stored(texts));
}

TEST_F(QxctlFetch, OutputThatCannotBeWrittenIsAnIoFailure) {
  MakeReport("load", 9, {"one"});
  const Ran standard = Qxctl({"fetch", "load"}, [this] {
    Start start = StartHere();
    start.out_file = "/dev/full";
    return start;
  }());
  EXPECT_EQ(standard.code, 6);
  EXPECT_THAT(standard.err, HasSubstr("cannot write standard output: No space left on device"));
  const Ran device = Qxctl({"fetch", "load", "-o", "/dev/full"});
  EXPECT_EQ(device.code, 6);
  EXPECT_THAT(device.err, HasSubstr("cannot write /dev/full: No space left on device"));
  const Ran nowhere = Qxctl({"fetch", "load", "-o", "nowhere/out"});
  EXPECT_EQ(nowhere.code, 6);
  EXPECT_THAT(nowhere.err, HasSubstr("cannot create nowhere/out: No such file or directory"));
}

// An open returns the lowest free descriptor, so while standard output is closed, the module's log gets descriptor 1.
TEST_F(QxctlFetch, ClosedStandardOutputIsAnIoFailureAndNeverAnotherFile) {
  MakeReport("load", 9, {"one"});
  Start start = StartHere();
  start.close_out = true;
  const Ran ran = Qxctl({"fetch", "load", "--trace", "traces"}, start);
  EXPECT_EQ(ran.code, 6);
  EXPECT_THAT(ran.err, HasSubstr("cannot write standard output: Bad file descriptor"));
  EXPECT_THAT(ReadFile(Dir().File("traces/log.qxremconxfer")), testing::Not(testing::EndsWith("one\r\n")));
}

TEST_F(QxctlFetch, OutputHasTheModeOfTheReplacedFileOrThatOfTheUmask) {
  MakeReport("load", 9, {"one"});
  const mode_t old_mask = umask(027);
  ASSERT_EQ(Qxctl({"fetch", "load", "-o", "out"}).code, 0);
  umask(old_mask);
  struct stat status = {};
  ASSERT_EQ(stat(Dir().File("out").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  ASSERT_EQ(chmod(Dir().File("out").c_str(), 0604), 0);
  ASSERT_EQ(Qxctl({"fetch", "load", "-o", "out"}).code, 0);
  ASSERT_EQ(stat(Dir().File("out").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0604U);
  EXPECT_THAT(FilesHere(), testing::ElementsAre("Reports", "out"));
}

TEST_F(QxctlFetch, SymbolicLinkStaysAndItsTargetIsReplaced) {
  MakeReport("load", 9, {"one"});
  WriteFile(Dir().File("target"), "old");
  ASSERT_EQ(symlink("target", Dir().File("out").c_str()), 0);
  ASSERT_EQ(Qxctl({"fetch", "load", "-o", "out"}).code, 0);
  EXPECT_TRUE(std::filesystem::is_symlink(Dir().File("out")));
  EXPECT_EQ(ReadFile(Dir().File("target")), "one\r\n");
}

// The pipe takes 64 KiB of the first chunk's 1 MiB. While qxctl waits for its reader, the writer of the report
// continues.
TEST_F(QxctlFetch, RingThatAdvancesMeanwhileIsNoticedAtTheEnd) {
  const std::string text(1000, 'x');
  MakeReport("load", 3000, Numbered(3000, text));
  Child child({QxctlPath(), "fetch", "load"}, StartHere());
  ASSERT_THAT(child.ReadSome(), testing::StartsWith("0 xxx"));
  Append("load", {"newer"});
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, 3);
  EXPECT_THAT(ran.err, HasSubstr("the ring advanced while report \"load\" was read"));
}

TEST_F(QxctlFetch, RingThatIsNotFullIsReadAsItWasAtTheStart) {
  const std::vector<std::string> texts = Numbered(3000, std::string(1000, 'x'));
  MakeReport("load", 9000, texts);
  Child child({QxctlPath(), "fetch", "load"}, StartHere());
  const std::string first = child.ReadSome();
  Append("load", {"newer"});
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_TRUE(first + ran.out == Stored(texts));
}

TEST_F(QxctlFetch, ReportThatIsRemovedMeanwhileIsNoticed) {
  MakeReport("load", 3000, Numbered(3000, std::string(1000, 'x')));
  Child child({QxctlPath(), "fetch", "load"}, StartHere());
  ASSERT_NE(child.ReadSome(), "");
  ASSERT_EQ(unlink((ReportPath("load") + ".ind").c_str()), 0);
  EXPECT_EQ(child.Wait().code, 3);
}

TEST_F(QxctlFetch, RecordTooLongForAChunkIsAFindingIfAnotherFollows) {
  MakeReport("load", 9, {"one", "two", std::string(1 << 20, 'x'), "four"});
  const Ran ran = Qxctl({"fetch", "load", "-o", "out"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr("qxctl: record 2 (counted from 0) has 1 MiB or more"));
  EXPECT_EQ(Out(), "one\r\ntwo\r\n");
}

TEST_F(QxctlFetch, InterruptedTransferLeavesNoTemporaryFiles) {
  MakeReport("load", 9000, Numbered(9000, std::string(1000, 'x')));
  std::filesystem::create_directory(Dir().File("tmp"));
  ASSERT_EQ(mkfifo(Dir().File("pipe").c_str(), 0600), 0);
  Start start = StartHere();
  start.environment["TMPDIR"] = Dir().File("tmp");
  Child child({QxctlPath(), "fetch", "load"}, start);
  ASSERT_NE(child.ReadSome(), "");
  child.Kill(SIGTERM);
  EXPECT_EQ(child.Wait().code, -SIGTERM);
  EXPECT_TRUE(std::filesystem::is_empty(Dir().File("tmp")));
}

// --- with a module that returns prepared replies

namespace {

class QxctlFetchOfAFakeModule : public QxctlFetch {
 protected:
  QxctlFetchOfAFakeModule() { std::filesystem::create_directory(Dir().File("fake")); }

  void Reply(int number, const std::string& result_and_reply) const {
    WriteFile(Dir().File("fake/reply." + std::to_string(number)), result_and_reply);
  }
  Ran Fetch(std::vector<std::string> more = {}) const {
    Start start = StartHere();
    start.environment = {{"QX_MODULE", FakeModulePath()}, {"QX_FAKE", Dir().File("fake")}};
    std::vector<std::string> arguments = {"fetch", "load"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Qxctl(arguments, start);
  }
  std::string Request(int number) const { return ReadFile(Dir().File("fake/request." + std::to_string(number))); }
};

std::string Records(int start, int next, const std::string& records) {
  return "0\n<ReportData Name=\"load\" StartIndex=\"" + std::to_string(start) + "\" NextIndex=\"" +
         std::to_string(next) + "\"><![CDATA[" + records + "]]></ReportData>\n";
}

}  // namespace

TEST_F(QxctlFetchOfAFakeModule, RequestsEachNextIndexThenAfterTheEndThenTheFirst) {
  Reply(1, Records(0, 2, "a\r\nb\r\n"));
  Reply(2, Records(2, 3, "c\r\n"));
  Reply(5, Records(0, 1, "a\r\n"));  // 3: no more records; 4: nothing after the end
  const Ran ran = Fetch();
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, "a\r\nb\r\nc\r\n");
  EXPECT_EQ(Request(1), "<ReportData Name=\"load\" StartIndex=\"0\"/>\n");
  EXPECT_EQ(Request(2), "<ReportData Name=\"load\" StartIndex=\"2\"/>\n");
  EXPECT_EQ(Request(3), "<ReportData Name=\"load\" StartIndex=\"3\"/>\n");
  EXPECT_EQ(Request(4), "<ReportData Name=\"load\" StartIndex=\"4\" NrRecords=\"1\"/>\n");
  EXPECT_EQ(Request(5), "<ReportData Name=\"load\" StartIndex=\"0\" NrRecords=\"1\"/>\n");
  EXPECT_FALSE(Exists(Dir().File("fake/request.6")));
}

TEST_F(QxctlFetchOfAFakeModule, WholeTransferUsesOneThreadAndOneBlock) {
  Reply(1, Records(0, 1, "a\r\n"));
  Reply(4, Records(0, 1, "a\r\n"));
  ASSERT_EQ(Fetch({"--thread-id", "7"}).code, 0);
  const std::string first = "GetReports KRX 30400 [1=null 2=7 3=GetReports 5=qxctl 14={15=localhost}]\n";
  const std::string later = "GetReports KRX 30400 [1=kept 2=7 3=GetReports 5=qxctl 14={15=localhost}]\n";
  EXPECT_EQ(ReadFile(Dir().File("fake/calls")),
            "load\nthreadbegin\n" + first + "free\n" + later + later + later + "free\nthreadend kept\nunload\n");
}

TEST_F(QxctlFetchOfAFakeModule, ContradictoryRepliesAreAChange) {
  const std::vector<std::string> replies = {
      Records(5, 6, "a\r\n"),       // not the requested index
      Records(0, 0, "a\r\n"),       // the index stays
      Records(0, -1, "a\r\n"),      // the index goes back
      Records(0, 1, "a\r\nb\r\n"),  // more records than the count
      "0\n<ReportData StartIndex=\"0\">a\r\n</ReportData>",
  };
  for (const std::string& reply : replies) {
    std::filesystem::remove_all(Dir().File("fake"));
    std::filesystem::create_directory(Dir().File("fake"));
    Reply(1, reply);
    WriteFile(Dir().File("out"), "old");
    const Ran ran = Fetch({"-o", "out"});
    EXPECT_EQ(ran.code, 3) << reply << ran.err;
    EXPECT_EQ(Out(), "old") << "the transfer did not come to its end";
  }
}

TEST_F(QxctlFetchOfAFakeModule, DifferentFirstRecordAtTheEndIsAChangeAndTheFileIsKept) {
  Reply(1, Records(0, 2, "a\r\nb\r\n"));
  Reply(4, Records(0, 1, "b\r\n"));
  const Ran ran = Fetch({"-o", "out", "--json"});
  EXPECT_EQ(ran.code, 3);
  const json summary = json::parse(ran.out);
  EXPECT_EQ(summary["outcome"], "changed");
  EXPECT_EQ(summary["exitCode"], 3);
  EXPECT_THAT(summary["message"], HasSubstr("the ring advanced"));
  EXPECT_EQ(Out(), "a\r\nb\r\n");
}

TEST_F(QxctlFetchOfAFakeModule, FailedReadInTheMiddleIsRetried) {
  const std::string failure = "12\n<Error Msg=\"Report data for report 'load' could not be read\" LastError=\"5\"/>";
  Reply(1, Records(0, 1, "a\r\n"));
  Reply(2, failure);
  Reply(3, failure);
  Reply(4, Records(1, 2, "b\r\n"));
  Reply(7, Records(0, 1, "a\r\n"));  // 5 and 6 request records after the end
  const Ran ran = Fetch({"-o", "out"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(Out(), "a\r\nb\r\n");
}

TEST_F(QxctlFetchOfAFakeModule, ReportThatIsGoneInTheMiddleIsAFailedRead) {
  Reply(1, Records(0, 1, "a\r\n"));
  for (int i = 2; i <= 4; ++i) {
    Reply(i, "12\n<Error Msg=\"Report data for report 'load' could not be read\" LastError=\"2\"/>");
  }
  const Ran ran = Fetch({"-o", "out"});
  EXPECT_EQ(ran.code, 6);
  EXPECT_THAT(ran.err, HasSubstr("could not be read: No such file or directory"));
}

TEST_F(QxctlFetchOfAFakeModule, ThirdFailureInTheMiddleLeavesTheOldFile) {
  Reply(1, Records(0, 1, "a\r\n"));
  for (int i = 2; i <= 4; ++i) {
    Reply(i, "12\n<Error Msg=\"Report data for report 'load' could not be read\" LastError=\"5\"/>");
  }
  Reply(5, Records(1, 2, "not asked for\r\n"));
  WriteFile(Dir().File("out"), "old");
  const Ran ran = Fetch({"-o", "out"});
  EXPECT_EQ(ran.code, 6);
  EXPECT_THAT(ran.err, HasSubstr("load: 1 record, 1 chunk, 3 bytes"));
  EXPECT_THAT(ran.err, HasSubstr("qxctl: Report data for report 'load' could not be read: Input/output error"));
  EXPECT_EQ(Out(), "old");
  EXPECT_THAT(FilesHere(), testing::ElementsAre("Reports", "fake", "out"));
}

TEST_F(QxctlFetchOfAFakeModule, HighestIndexIsTheEnd) {
  Reply(1, Records(0, 2147483647, "a\r\n"));
  Reply(3, Records(0, 1, "a\r\n"));  // no request after the end, because there is no such index
  EXPECT_EQ(Fetch().code, 0);
  EXPECT_EQ(Request(2), "<ReportData Name=\"load\" StartIndex=\"2147483647\"/>\n");
}

TEST_F(QxctlFetchOfAFakeModule, ReplyWithoutRecordsAndWithoutErrorIsAnIoFailure) {
  Reply(1, "0\n<Other/>");
  EXPECT_EQ(Fetch().code, 6);
  Reply(1, "0\nno markup");
  EXPECT_EQ(Fetch().code, 6);
}

}  // namespace qx::test
