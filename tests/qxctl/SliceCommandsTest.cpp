// Tests slices of records in commands: each command prints the same records, and has the options that the page shows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

using Texts = std::vector<std::string>;

class QxctlSlices : public testing::Test, protected QxctlFixture {
 protected:
  QxctlSlices() {
    MakeReport("load", 9,
               {"2020-01-31 09:59:00 a", "2020-01-31 10:00:00 b", "more of b", "2020-01-31 10:00:30 c",
                "2020-01-31 10:01:00 d"});
  }

  Ran Run(Texts arguments, const std::string& zone = "UTC") const {
    Start start = StartHere();
    start.environment["TZ"] = zone;
    return Qxctl(arguments, start);
  }

  // The last words of the records that a command prints.
  std::string Words(const Ran& ran) const {
    EXPECT_EQ(ran.code, 0) << ran.err;
    std::string words;
    std::istringstream lines(ran.out);
    for (std::string line; std::getline(lines, line);) {
      if (line.ends_with('\r')) line.pop_back();
      words += (words.empty() ? "" : " ") + line.substr(line.rfind(' ') + 1);
    }
    return words;
  }

  // The slice that report cat prints. The slice of fetch must be the same.
  std::string Slice(const Texts& options, const std::string& zone = "UTC") const {
    Texts cat = {"report", "cat", "load"};
    Texts fetch = {"fetch", "load", "--quiet"};
    cat.insert(cat.end(), options.begin(), options.end());
    fetch.insert(fetch.end(), options.begin(), options.end());
    const std::string words = Words(Run(cat, zone));
    EXPECT_EQ(Words(Run(fetch, zone)), words);
    return words;
  }
};

std::string Entry(int second, const std::string& text, const std::string& module = "QxTrace") {
  char header[80];
  std::snprintf(header, sizeof header, "2020-01-31 10:20:%02d.000 [000000A1] %-13s ", second, module.c_str());
  return header + text + "\n";
}

// The rows of the table of options in the page: option => the commands with a "yes".
std::map<std::string, std::set<std::string>> TableInPage() {
  std::map<std::string, std::set<std::string>> rows;
  std::vector<std::string> heading;
  std::istringstream lines(ReadFile(std::string(QX_SOURCE_DIR) + "/docs/qxctl-records.md"));
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> cells;
    std::istringstream rest(line);
    for (std::string cell; std::getline(rest, cell, '|');) {
      const std::size_t begin = cell.find_first_not_of(" `");
      cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, cell.find_last_not_of(" `") - begin + 1));
    }
    if (line.starts_with("| slice |")) heading = cells;
    if (heading.empty() || !line.starts_with("| `--")) continue;
    std::set<std::string>& commands = rows[cells[1].substr(0, cells[1].find(' '))];
    for (std::size_t i = 2; i < cells.size(); ++i) {
      if (cells[i] == "yes") commands.insert(heading[i]);
    }
  }
  return rows;
}

}  // namespace

// --- report cat and fetch

TEST_F(QxctlSlices, LastTakesTheNewestAndReverseReversesThem) {
  EXPECT_EQ(Slice({"--last", "2"}), "c d");
  EXPECT_EQ(Slice({"--last", "99"}), "a b b c d");
  EXPECT_EQ(Slice({"--reverse"}), "d c b b a");
  EXPECT_EQ(Slice({"--last", "2", "--reverse"}), "d c");
}

TEST_F(QxctlSlices, SinceAndUntilTakeATimeWithWhatHasNoStamp) {
  EXPECT_EQ(Slice({"--since", "2020-01-31 10:00"}), "b b c d");
  EXPECT_EQ(Slice({"--until", "2020-01-31 10:00"}), "a b b c");  // all of that minute
  EXPECT_EQ(Slice({"--until", "2020-01-31 10:00:00"}), "a b b");
  EXPECT_EQ(Slice({"--since", "2020-01-31 10:00", "--until", "2020-01-31 10:00:29"}), "b b");
  EXPECT_EQ(Slice({"--since", "yesterday"}), "");
  EXPECT_EQ(Slice({"--until", "-1min"}), "a b b c d");
}

TEST_F(QxctlSlices, StampWithoutAZoneIsLocalTimeUnlessUtcIsAsked) {
  const std::string zone = "CET-1";
  EXPECT_EQ(Slice({"--since", "2020-01-31 10:01"}, zone), "d");
  EXPECT_EQ(Slice({"--since", "2020-01-31T09:01:00Z"}, zone), "d");
  EXPECT_EQ(Slice({"--since", "2020-01-31T09:01:00Z", "--utc"}, zone), "a b b c d");
  EXPECT_EQ(Slice({"--since", "2020-01-31 10:01", "--utc"}, zone), "d");
}

TEST_F(QxctlSlices, GrepTakesTextsThatMatch) {
  EXPECT_EQ(Slice({"--grep", "[bd]$"}), "b b d");
  EXPECT_EQ(Slice({"--grep", "[bd]$", "--since", "2020-01-31 10:00:30"}), "d");
  EXPECT_EQ(Slice({"--grep", "nothing"}), "");
}

TEST_F(QxctlSlices, TimeFormatReadsOtherStamps) {
  MakeReport("other", 9, {"[at 09:59] a", "[at 10:00] b"});
  const Ran ran = Run({"report", "cat", "other", "--time-format", "[at %H:%M]", "--since", "10:00"});
  EXPECT_EQ(ran.out, "[at 10:00] b\r\n");
}

TEST_F(QxctlSlices, IndexIsThatOfTheRecordInTheReport) {
  const std::string out = Run({"report", "cat", "load", "--last", "1", "--format", "json"}).out;
  EXPECT_EQ(json::parse(out)["index"], 4);
  EXPECT_EQ(Run({"report", "cat", "load", "--grep", "d$", "--format", "json"}).out, out);
  EXPECT_EQ(Run({"fetch", "load", "--grep", "d$", "--format", "json", "--quiet"}).out, out);
}

TEST_F(QxctlSlices, LastOfALongRingReadsTheEndOfIt) {
  Texts texts;
  for (int i = 0; i < 30; ++i) texts.push_back("n " + std::to_string(i));
  MakeReport("ring", 7, texts);
  EXPECT_EQ(Run({"report", "cat", "ring", "--last", "2"}).out, "n 28\r\nn 29\r\n");
}

TEST_F(QxctlSlices, EachOfSeveralReportsHasItsOwnSlice) {
  MakeReport("other", 3, {"x", "y"});
  EXPECT_EQ(Run({"report", "cat", "other", "load", "--last", "1"}).out, "y\r\n2020-01-31 10:01:00 d\r\n");
}

TEST_F(QxctlSlices, FetchSaysHowManyRecordsAreInTheSlice) {
  EXPECT_THAT(Run({"fetch", "load", "--last", "2"}).err,
              testing::AllOf(HasSubstr("load: 5 records"), EndsWith("; 2 in the slice\n")));
  EXPECT_THAT(Run({"fetch", "load"}).err, Not(HasSubstr("slice")));
  const json summary = json::parse(Run({"fetch", "load", "--last", "2", "-o", "out", "--json"}).out);
  EXPECT_EQ(summary["records"], 5);
  EXPECT_EQ(summary.value("recordsInSlice", -1), 2);
  EXPECT_EQ(ReadFile(Dir().File("out")), "2020-01-31 10:00:30 c\r\n2020-01-31 10:01:00 d\r\n");
}

TEST_F(QxctlSlices, ChartShowsTheSlice) {
  MakeReport("numbers", 9, {"k=1", "k=2", "k=3"});
  EXPECT_THAT(Run({"report", "cat", "numbers", "--plot", "k", "--last", "2"}).out, HasSubstr("2 values, lowest 2"));
}

TEST_F(QxctlSlices, WhatIsNoTimeOrPatternIsRefused) {
  const std::string advice =
      "\" is not a time; give one such as \"2026-01-31 10:20\", 10:20, -10min, today or yesterday\n";
  const std::map<std::string, Texts> wrong = {
      {"qxctl: --since: \"tomorrow" + advice, {"--since", "tomorrow"}},
      {"qxctl: --until: \"-10" + advice, {"--until", "-10"}},
      {"qxctl: --since now is after --until yesterday; exchange the two times\n",
       {"--since", "now", "--until", "yesterday"}},
      {"qxctl: --last: 0 is too small; the smallest is 1\n", {"--last", "0"}},
      {"qxctl: --time-format says where --since and --plot find the time; give one of these as well\n",
       {"--time-format", "%H"}},
      {"qxctl: --grep: \"(\" is not a regular expression (Unmatched ( or \\(); put a \\ before a character that means "
       "itself\n",
       {"--grep", "("}},
  };
  for (const auto& [message, options] : wrong) {
    Texts arguments = {"report", "cat", "load"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const Ran ran = Run(arguments);
    EXPECT_EQ(ran.code, 2) << message;
    EXPECT_EQ(ran.err, message);
  }
  EXPECT_EQ(Run({"fetch", "load", "--resume", "s", "--last", "1"}).err,
            "qxctl: --resume and --last exclude each other; give one of them\n");
}

// --- follow

TEST_F(QxctlSlices, FollowBeginsWithTheLastAndPrintsEveryNewRecord) {
  Child child({QxctlPath(), "follow", "load", "--last", "1", "--count", "3", "--interval", "0.01", "--quiet"},
              StartHere());
  EXPECT_EQ(child.ReadSome(), "2020-01-31 10:01:00 d\r\n");
  Append("load", {"e", "f"});
  const Ran ran = child.Wait();
  EXPECT_EQ(ran.out, "e\r\nf\r\n");
  EXPECT_EQ(ran.code, 0) << ran.err;
}

TEST_F(QxctlSlices, FollowFiltersOldAndNewRecords) {
  Child child({QxctlPath(), "follow", "load", "--grep", "[be]$", "--count", "3", "--interval", "0.01", "--quiet"},
              StartHere());
  EXPECT_EQ(child.ReadSome(), "2020-01-31 10:00:00 b\r\nmore of b\r\n");
  Append("load", {"d", "e"});
  EXPECT_EQ(child.Wait().out, "e\r\n");
}

TEST_F(QxctlSlices, FollowSinceTakesTheTimeOfTheRecordBefore) {
  const Ran ran = Run({"follow", "load", "--since", "2020-01-31 10:00:30", "--utc", "--for", "0.05", "--quiet"});
  EXPECT_EQ(ran.out, "2020-01-31 10:00:30 c\r\n2020-01-31 10:01:00 d\r\n");
}

// --- trace show

TEST_F(QxctlSlices, TraceShowTakesASliceOfEntriesWithTheirLines) {
  WriteFile(Dir().File("log.x"), Entry(1, "one") + Entry(2, "two\nand more") + Entry(3, "three"));
  EXPECT_EQ(Run({"trace", "show", "log.x", "--last", "2"}).out,
            Entry(2, "two") + "    | and more\n" + Entry(3, "three"));
  EXPECT_EQ(Run({"trace", "show", "log.x", "--last", "2", "--reverse"}).out,
            Entry(3, "three") + Entry(2, "two") + "    | and more\n");
  EXPECT_EQ(Run({"trace", "show", "log.x", "--grep", "more"}).out, Entry(2, "two") + "    | and more\n");
  EXPECT_EQ(Run({"trace", "show", "log.x", "--since", "2020-01-31 10:20:03"}, "CET-1").out, Entry(3, "three"));
  EXPECT_EQ(Run({"trace", "show", "log.x", "--until", "2020-01-31T09:20:01Z"}, "CET-1").out, Entry(1, "one"));
}

TEST_F(QxctlSlices, TraceShowTakesErrorsAndWarnings) {
  const std::string error = Entry(2, "## ERROR! Could not read");
  const std::string warning = Entry(3, "## WARNING: append open error");
  WriteFile(Dir().File("log.x"), Entry(1, "one") + error + warning);
  EXPECT_EQ(Run({"trace", "show", "log.x", "--level", "error"}).out, error);
  EXPECT_EQ(Run({"trace", "show", "log.x", "--level", "warning"}).out, error + warning);
}

TEST_F(QxctlSlices, TraceShowLeavesOutTheHeader) {
  WriteFile(Dir().File("log.x"), Entry(1, "one") + Entry(2, "two\nmore"));
  EXPECT_EQ(Run({"trace", "show", "log.x", "--no-header"}).out, "one\ntwo\n    | more\n");
}

TEST_F(QxctlSlices, TraceShowFindsTheTraceDirectoryByItself) {
  Start start = StartHere();
  start.environment["QX_LOG_RINGBUF_DIR"] = Dir().File("traces");
  const Ran missing = Qxctl({"trace", "show"}, start);
  EXPECT_EQ(missing.code, 4);
  EXPECT_THAT(missing.err, HasSubstr(Dir().File("traces")));
  EXPECT_THAT(missing.err, EndsWith("; \"qxctl trace config\" shows what names that directory, or give a PATH\n"));
  EXPECT_EQ(Qxctl({"module", "what", "--trace", "traces", "--trace-level", "1"}, StartHere()).code, 0);
  WriteFile(Dir().File("traces/log.x"), Entry(1, "one"));
  EXPECT_THAT(Qxctl({"trace", "show"}, start).out, HasSubstr("log.x: " + Entry(1, "one")));
}

// --- the table

TEST_F(QxctlSlices, PageHasTheTableOfCommandsByOption) {
  const std::map<std::string, std::set<std::string>> page = TableInPage();
  ASSERT_EQ(page.size(), 7U);
  const json commands = json::parse(Run({"_table"}).out);
  for (const auto& [option, with_it] : page) {
    std::set<std::string> found;
    for (const json& command : commands) {
      const std::string words = command["command"].get<std::string>().substr(std::string("qxctl").size());
      for (const json& each : command["options"]) {
        const bool is_of_a_slice = each["names"].back() == option && !words.empty();
        if (is_of_a_slice) found.insert(words.substr(1));
      }
    }
    EXPECT_EQ(with_it, found) << option;
  }
}

}  // namespace qx::test
