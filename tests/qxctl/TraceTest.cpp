// Tests qxctl trace: trace files in the order of time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// An entry as it is in a file, with the time 10:20:30 and this millisecond.
std::string Entry(int ms, const std::string& text, const std::string& module = "QxTrace", int thread = 0xA1) {
  char header[80];
  std::snprintf(header, sizeof header, "2026-01-31 10:20:30.%03d [%08X] %-13s ", ms, static_cast<unsigned>(thread),
                module.c_str());
  return header + text + "\n";
}

// A log that has wrapped once: head, wrap line, newest entry, rest of a cut entry, older entry, and the entry that
// crossed the limit.
std::string WrappedLog() {
  const std::string head = Entry(1, "head");
  const auto wrap = [&](const std::string& max) {
    const std::string size = std::to_string(head.size());
    return Entry(
        5, "------ WRAP ----- Cycle=1, CntInitEnd=" + size + ", CurrentByteCnt=" + size + " (MaxCnt=" + max + ")");
  };
  const std::string rest = Entry(7, "newest") + "of a cut one\n" + Entry(4, "older\nwith more");
  const std::string last = Entry(5, "crossing");
  return head + wrap(std::to_string((head + wrap("999") + rest).size() + 1)) + rest + last;
}

// Removes hexadecimal digits after "0x" and long numbers, because addresses and thread ids differ from run to run.
std::vector<std::string> WithoutNumbers(std::vector<std::string> lines) {
  constexpr std::size_t kShortMax = 6;
  const auto is_hex = [](char c) { return c == 'x' || std::isxdigit(static_cast<unsigned char>(c)) != 0; };
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  for (std::string& line : lines) {
    for (std::size_t at = 0; (at = line.find("0x", at)) != std::string::npos; at += 2) {
      const auto begin = line.begin() + static_cast<std::ptrdiff_t>(at) + 2;
      line.erase(begin, std::find_if_not(begin, line.end(), is_hex));
    }
    for (auto at = line.begin(); (at = std::find_if(at, line.end(), is_digit)) != line.end();) {
      const auto end = std::find_if_not(at, line.end(), is_digit);
      const bool is_negative = at != line.begin() && *(at - 1) == '-';
      at = static_cast<std::size_t>(end - at) > kShortMax ? line.erase(at - (is_negative ? 1 : 0), end) : end;
    }
  }
  return lines;
}

class QxctlTrace : public testing::Test, protected QxctlFixture {
 protected:
  void Write(const std::string& name, const std::string& bytes) const { WriteFile(Dir().File(name), bytes); }
  json ShowJson(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command = {"trace", "show", "--json"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return json::parse(Qxctl(command).out);
  }
};

}  // namespace

TEST_F(QxctlTrace, ShowPrintsAWrappedLogInTheOrderOfTime) {
  Write("log.app", WrappedLog());
  const Ran ran = Qxctl({"trace", "show", "log.app"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.err, "");
  EXPECT_EQ(ran.out,
            "2026-01-31 10:20:30.001 [000000A1] QxTrace       head\n"
            "------ entries that were here have been overwritten ------\n"
            "2026-01-31 10:20:30.004 [000000A1] QxTrace       older\n"
            "    | with more\n"
            "2026-01-31 10:20:30.005 [000000A1] QxTrace       crossing\n"
            "2026-01-31 10:20:30.005 [000000A1] QxTrace       ------ WRAP ----- Cycle=1, CntInitEnd=54, "
            "CurrentByteCnt=54 (MaxCnt=311)\n"
            "2026-01-31 10:20:30.007 [000000A1] QxTrace       newest\n"
            "    ? of a cut one\n");
}

TEST_F(QxctlTrace, ShowOfAHyphenReadsStandardInput) {
  Write("log.app", WrappedLog());
  const Ran piped = Qxctl({"trace", "show", "-"}, WrappedLog());
  EXPECT_EQ(piped.code, 0) << piped.err;
  EXPECT_EQ(piped.out, Qxctl({"trace", "show", "log.app"}).out);
  EXPECT_EQ(json::parse(Qxctl({"trace", "show", "-", "--json"}, WrappedLog()).out)["files"][0]["file"],
            "standard input");
}

TEST_F(QxctlTrace, ShowMakesControlBytesVisible) {
  Write("log.app", Entry(1, "a\033[2Jb\tc\rd\x7F\\ \xC3\xA4 \xE4 \xC2\x9B!"));
  EXPECT_EQ(Qxctl({"trace", "show", "log.app"}).out,
            "2026-01-31 10:20:30.001 [000000A1] QxTrace       a\\x1B[2Jb\\x09c\\x0Dd\\x7F\\\\ \xC3\xA4 \\xE4 "
            "\\xC2\\x9B!\n");
}

TEST_F(QxctlTrace, FiltersChooseEntriesWithTheirFurtherLines) {
  Write("log.app", Entry(1, "one\n1b", "Alpha", 0xA1) + Entry(2, "two\n2b", "Beta", 0xB2) + Entry(3, "three", "Beta"));
  const auto shown = [&](std::vector<std::string> filter) {
    filter.insert(filter.begin(), {"trace", "show", "log.app"});
    const Ran ran = Qxctl(filter);
    EXPECT_EQ(ran.code, 0) << ran.err;
    std::string texts;
    for (std::size_t at = 0; (at = ran.out.find('\n', at)) != std::string::npos; ++at) texts += ran.out[at - 1];
    return texts;
  };
  EXPECT_EQ(shown({"--module", "Alpha"}), "eb");
  EXPECT_EQ(shown({"--module", "Beta"}), "obe");
  EXPECT_EQ(shown({"--module", "Alpha", "--module", "Beta"}), "ebobe");
  EXPECT_EQ(shown({"--thread", "000000b2"}), "ob");
  EXPECT_EQ(shown({"--thread", "0xB2"}), "ob");
  EXPECT_EQ(shown({"--since", "2026-01-31 10:20:30.002"}), "obe");
  EXPECT_EQ(shown({"--until", "2026-01-31 10:20:30.002"}), "ebob");
  EXPECT_EQ(shown({"--until", "2026-01-31"}), "ebobe");
  EXPECT_EQ(shown({"--since", "2026-01-31T10:21"}), "");
  EXPECT_EQ(shown({"--module", "Beta", "--thread", "A1"}), "e");
}

TEST_F(QxctlTrace, FilterThatCannotBeReadIsAUsageError) {
  Write("log.app", Entry(1, "one"));
  for (const std::vector<std::string>& filter : std::vector<std::vector<std::string>>{
           {"--since", "tomorrow"}, {"--until", "2026-02-30"}, {"--thread", "main"}, {"--thread", "123456789"}}) {
    std::vector<std::string> command = {"trace", "show", "log.app"};
    command.insert(command.end(), filter.begin(), filter.end());
    const Ran ran = Qxctl(command);
    EXPECT_EQ(ran.code, 2) << filter[1];
    EXPECT_THAT(ran.err, StartsWith("qxctl: ")) << filter[1];
    EXPECT_EQ(ran.out, "");
  }
}

TEST_F(QxctlTrace, ShowOfADirectoryMergesItsTraceFilesByTime) {
  Write("log.a", Entry(1, "one") + Entry(3, "three\nthree b"));
  Write("log.b", Entry(2, "two") + Entry(3, "three too") + Entry(4, "four"));
  Write("other", Entry(1, "no trace file"));
  ASSERT_EQ(mkdir(Dir().File("log.directory").c_str(), 0700), 0);
  const Ran ran = Qxctl({"trace", "show", "."});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out,
            "log.a: 2026-01-31 10:20:30.001 [000000A1] QxTrace       one\n"
            "log.b: 2026-01-31 10:20:30.002 [000000A1] QxTrace       two\n"
            "log.a: 2026-01-31 10:20:30.003 [000000A1] QxTrace       three\n"
            "log.a:     | three b\n"
            "log.b: 2026-01-31 10:20:30.003 [000000A1] QxTrace       three too\n"
            "log.b: 2026-01-31 10:20:30.004 [000000A1] QxTrace       four\n");
}

TEST_F(QxctlTrace, JsonHoldsFilesEntriesAndFindings) {
  Write("log.app", Entry(1, "a \xE4\nb") + Entry(2, "c").substr(0, 50));
  EXPECT_EQ(ShowJson({"log.app"}), json::parse(R"({
    "files": [{"file": "log.app", "format": "log", "wraps": 0}],
    "entries": [
      {"file": "log.app", "kind": "entry", "part": "newest", "stamp": "2026-01-31 10:20:30.001",
       "stampMs": 1769854830001, "thread": "000000A1", "residentKb": null, "module": "QxTrace",
       "text": null, "textBase64": "YSDkCmI="},
      {"file": "log.app", "kind": "entry", "part": "newest", "stamp": "2026-01-31 10:20:30.002",
       "stampMs": 1769854830002, "thread": "000000A1", "residentKb": null, "module": "QxTrace", "text": "c",
       "cut": true}],
    "findings": [{"file": "log.app", "finding": "cutEnd", "text": "the file ends within an entry, which is cut"}],
    "exitCode": 1})"));
}

TEST_F(QxctlTrace, JsonNamesTheKindsAndPartsOfAWrappedLog) {
  Write("log.app", WrappedLog());
  const json document = ShowJson({"log.app"});
  std::vector<std::string> kinds;
  for (const json& entry : document["entries"]) {
    kinds.push_back(entry["part"].get<std::string>() + " " + entry["kind"].get<std::string>());
  }
  EXPECT_THAT(kinds, ElementsAre("head entry", "older gap", "older entry", "older entry", "newest wrap", "newest entry",
                                 "newest piece"));
  EXPECT_EQ(document["files"][0]["wraps"], 1);
  EXPECT_EQ(document["exitCode"], 0);
}

TEST_F(QxctlTrace, DocumentWithoutEntriesIsWhole) {
  Write("log.app", "");
  EXPECT_EQ(ShowJson({"log.app"})["entries"], json::array());
}

TEST_F(QxctlTrace, MissingOrUnreadableFilesFailAsElsewhere) {
  const Ran missing = Qxctl({"trace", "show", "log.app"});
  EXPECT_EQ(missing.code, 4);
  EXPECT_EQ(missing.err, "qxctl: there is no log.app\n");
  EXPECT_EQ(Qxctl({"trace", "show", "Reports"}).code, 4) << "a directory without trace files";
  ASSERT_EQ(mkfifo(Dir().File("log.fifo").c_str(), 0600), 0);
  EXPECT_EQ(Qxctl({"trace", "show", "log.fifo"}).code, 6);
}

TEST_F(QxctlTrace, FileThatIsNoTraceFileIsAFinding) {
  Write("log.app", "hello\n");
  const Ran ran = Qxctl({"trace", "show", "log.app"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.out, "    ? hello\n");
  EXPECT_EQ(ran.err, "qxctl: log.app: there is no trace entry in it\n");
}

TEST_F(QxctlTrace, FollowPrintsWhatIsWrittenUntilItIsInterrupted) {
  Write("log.app", Entry(1, "one"));
  Child child({QxctlPath(), "trace", "follow", "log.app"}, StartHere());
  std::string out = child.ReadSome();
  Write("log.app", Entry(1, "one") + Entry(2, "two\nof two"));
  out += child.ReadSome();
  child.Kill(SIGINT);
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, -SIGINT);
  EXPECT_EQ(out + ran.out,
            "2026-01-31 10:20:30.001 [000000A1] QxTrace       one\n"
            "2026-01-31 10:20:30.002 [000000A1] QxTrace       two\n"
            "    | of two\n");
  EXPECT_EQ(ran.err, "");
}

TEST_F(QxctlTrace, FollowReportsThatTheLogWasStartedOver) {
  Write("log.app", Entry(1, "one") + Entry(2, "two"));
  Child child({QxctlPath(), "trace", "follow", "log.app", "--json"}, StartHere());
  std::string out = child.ReadSome();
  while (out.find("two") == std::string::npos) out += child.ReadSome();
  Write("log.app", Entry(3, "three"));
  while (out.find("three") == std::string::npos) out += child.ReadSome();
  child.Kill(SIGTERM);
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.code, -SIGTERM);
  EXPECT_THAT(out, HasSubstr("{\"kind\":\"restart\"}\n"));
  EXPECT_EQ(ran.err, "qxctl: log.app was started over; entries that were written meanwhile are lost\n");
}

TEST_F(QxctlTrace, FollowEndsWhenItsReaderGoesAway) {
  WriteFile(Dir().File("log.x"), Entry(1, "one"));
  const std::string script = "(timeout 60 \"$0\" trace follow log.x; echo \"code $?\" >&2) | head -1";
  const Ran ran = Child({"bash", "-c", script, QxctlPath()}, StartHere()).Wait();
  EXPECT_EQ(ran.out, Entry(1, "one"));
  EXPECT_EQ(ran.err, "code 141\n");
}

TEST_F(QxctlTrace, FollowOfAMissingFileIsNotFound) {
  EXPECT_EQ(Qxctl({"trace", "follow", "log.app"}).code, 4);
  EXPECT_EQ(Qxctl({"trace", "follow", "Reports"}).code, 6) << "a directory";
}

TEST_F(QxctlTrace, ConfigSaysWhereEachSettingComesFrom) {
  ASSERT_EQ(mkdir(Dir().File("config").c_str(), 0700), 0);
  Write("config/a.ini", "[QxTrace]\nFileDebugLevel=0x10\nTraceFlags=7\n[EndOfFile]\n");
  Start start = StartHere();
  start.environment["QX_LOG_DEBUG_LEVEL"] = "3";
  const Ran ran = Qxctl({"trace", "config", "--app", "QxTrace", "--directory", "config", "--json"}, start);
  EXPECT_EQ(ran.code, 0);
  const json document = json::parse(ran.out);
  EXPECT_EQ(document["application"], "QxTrace");
  EXPECT_EQ(
      document["settings"][1],
      json::parse(R"({"setting": "level", "value": "3", "source": "environment", "variable": "QX_LOG_DEBUG_LEVEL"})"));
  EXPECT_EQ(document["settings"][2], json::parse(R"({"setting": "trace flags", "value": "7", "source": "file",
            "key": "TraceFlags", "section": "QxTrace", "file": "config/a.ini"})"));
}

// The same transfer is traced into a log and into a ring: the entries differ only in their stamps and threads.
TEST_F(QxctlTrace, TransferTracedIntoARingShowsTheEntriesOfTheLog) {
  MakeReport("load", 9, {"09:00 load 0.12", "09:01 load 0.31", "09:02 load 0.25"});
  const auto texts = [&](const std::string& directory, const std::string& file, bool has_ring) {
    Start start = StartHere();
    if (has_ring) start.environment.insert({{"TraceFileLimit", "2"}, {"QX_LOG_RINGBUF_WEIGHT", "1"}});
    const Ran ran = Qxctl({"module", "reports", "load", "--trace", directory, "--trace-level", "6"}, start);
    EXPECT_EQ(ran.code, 0) << ran.err;
    std::vector<std::string> shown;
    bool is_after_header = false;
    const json document = ShowJson({directory + "/" + file});
    for (const json& entry : document["entries"]) {
      const std::string text = entry["text"].is_null() ? "" : entry["text"].get<std::string>();
      if (is_after_header && !text.starts_with("### ")) shown.push_back(entry["module"].get<std::string>() + text);
      if (text == "# End of header.") is_after_header = true;
    }
    return shown;
  };
  const auto log = texts("in-log", "log.qxremconxfer", false);
  const auto ring = texts("in-ring", "log.qxremconxfer_a", true);
  EXPECT_GT(log.size(), 10U);
  EXPECT_EQ(WithoutNumbers(ring), WithoutNumbers(log));
}

}  // namespace qx::test
