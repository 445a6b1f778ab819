// Tests qxctl module what, reflect and reports, the options that all calls have, and the command line itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class QxctlCall : public testing::Test, protected QxctlFixture {
 protected:
  // Makes one call into the fake module. Returns the lines that the module wrote, without those of load and thread
  // hooks.
  std::string SeenByModule(std::vector<std::string> arguments) const {
    std::filesystem::create_directory(Dir().File("fake"));
    Start start = StartHere();
    start.environment = {{"QX_MODULE", FakeModulePath()}, {"QX_FAKE", Dir().File("fake")}};
    (void)Qxctl(arguments, start);
    std::ifstream calls(Dir().File("fake/calls"));
    std::string line;
    for (int i = 0; i < 3; ++i) std::getline(calls, line);
    std::filesystem::remove_all(Dir().File("fake"));
    return line;
  }
};

}  // namespace

TEST_F(QxctlCall, ReplyGoesToStandardOutputResultAndTimeToStandardError) {
  const Ran ran = Qxctl({"module", "what"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_THAT(ran.out, MatchesRegex("<QXRemConXfer version=\"[0-9.]+\" date=\"[0-9/:-]+\" company=\"[A-Za-z]+\" "
                                    "milestone=\"-\"/>\n"));
  EXPECT_THAT(ran.err, MatchesRegex("What: result 0, reply [0-9]+ bytes, [0-9.]+ ms\n"));
}

TEST_F(QxctlCall, WhatAsJsonHasTheDocumentedKeys) {
  const Ran ran = Qxctl({"module", "what", "--json"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.err, "");
  const json call = json::parse(ran.out);
  std::vector<std::string> keys;
  for (const auto& item : call.items()) keys.push_back(item.key());
  EXPECT_THAT(
      keys, testing::UnorderedElementsAre("function", "result", "reply", "replyBytes", "error", "seconds", "exitCode"));
  EXPECT_EQ(call["function"], "What");
  EXPECT_EQ(call["result"], 0);
  EXPECT_THAT(call["reply"], StartsWith("<QXRemConXfer "));
  EXPECT_EQ(call["replyBytes"], call["reply"].get<std::string>().size());
  EXPECT_EQ(call["error"], nullptr);
}

TEST_F(QxctlCall, RefusedCallNamesTheCommandThatExplainsItsResult) {
  std::filesystem::create_directory(Dir().File("fake"));
  WriteFile(Dir().File("fake/reply.1"), "-1\n");
  Start start = StartHere();
  start.environment = {{"QX_MODULE", FakeModulePath()}, {"QX_FAKE", Dir().File("fake")}};
  const Ran ran = Qxctl({"module", "what"}, start);
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("qxctl: the module refuses with result -1; \"qxctl explain -1\" shows why\n"));
}

TEST_F(QxctlCall, ReflectEchoesADocumentFromTheCommandLineAFileOrStandardInput) {
  const std::string document = "<a x=\"1\"><b>text</b></a>";
  WriteFile(Dir().File("in.xml"), document);
  EXPECT_EQ(Qxctl({"module", "reflect", "--input", document}).out, document);
  EXPECT_EQ(Qxctl({"module", "reflect", "--input", "@in.xml"}).out, document);
  EXPECT_EQ(Qxctl({"module", "reflect", "--input", "@-"}, document).out, document);
}

TEST_F(QxctlCall, ReflectOfMalformedMarkupIsAFindingWithoutReply) {
  const Ran ran = Qxctl({"module", "reflect", "--input", "<a>"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "");
  EXPECT_THAT(ran.err, HasSubstr("Reflect: result 0, reply none"));
  EXPECT_THAT(ran.err, HasSubstr("qxctl: no reply: the input is not well-formed markup\n"));
  EXPECT_EQ(json::parse(Qxctl({"module", "reflect", "--json"}).out)["reply"], nullptr);
}

TEST_F(QxctlCall, MissingInputFileIsNotFound) {
  const Ran ran = Qxctl({"module", "reflect", "--input", "@none.xml"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_EQ(ran.err, "qxctl: there is no input file none.xml\n");
  EXPECT_EQ(Qxctl({"module", "reflect", "--input", "@Reports"}).code, 6) << "a directory is there, but cannot be read";
}

TEST_F(QxctlCall, ReportsRequestsOneChunkFromTheGivenIndex) {
  MakeReport("load", 9, {"a", "b", "c", "d"});
  const Ran ran = Qxctl({"module", "reports", "load", "--start", "1", "--records", "2"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out,
            "<ReportData Name=\"load\" StartIndex=\"1\" NextIndex=\"3\"><![CDATA[b\r\nc\r\n]]></ReportData>\n");
}

TEST_F(QxctlCall, ReportsTakesAWholeRequestDocument) {
  MakeReport("load", 9, {"a", "b"});
  const Ran ran = Qxctl({"module", "reports", "--input", "<ReportData Name='load' NrRecords='1'/>"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_THAT(ran.out, HasSubstr("NextIndex=\"1\""));
  EXPECT_EQ(Qxctl({"module", "reports", "load", "--input", "<ReportData/>"}).code, 2);
  EXPECT_EQ(Qxctl({"module", "reports"}).code, 2);
}

TEST_F(QxctlCall, RecordsAfterTheEndAreAFindingWithTheModulesMessage) {
  MakeReport("load", 9, {"a"});
  const Ran ran = Qxctl({"module", "reports", "load", "--start", "1", "--json"});
  EXPECT_EQ(ran.code, 1);
  const json call = json::parse(ran.out);
  EXPECT_EQ(call["result"], 1);
  EXPECT_EQ(call["error"], json::parse(R"j({"msg": "No more records available (no error)", "lastError": 0})j"));
  EXPECT_EQ(call["exitCode"], 1);
}

TEST_F(QxctlCall, MissingReportIsNotFoundWithTheErrorNumber) {
  const Ran ran = Qxctl({"module", "reports", "none", "--json"});
  EXPECT_EQ(ran.code, 4);
  const json call = json::parse(ran.out);
  EXPECT_EQ(call["result"], 12);
  EXPECT_EQ(call["error"]["lastError"], 2);
}

TEST_F(QxctlCall, RefusedCallerGetsNoReply) {
  MakeReport("load", 9, {"secret"});
  const Ran ran = Qxctl({"module", "reports", "load", "--user", "bob", "--json"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_EQ(json::parse(ran.out)["reply"], nullptr);
  EXPECT_THAT(ran.out, testing::Not(HasSubstr("secret")));
}

TEST_F(QxctlCall, ReplyThatIsNotUtf8IsInBase64) {
  MakeReport("load", 9, {"\xE4"});
  const json call = json::parse(Qxctl({"module", "reports", "load", "--json"}).out);
  EXPECT_EQ(call["reply"], nullptr);
  EXPECT_EQ(
      call["replyBase64"],
      "PFJlcG9ydERhdGEgTmFtZT0ibG9hZCIgU3RhcnRJbmRleD0iMCIgTmV4dEluZGV4PSIxIj48IVtDREFUQVvkDQpdXT48L1JlcG9ydERhdGE+"
      "Cg==");
}

TEST_F(QxctlCall, WrongTagIsRefusedWithTheModulesMessage) {
  MakeReport("load", 9, {"a"});
  const Ran wrong = Qxctl({"module", "reports", "load", "--tag", "ABC"});
  EXPECT_EQ(wrong.code, 5);
  EXPECT_THAT(wrong.err, HasSubstr("RequestParams structure do not contain a valid krx_gendata structure: ABC"));
  const Ran unended = Qxctl({"module", "reports", "load", "--tag", "KRXX"});
  EXPECT_THAT(unended.err, HasSubstr("krx_gendata structure: ???"));
  EXPECT_EQ(Qxctl({"module", "reports", "load", "--tag", "KRXXX"}).code, 2);
}

TEST_F(QxctlCall, EveryFieldOfTheBlockReachesTheModule) {
  EXPECT_EQ(SeenByModule({"module", "what"}), "What KRX 30400 [1=null 2=1 3=What 5=qxctl 14={15=localhost}]");
  EXPECT_EQ(SeenByModule({"module", "what", "--tag", "ABC", "--block-version", "10701", "--thread-id", "9",
                          "--application-id", "app", "--function-id", "fun", "--address", "192.0.2.1"}),
            "What ABC 10701 [1=null 2=9 3=fun 5=app 14={15=192.0.2.1}]");
}

TEST_F(QxctlCall, PrivilegesAreGroupedByDepartment) {
  EXPECT_THAT(SeenByModule({"module", "what", "--user", "bob", "--privilege", "Ops:a", "--privilege", "b",
                            "--privilege", "Ops:c"}),
              HasSubstr(" 61={65 user bob [Ops a c] [ b]}]"));
  EXPECT_THAT(SeenByModule({"module", "what", "--user", "bob"}), HasSubstr(" 61={65 user bob}]"));
  EXPECT_THAT(SeenByModule({"module", "what", "--privilege", "a"}), HasSubstr(" 61={65 user null [ a]}]"));
}

TEST_F(QxctlCall, OmittedElementsAreLeftOutOfEveryBlock) {
  EXPECT_EQ(SeenByModule({"module", "what", "--omit", "1,3,15"}), "What KRX 30400 [2=1 5=qxctl 14={}]");
  EXPECT_EQ(SeenByModule({"module", "what", "--user", "bob", "--omit", "65", "--omit", "14"}),
            "What KRX 30400 [1=null 2=1 3=What 5=qxctl 61={}]");
  EXPECT_EQ(SeenByModule({"module", "what", "--omit", "1,2,3,5,14"}), "What KRX 30400 []");
  EXPECT_EQ(Qxctl({"module", "what", "--omit", "4"}).code, 2);
}

TEST_F(QxctlCall, MissingModuleIsNotFoundAndAnotherLibraryAnIoFailure) {
  const Ran missing = Qxctl({"module", "what", "--module", "none.so"});
  EXPECT_EQ(missing.code, 4);
  EXPECT_EQ(missing.err, "qxctl: there is no module none.so; name it with --module or in QX_MODULE\n");
  WriteFile(Dir().File("text.so"), "not a library");
  EXPECT_EQ(Qxctl({"module", "what", "--module", "text.so"}).code, 6);
  EXPECT_THAT(Qxctl({"module", "what", "--module", "text.so"}).err, StartsWith("qxctl: cannot load the module: "));
}

TEST_F(QxctlCall, DefaultModuleIsInTheLibraryFolderNextToTheTool) {
  Start start = StartHere();
  start.environment = {{"QX_MODULE", ""}};
  EXPECT_EQ(Qxctl({"module", "what"}, start).code, 0);
  start.environment = {{"QX_MODULE", "none.so"}};
  EXPECT_EQ(Qxctl({"module", "what"}, start).code, 4);
  EXPECT_EQ(Qxctl({"module", "what", "--module", ModulePath()}, start).code, 0);
}

TEST_F(QxctlCall, TracesOfARunningServiceStayUntouched) {
  std::filesystem::create_directory(Dir().File("service"));
  std::filesystem::create_directory(Dir().File("tmp"));
  const std::string log = Dir().File("service/log.qxremconxfer");
  WriteFile(log, "the service's own log\n");
  MakeReport("load", 9, {"a"});
  Start start = StartHere();
  start.environment["QX_LOG_RINGBUF_DIR"] = Dir().File("service");
  start.environment["QX_LOG_FILE_DIR"] = Dir().File("service");
  start.environment["QX_LOG_DEBUG_LEVEL"] = "5";
  start.environment["TMPDIR"] = Dir().File("tmp");
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"module", "what"}, {"fetch", "load"}, {"report", "cat", "Reports/load"}}) {
    EXPECT_EQ(Qxctl(arguments, start).code, 0);
  }
  EXPECT_EQ(ReadFile(log), "the service's own log\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(Dir().File("service")), {}), 1);
  EXPECT_TRUE(std::filesystem::is_empty(Dir().File("tmp"))) << "the private directory is gone";
}

TEST_F(QxctlCall, PrivateTraceDirectoryIsInTmpdirWithMode0700) {
  std::filesystem::create_directory(Dir().File("fake"));
  std::filesystem::create_directory(Dir().File("tmp"));
  Start start = StartHere();
  start.environment = {{"QX_MODULE", FakeModulePath()}, {"QX_FAKE", Dir().File("fake")}, {"TMPDIR", Dir().File("tmp")}};
  (void)Qxctl({"module", "what"}, start);
  EXPECT_THAT(ReadFile(Dir().File("fake/trace-directory")), StartsWith(Dir().File("tmp/qxctl-")));
  EXPECT_TRUE(std::filesystem::is_empty(Dir().File("tmp")));
  start.environment["TMPDIR"] = Dir().File("none");
  const Ran ran = Qxctl({"module", "what"}, start);
  EXPECT_EQ(ran.code, 6);
  EXPECT_THAT(ran.err, HasSubstr("TMPDIR"));
}

TEST_F(QxctlCall, TracesAreKeptInTheNamedDirectoryOnRequest) {
  const Ran ran = Qxctl({"module", "what", "--trace", "traces", "--trace-level", "2"});
  EXPECT_EQ(ran.code, 0) << ran.err;
  const std::string log = ReadFile(Dir().File("traces/log.qxremconxfer"));
  EXPECT_THAT(log, HasSubstr("WCSP_MAIN What      : KRX function call: What"));
  EXPECT_THAT(log, HasSubstr("from: qxctl@localhost"));
  EXPECT_TRUE(Exists(Dir().File("traces/log.qxctl")));
}

TEST_F(QxctlCall, TraceDirectoryWithALogOfAModuleIsRefused) {
  std::filesystem::create_directory(Dir().File("traces"));
  WriteFile(Dir().File("traces/log.qxremconxfer"), "the service's");
  const Ran ran = Qxctl({"--trace", "traces", "module", "what"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("traces/log.qxremconxfer exists, and loading the module would empty it"));
  EXPECT_EQ(ReadFile(Dir().File("traces/log.qxremconxfer")), "the service's");
}

TEST_F(QxctlCall, WrongCommandLineIsAUsageErrorOnStandardError) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"nothing"},
                                                    {"module"},
                                                    {"module", "what", "--nothing"},
                                                    {"fetch"},
                                                    {"report"},
                                                    {"report", "cat"},
                                                    {"module", "what", "--trace-level", "3"},
                                                    {"module", "what", "--thread-id", "x"}}) {
    const Ran ran = Qxctl(arguments);
    EXPECT_EQ(ran.code, 2);
    EXPECT_EQ(ran.out, "");
    EXPECT_NE(ran.err, "");
  }
}

TEST_F(QxctlCall, HelpAndVersionGoToStandardOutput) {
  const Ran help = Qxctl({"--help"});
  EXPECT_EQ(help.code, 0);
  EXPECT_THAT(help.out, HasSubstr("fetch"));
  EXPECT_EQ(help.err, "");
  EXPECT_THAT(Qxctl({"--version"}).out, MatchesRegex("qxctl [0-9.]+\n"));
}

}  // namespace qx::test
