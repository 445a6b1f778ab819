// Tests qxctl fetch --resume: several runs print each record of a report once, and report the records that they cannot
// print.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;

using Texts = std::vector<std::string>;

std::string Stored(const Texts& texts) {
  std::string stored;
  for (const std::string& text : texts) stored += text + "\r\n";
  return stored;
}

Texts Numbered(int first, int count, const std::string& text = "") {
  Texts texts;
  for (int i = first; i < first + count; ++i) texts.push_back(std::to_string(i) + text);
  return texts;
}

class QxctlResume : public testing::Test, protected QxctlFixture {
 protected:
  Ran Resume(Texts more = {}) const { return Qxctl(Arguments(std::move(more))); }
  static Texts Arguments(Texts more = {}) {
    more.insert(more.begin(), {"fetch", "load", "--resume", "state"});
    return more;
  }
  static Texts Command(Texts more = {}) {
    Texts command = Arguments(std::move(more));
    command.insert(command.begin(), QxctlPath());
    return command;
  }
  std::string File(const std::string& name) const { return ReadFile(Dir().File(name)); }
  json State() const { return json::parse(File("state")); }
  void RemoveReport() const {
    for (const char* const end : {".ind", ".dat"}) (void)unlink((ReportPath("load") + end).c_str());
  }
};

}  // namespace

TEST_F(QxctlResume, NamesThatAreNotUtf8AreKeptInTheState) {
  MakeReport("d\xE4", 9, {"a", "b"});
  const Texts command = {"fetch", "d\xE4", "--resume", "state", "-o", "out\xE4"};
  EXPECT_EQ(Qxctl(command).code, 0);
  Append("d\xE4", {"c"});
  const Ran second = Qxctl(command);
  EXPECT_EQ(second.code, 0) << second.err;
  EXPECT_EQ(File("out\xE4"), "a\r\nb\r\nc\r\n");
  EXPECT_EQ(State()["reportBase64"], "ZOQ=");
}

TEST_F(QxctlResume, FirstRunPrintsEveryRecordAndLaterRunsNewOnes) {
  MakeReport("load", 9, {"a", "b"});
  const Ran first = Resume();
  EXPECT_EQ(first.code, 0) << first.err;
  EXPECT_EQ(first.out, "a\r\nb\r\n");
  EXPECT_THAT(first.err, testing::MatchesRegex("load: 2 new records, 6 bytes, [0-9.]+ ms in the module; 2 in all "
                                               "runs\n"));
  const Ran none = Resume();
  EXPECT_EQ(none.code, 0) << none.err;
  EXPECT_EQ(none.out, "");
  Append("load", {"c"});
  EXPECT_EQ(Resume().out, "c\r\n");
}

TEST_F(QxctlResume, AdvancedRingPrintsOnlyTheNewRecords) {
  MakeReport("load", 50, Numbered(0, 50));
  ASSERT_EQ(Resume().code, 0);
  Append("load", Numbered(50, 30));
  const Ran ran = Resume();
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_EQ(ran.out, Stored(Numbered(50, 30)));
}

// The pipe is much smaller than the report, so the reader gets only a part of the report.
TEST_F(QxctlResume, ReaderThatEndsLeavesAStateThatCanBeResumed) {
  MakeReport("load", 4000, Numbered(0, 4000, std::string(100, 'x')));
  const std::string script = "(\"$0\" fetch load --resume state; echo \"code $?\" >&2) | head -c 1";
  const Ran ran = Child({"/bin/sh", "-c", script, QxctlPath()}, StartHere()).Wait();
  EXPECT_THAT(ran.err, testing::EndsWith("code 141\n"));
  EXPECT_THAT(ran.err, testing::Not(HasSubstr("qxctl:")));
  const int delivered = State()["delivered"];
  EXPECT_LT(delivered, 4000);
  EXPECT_EQ(Resume().out, Stored(Numbered(delivered, 4000 - delivered, std::string(100, 'x'))));
}

TEST_F(QxctlResume, StateFileHasTheDocumentedKeys) {
  MakeReport("load", 9, {"a"});
  ASSERT_EQ(Resume().code, 0);
  EXPECT_EQ(State(), json::parse(R"({
    "qxctlFetchState": 1, "report": "load", "format": "text", "fields": "", "columns": 0, "output": "",
    "outputBytes": null, "next": 1, "delivered": 1, "inFlight": 0, "overlap": ["e5ad9b1904074ddb"]})"));
}

TEST_F(QxctlResume, GapIsReportedAndTheRestIsPrinted) {
  MakeReport("load", 3, {"a", "b", "c"});
  ASSERT_EQ(Resume().code, 0);
  Append("load", {"d", "e", "f", "g"});
  const Ran ran = Resume();
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "e\r\nf\r\ng\r\n");
  EXPECT_THAT(ran.err, HasSubstr("qxctl: load: gap: the ring has none of the records that were printed last"));
  EXPECT_EQ(Resume().code, 0) << "reported once";
}

TEST_F(QxctlResume, EqualRecordsAreAmbiguousAndNoRecordIsPrintedTwice) {
  MakeReport("load", 9, {"ok", "ok", "ok"});
  ASSERT_EQ(Resume().code, 0);
  Append("load", {"ok"});
  const Ran ran = Resume();
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "ok\r\n");
  EXPECT_THAT(ran.err, HasSubstr("qxctl: load: ambiguous: records repeat"));
}

TEST_F(QxctlResume, RestartedReportIsReported) {
  MakeReport("load", 9, {"a", "b", "c"});
  ASSERT_EQ(Resume().code, 0);
  RemoveReport();
  MakeReport("load", 9, {"x"});
  const Ran ran = Resume();
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "x\r\n");
  EXPECT_THAT(ran.err, HasSubstr("qxctl: load: started over: it has fewer records than before"));
}

TEST_F(QxctlResume, MissingReportCreatesNoStateAndKeepsAnOldOne) {
  EXPECT_EQ(Resume().code, 4);
  EXPECT_FALSE(Exists(Dir().File("state")));
  MakeReport("load", 9, {"a"});
  ASSERT_EQ(Resume().code, 0);
  const std::string state = File("state");
  RemoveReport();
  EXPECT_EQ(Resume().code, 4);
  EXPECT_EQ(File("state"), state);
}

TEST_F(QxctlResume, StateOfAnotherReportIsRefused) {
  MakeReport("load", 9, {"a"});
  MakeReport("other", 9, {"a"});
  ASSERT_EQ(Resume().code, 0);
  const std::string state = File("state");
  const Ran report = Qxctl({"fetch", "other", "--resume", "state"});
  EXPECT_EQ(report.code, 5);
  EXPECT_THAT(report.err, HasSubstr("state belongs to a fetch of report \"load\"; repeat that fetch, or name another "
                                    "state file"));
  EXPECT_EQ(Resume({"-o", "out"}).code, 5);
  EXPECT_EQ(Resume({"--format", "json"}).code, 5);
  EXPECT_EQ(File("state"), state);
}

TEST_F(QxctlResume, EveryPrefixOfAStateIsRefused) {
  MakeReport("load", 9, {"a"});
  ASSERT_EQ(Resume().code, 0);
  const std::string state = File("state");
  for (std::size_t size = 1; size + 2 < state.size(); size += 1 + size / 7) {
    WriteFile(Dir().File("state"), state.substr(0, size));
    const Ran ran = Resume();
    EXPECT_EQ(ran.code, 5) << size;
    EXPECT_EQ(ran.out, "");
  }
  for (const auto& [key, value] :
       std::initializer_list<std::pair<const char*, json>>{{"next", -1},
                                                           {"next", 4294967295U},
                                                           {"next", "1"},
                                                           {"next", 0},
                                                           {"overlap", json::array()},
                                                           {"overlap", {"xyz"}},
                                                           {"overlap", Texts(33, "e5ad9b1904074ddb")},
                                                           {"qxctlFetchState", 2},
                                                           {"format", "xml"},
                                                           {"inFlight", 1.5},
                                                           {"report", nullptr}}) {
    json changed = json::parse(state);
    changed[key] = value;
    WriteFile(Dir().File("state"), changed.dump());
    EXPECT_EQ(Resume().code, 5) << changed.dump();
  }
}

TEST_F(QxctlResume, StateThatIsNotARegularFileIsRefused) {
  MakeReport("load", 9, {"a"});
  ASSERT_EQ(mkfifo(Dir().File("state").c_str(), 0600), 0);
  EXPECT_EQ(Resume().code, 5);
}

TEST_F(QxctlResume, StateFileKeepsItsModeAndItsLink) {
  MakeReport("load", 9, {"a"});
  WriteFile(Dir().File("target"), "");
  ASSERT_EQ(chmod(Dir().File("target").c_str(), 0640), 0);
  ASSERT_EQ(symlink("target", Dir().File("state").c_str()), 0);
  ASSERT_EQ(Resume().code, 0);
  EXPECT_TRUE(std::filesystem::is_symlink(Dir().File("state")));
  struct stat status = {};
  ASSERT_EQ(stat(Dir().File("target").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  EXPECT_EQ(State()["delivered"], 1);
}

TEST_F(QxctlResume, SecondRunAtTheSameTimeIsRefused) {
  MakeReport("load", 3000, Numbered(0, 3000, std::string(1000, 'x')));
  Child child(Command(), StartHere());
  ASSERT_NE(child.ReadSome(), "");
  const Ran second = Resume();
  EXPECT_EQ(second.code, 5);
  EXPECT_THAT(second.err, HasSubstr("another run works with state; wait until it has ended"));
}

TEST_F(QxctlResume, OutputFileIsAppendedTo) {
  MakeReport("load", 9, {"a"});
  ASSERT_EQ(Resume({"-o", "out"}).code, 0);
  Append("load", {"b"});
  ASSERT_EQ(Resume({"-o", "out"}).code, 0);
  EXPECT_EQ(File("out"), "a\r\nb\r\n");
}

TEST_F(QxctlResume, OutputFileThatContradictsTheStateIsRefused) {
  MakeReport("load", 9, {"a"});
  WriteFile(Dir().File("out"), "old");
  EXPECT_EQ(Resume({"-o", "out"}).code, 5) << "it has something, and there is no state";
  EXPECT_EQ(File("out"), "old");
  (void)unlink(Dir().File("out").c_str());
  ASSERT_EQ(Resume({"-o", "out"}).code, 0);
  for (const char* const changed : {"", "a\r\nmore"}) {
    WriteFile(Dir().File("out"), changed);
    const Ran ran = Resume({"-o", "out"});
    EXPECT_EQ(ran.code, 5);
    EXPECT_THAT(ran.err, HasSubstr("bytes, but state says 3;"));
    EXPECT_EQ(File("out"), changed);
  }
}

TEST_F(QxctlResume, RecordsThatWereNotWrittenComeInTheNextRun) {
  MakeReport("load", 9, {"a", "b"});
  Start start = StartHere();
  start.out_file = "/dev/full";
  const Ran ran = Qxctl(Arguments(), start);
  EXPECT_EQ(ran.code, 6);
  EXPECT_EQ(State()["delivered"], 0);
  EXPECT_EQ(Resume().out, "a\r\nb\r\n");
}

TEST_F(QxctlResume, AfterSigtermTheRunsTogetherPrintTheReportOnce) {
  const Texts texts = Numbered(0, 4000, std::string(1000, 'x'));
  MakeReport("load", 4000, texts);
  const std::string stored = Stored(texts);
  std::string all;
  int interrupted = 0;
  for (; all.size() < stored.size() && interrupted < 100; ++interrupted) {
    Child child(Command(), StartHere());
    for (int reads = 0; reads < 12; ++reads) all += child.ReadSome();
    child.Kill(SIGTERM);
    all += child.Wait().out;
  }
  EXPECT_GT(interrupted, 2);
  EXPECT_TRUE(all == stored);
}

TEST_F(QxctlResume, AfterSigkillTheOutputFileHasTheReportOnce) {
  const Texts texts = Numbered(0, 6000, std::string(300, 'x'));
  MakeReport("load", 6000, texts);
  int killed = 0;
  for (std::uintmax_t kill_size = 100000;; kill_size += 250000) {
    Child child(Command({"-o", "out", "--chunk-records", "500"}), StartHere());
    std::error_code missing;
    const auto size = [&] { return std::filesystem::file_size(Dir().File("out"), missing); };
    const std::uintmax_t end = Stored(texts).size();
    while (kill_size < end && (!Exists(Dir().File("out")) || size() < kill_size)) sched_yield();
    if (kill_size < end) child.Kill(SIGKILL);
    const Ran ran = child.Wait();
    if (ran.code == 0) break;
    ASSERT_EQ(ran.code, -SIGKILL) << ran.err;
    ++killed;
  }
  EXPECT_GT(killed, 4);
  EXPECT_TRUE(File("out") == Stored(texts));
}

// The records that a killed run has written to a pipe cannot be removed. They may come again; then a message says so.
TEST_F(QxctlResume, AfterSigkillARunToAPipeReportsWhatMayComeTwice) {
  MakeReport("load", 500, Numbered(0, 500, std::string(1000, 'x')));
  Child child(Command(), StartHere());
  ASSERT_NE(child.ReadSome(), "");
  child.Kill(SIGKILL);
  (void)child.Wait();
  const Ran ran = Resume();
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr("killed while it wrote; its 500 last records may have been printed, "
                                 "and are repeated"));
  EXPECT_TRUE(ran.out == Stored(Numbered(0, 500, std::string(1000, 'x'))));
  EXPECT_EQ(Resume().code, 0);
}

// The ring advances while the first chunk waits for its reader.
TEST_F(QxctlResume, RingThatAdvancesBetweenTwoChunksLosesNothing) {
  const std::string text(1000, 'x');
  MakeReport("load", 3000, Numbered(0, 3000, text));
  Child child(Command(), StartHere());
  std::string all = child.ReadSome();
  Append("load", Numbered(3000, 500, text));
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, 0) << ran.err;
  EXPECT_TRUE(all + ran.out == Stored(Numbered(0, 3500, text)));
}

TEST_F(QxctlResume, GapBetweenTwoChunksIsReported) {
  const std::string text(1000, 'x');
  MakeReport("load", 3000, Numbered(0, 3000, text));
  Child child(Command(), StartHere());
  std::string all = child.ReadSome();
  Append("load", Numbered(3000, 2000, text));
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, 1);
  EXPECT_THAT(ran.err, HasSubstr("load: gap:"));
  EXPECT_TRUE((all + ran.out).ends_with(Stored(Numbered(2000, 3000, text))));
}

TEST_F(QxctlResume, JsonHasTheTotalsOfTheRunAndOfAllRuns) {
  MakeReport("load", 3, {"a", "b", "c"});
  ASSERT_EQ(Resume({"-o", "out"}).code, 0);
  Append("load", {"d", "e", "f", "g"});
  const Ran ran = Resume({"-o", "out", "--json"});
  EXPECT_EQ(ran.code, 1);
  json summary = json::parse(ran.out);
  EXPECT_EQ(summary["outcome"], "complete");
  EXPECT_EQ(summary["records"], 3);
  EXPECT_EQ(summary["exitCode"], 1);
  EXPECT_THAT(summary["message"], HasSubstr("load: gap:"));
  EXPECT_EQ(summary["resume"], json::parse(R"({"state": "state", "delivered": 6, "maybeRepeated": 0, "gaps": 1,
                                               "recordsLost": null, "ambiguous": 0, "startedOver": 0})"));
}

TEST_F(QxctlResume, CsvHasOneHeaderAndOneNumberingOverAllRuns) {
  MakeReport("load", 9, {"a 1", "b 2"});
  const Texts options = {"--format", "csv", "--separator", " "};
  EXPECT_EQ(Resume(options).out, "index,column1,column2\r\n0,a,1\r\n1,b,2\r\n");
  Append("load", {"c 3 4"});
  EXPECT_EQ(Resume(options).out, "2,c,3 4\r\n");
}

TEST_F(QxctlResume, RecordTooLongForAChunkIsAFindingAndWaits) {
  MakeReport("load", 9, {"a", std::string(1 << 20, 'x'), "c"});
  const Ran ran = Resume();
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "a\r\n");
  EXPECT_THAT(ran.err, HasSubstr("record 1 (counted from 0) has 1 MiB or more"));
  EXPECT_EQ(State()["delivered"], 1);
}

TEST_F(QxctlResume, ResumeWithAChartIsAUsageError) {
  EXPECT_EQ(Resume({"--plot", "cpu"}).code, 2);
  EXPECT_FALSE(Exists(Dir().File("state")));
}

}  // namespace qx::test
