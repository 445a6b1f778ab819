// Tests qxctl module record and replay: a replayed call has the recorded result, and each difference is shown.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

class QxctlRecord : public testing::Test, protected QxctlFixture {
 protected:
  QxctlRecord() { MakeReport("load", 9, {"one", "two", "three"}); }

  json Recorded(const std::string& file) const { return json::parse(ReadFile(Dir().File(file))); }

  void Change(const std::string& file, const char* key, const json& value) const {
    json call = Recorded(file);
    call[key] = value;
    WriteFile(Dir().File(file), call.dump());
  }
};

}  // namespace

TEST_F(QxctlRecord, EachFunctionIsRecordedAndReplayedUnchanged) {
  WriteFile(Dir().File("Reports/load.names"), "[Quaxel Report Instances]\nVersion=1\n[Names]\n1=a\n");
  EXPECT_EQ(Qxctl({"module", "record", "what.json", "what"}).code, 0);
  EXPECT_EQ(Qxctl({"module", "record", "reflect.json", "reflect", "--input", "<a/>"}).code, 0);
  EXPECT_EQ(Qxctl({"module", "record", "reports.json", "reports", "load", "--records", "2"}).code, 0);
  EXPECT_EQ(Qxctl({"module", "record", "names.json", "names", "load", "--user", "b", "--privilege", "x"}).code, 0);
  EXPECT_EQ(Recorded("what.json")["stateWord"], nullptr);
  EXPECT_EQ(Recorded("reports.json")["stateWord"], 1);
  EXPECT_THAT(Recorded("reports.json")["reply"], HasSubstr("one\r\ntwo\r\n"));
  EXPECT_EQ(Recorded("names.json")["reply"], nullptr);
  const Ran ran = Qxctl({"module", "replay", "what.json", "reflect.json", "reports.json", "names.json"});
  EXPECT_EQ(ran.code, 0) << ran.out;
  EXPECT_EQ(ran.out,
            "what.json: What as recorded\nreflect.json: Reflect as recorded\nreports.json: GetReports as recorded\n"
            "names.json: GetReportInstanceNames as recorded\n");
  EXPECT_EQ(Recorded("names.json")["stateWord"], nullptr) << "only GetReports counts";
}

TEST_F(QxctlRecord, HyphenIsStandardOutputOfRecordAndStandardInputOfReplay) {
  const Ran recorded = Qxctl({"module", "record", "-", "what"});
  EXPECT_EQ(recorded.code, 0) << recorded.err;
  const Ran ran = Qxctl({"module", "replay", "-"}, recorded.out);
  EXPECT_EQ(ran.out, "-: What as recorded\n") << ran.err;
  EXPECT_FALSE(Exists(Dir().File("-")));
}

// The page shows the reply of the module itself.
TEST_F(QxctlRecord, WorkedExampleOfThePageIsReplayedUnchanged) {
  WriteFile(Dir().File("example.json"), DocExample("testing-modules.md", "call-file"));
  const Ran ran = Qxctl({"module", "replay", "example.json"});
  EXPECT_EQ(ran.code, 0) << ran.out;
  EXPECT_EQ(ran.out, "example.json: GetReports as recorded\n");
}

TEST_F(QxctlRecord, WholeTransferIsRecordedAndReplayedInItsOrder) {
  std::filesystem::create_directory(Dir().File("calls"));
  EXPECT_EQ(Qxctl({"module", "record", "calls", "reports", "load", "--records", "2", "--transfer"}).code, 0);
  EXPECT_EQ(Recorded("calls/0001-GetReports.json")["stateWord"], 1);
  EXPECT_EQ(Recorded("calls/0002-GetReports.json")["stateWord"], 2);
  EXPECT_EQ(Recorded("calls/0003-GetReports.json")["result"], 1);
  EXPECT_FALSE(Exists(Dir().File("calls/0004-GetReports.json")));
  EXPECT_EQ(Qxctl({"module", "replay", "calls"}).code, 0);
  const Ran alone = Qxctl({"module", "replay", "calls/0002-GetReports.json"});
  EXPECT_EQ(alone.code, 1) << "without the call before it the state is another one";
  EXPECT_THAT(alone.out, HasSubstr("  state word: recorded 2, now 1\n"));
}

TEST_F(QxctlRecord, NewCallGetsTheNextNumberInADirectory) {
  std::filesystem::create_directory(Dir().File("calls"));
  WriteFile(Dir().File("calls/0041-What.json"), "");
  const Ran ran = Qxctl({"module", "record", "calls", "what"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_THAT(ran.err, HasSubstr("calls/0042-What.json: What, result 0, reply "));
}

TEST_F(QxctlRecord, EachDifferenceIsShownAndCounted) {
  EXPECT_EQ(Qxctl({"module", "record", "a.json", "reports", "load"}).code, 0);
  EXPECT_EQ(Qxctl({"module", "record", "b.json", "what"}).code, 0);
  Change("a.json", "reply", "<ReportData Name=\"load\" StartIndex=\"0\" NextIndex=\"4\"/>");
  Change("a.json", "result", 1);
  const Ran ran = Qxctl({"module", "replay", "a.json", "b.json"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.out, HasSubstr("a.json: GetReports differs\n  result: recorded 1, now 0\n  reply differs at byte 50, "
                                 "line 1 column 51\n    recorded ..."));
  EXPECT_THAT(ran.err, HasSubstr("1 of 2 calls differ from their recording"));
  const json document = json::parse(Qxctl({"module", "replay", "a.json", "b.json", "--json"}).out);
  EXPECT_EQ(document["calls"][0]["differences"].size(), 2U);
  EXPECT_TRUE(document["calls"][1]["differences"].empty());
  EXPECT_EQ(document["exitCode"], 1);
}

TEST_F(QxctlRecord, IgnoredAttributesMayDiffer) {
  EXPECT_EQ(Qxctl({"module", "record", "a.json", "what"}).code, 0);
  std::string reply = Recorded("a.json")["reply"];
  reply.replace(reply.find("version=\"") + 9, 1, "9");
  Change("a.json", "reply", reply);
  EXPECT_EQ(Qxctl({"module", "replay", "a.json"}).code, 1);
  EXPECT_EQ(Qxctl({"module", "replay", "a.json", "--ignore", "date,version"}).code, 0);
}

TEST_F(QxctlRecord, ExistingFileIsReplacedOnlyByForce) {
  WriteFile(Dir().File("a.json"), "mine");
  const Ran ran = Qxctl({"module", "record", "a.json", "what"});
  EXPECT_EQ(ran.code, 5);
  EXPECT_THAT(ran.err, HasSubstr("a.json exists"));
  EXPECT_EQ(ReadFile(Dir().File("a.json")), "mine");
  EXPECT_EQ(Qxctl({"module", "record", "a.json", "what", "--force"}).code, 0);
  EXPECT_EQ(Recorded("a.json")["function"], "What");
}

TEST_F(QxctlRecord, InvalidFileIsAnIoFailureAndMissingFileNotFound) {
  WriteFile(Dir().File("a.json"), "{}");
  const Ran ran = Qxctl({"module", "replay", "a.json"});
  EXPECT_EQ(ran.code, 6);
  EXPECT_EQ(ran.err, "qxctl: a.json is not a recorded call: \"format\" is not a text\n");
  EXPECT_EQ(Qxctl({"module", "replay", "none.json"}).code, 4);
  EXPECT_EQ(Qxctl({"module", "replay", "Reports"}).code, 4) << "no .json in there";
  EXPECT_EQ(Qxctl({"module", "replay"}).code, 2);
}

TEST_F(QxctlRecord, WrongCommandLineIsAUsageError) {
  EXPECT_EQ(Qxctl({"module", "record", "a.json"}).code, 2);
  EXPECT_EQ(Qxctl({"module", "record", "a.json", "other"}).code, 2);
  EXPECT_EQ(Qxctl({"module", "record", "a.json", "reports"}).code, 2);
  EXPECT_EQ(Qxctl({"module", "record", "a.json", "reports", "load", "--transfer"}).code, 2);
}

TEST_F(QxctlRecord, BlockOfTheFileIsTheOneThatTheModuleGets) {
  EXPECT_EQ(Qxctl({"module", "record", "a.json", "reports", "load", "--tag", "ABC"}).code, 0);
  EXPECT_EQ(Recorded("a.json")["result"], -1);
  EXPECT_EQ(Qxctl({"module", "replay", "a.json"}).code, 0);
  json call = Recorded("a.json");
  call["block"]["tag"] = "KRX";
  WriteFile(Dir().File("a.json"), call.dump());
  EXPECT_EQ(Qxctl({"module", "replay", "a.json"}).code, 1);
}

}  // namespace qx::test
