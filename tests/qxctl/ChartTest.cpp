// Tests charts of fields, the table of fields, and fields in documents: the whole output of report cat, fetch and
// follow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Words = std::vector<std::string>;

class QxctlCharts : public testing::Test, protected QxctlFixture {
 protected:
  // Runs qxctl with this locale, 60 columns, and `zone` as the local time.
  Ran Run(const Words& arguments, const std::string& locale = "C", const std::string& zone = "UTC") const {
    Start start = StartHere();
    start.environment["LC_ALL"] = locale;
    start.environment["COLUMNS"] = "60";
    start.environment["TZ"] = zone;
    return Qxctl(arguments, start);
  }

  // Makes a new report with these records, and returns a line end, the chart, and the messages.
  std::string Chart(const Words& records, Words options, const std::string& locale = "C",
                    const std::string& zone = "UTC") const {
    (void)std::remove((ReportPath("load") + ".ind").c_str());
    MakeReport("load", 5000, records);
    options.insert(options.begin(), {"report", "cat", "load"});
    const Ran ran = Run(options, locale, zone);
    EXPECT_EQ(ran.code, 0) << ran.err;
    return "\n" + ran.out + ran.err;
  }

  std::string CheckDocuments(const std::string& transcript) const {
    const std::string source = QX_SOURCE_DIR;
    const Words command = {"/usr/bin/python3", source + "/tests/docs/check_documents.py", source + "/docs/schemas"};
    const Ran ran = Child(command, {.directory = source, .input = transcript}).Wait();
    return ran.out + ran.err;
  }
};

const Words kEveryMinute = {"2026-01-31 10:58 cpu=10", "2026-01-31 10:59 cpu=20", "2026-01-31 11:00 cpu=40",
                            "2026-01-31 11:02 cpu=30"};

}  // namespace

// --- the axis of time

TEST_F(QxctlCharts, StampsMakeAnAxisOfTimeWithAGapWhereNoRecordIs) {
  EXPECT_EQ(Chart(kEveryMinute, {"--plot", "cpu"}), R"(
load, cpu: 4 values, lowest 10, highest 40
40 |  #
   |  #
   |  # :
   |  # #
   |  # #
20 | ## #
   | ## #
   |:## #
   |### #
   |### #
 0 +-----
    2026-01-31 10:58:00 to 11:02:00
)");
}

TEST_F(QxctlCharts, TicksAreAtRoundTimes) {
  Words records;
  for (int i = 0; i < 45; ++i) {
    char text[64];
    std::snprintf(text, sizeof text, "2026-01-31 10:%02d:30 x=%d", i + 5, i % 9);
    records.emplace_back(text);
  }
  EXPECT_EQ(Chart(records, {"--plot", "x"}, "C.UTF-8"), R"(
load, x: 45 values, lowest 0, highest 8
8 │        █        █        █        █        █
  │       ▆█       ▆█       ▆█       ▆█       ▆█
  │      ▄██      ▄██      ▄██      ▄██      ▄██
  │     ▂███     ▂███     ▂███     ▂███     ▂███
  │     ████     ████     ████     ████     ████
4 │    █████    █████    █████    █████    █████
  │   ▆█████   ▆█████   ▆█████   ▆█████   ▆█████
  │  ▄██████  ▄██████  ▄██████  ▄██████  ▄██████
  │ ▂███████ ▂███████ ▂███████ ▂███████ ▂███████
  │▁████████▁████████▁████████▁████████▁████████
0 └─────┬─────────┬─────────┬─────────┬─────────
        10:10     10:20     10:30     10:40
   2026-01-31 10:05:30 to 10:49:30
)");
}

TEST_F(QxctlCharts, TimesAreLocalUnlessUtcIsAsked) {
  const Words records = {"2026-01-31T10:58:00Z cpu=1", "2026-01-31T10:59:00Z cpu=1"};
  EXPECT_THAT(Chart(records, {"--plot", "cpu"}, "C", "CET-1"), HasSubstr("     2026-01-31 11:58:00 to 11:59:00\n"));
  EXPECT_THAT(Chart(records, {"--plot", "cpu", "--utc"}, "C", "CET-1"), HasSubstr(" 10:58:00 to 10:59:00 UTC\n"));
}

TEST_F(QxctlCharts, RecordWithoutAStampHasTheTimeOfTheOneBeforeItAlsoInASlice) {
  const Words records = {"2026-01-31 10:00 begin", "x=1", "2026-01-31 10:01 begin", "x=2"};
  const std::string chart = Chart(records, {"--plot", "x"});
  EXPECT_THAT(chart, HasSubstr("2026-01-31 10:00:00 to 10:01:00\n"));
  EXPECT_THAT(Chart(records, {"--plot", "x", "--grep", "x="}), HasSubstr("2026-01-31 10:00:00 to 10:01:00\n"));
  EXPECT_THAT(Chart(records, {"--plot", "x", "--reverse"}), StartsWith(chart.substr(0, chart.find("qxctl"))));
  EXPECT_THAT(Chart({"2026-01-31 10:00 a", "x=1", "x=3", "2026-01-31 10:01 x=2"}, {"--plot", "x", "--last", "2"}),
              HasSubstr("2026-01-31 10:00:00 to 10:01:00\n"));
}

TEST_F(QxctlCharts, ValuesBeforeTheFirstStampAreLeftOutWithANote) {
  EXPECT_EQ(Chart({"x=9", "x=8", "2026-01-31 10:00 x=1", "2026-01-31 10:01 x=2"}, {"--plot", "x"}), R"(
load, x: 2 values, lowest 1, highest 2
2 | #
  | #
  | #
  | #
  | #
1 |##
  |##
  |##
  |##
  |##
0 +--
   2026-01-31 10:00:00 to 10:01:00
qxctl: 2 values without a time are not drawn: no stamp precedes them
)");
}

TEST_F(QxctlCharts, FewStampsOrOneTimeMakeAnAxisOfRecords) {
  EXPECT_EQ(Chart({"x=1", "x=2", "2026-01-31 10:01 x=2"}, {"--plot", "x"}), R"(
load, x: 3 values, lowest 1, highest 2
2 | ##
  | ##
  | ##
  | ##
  | ##
1 |###
  |###
  |###
  |###
  |###
0 +---
   0 2
)");
  EXPECT_THAT(Chart({"2026-01-31 10:01 x=2", "2026-01-31 10:01 x=1"}, {"--plot", "x"}), HasSubstr("\n0 +--\n   0\n"));
}

TEST_F(QxctlCharts, TimeFormatDescribesOtherStamps) {
  EXPECT_THAT(Chart({"at 31.1.26 9h: x=1", "at 1.2.26 9h: x=2"}, {"--plot", "x", "--time-format", "at %d.%m.%y %Hh"}),
              HasSubstr("2026-01-31 09:00:00 to 2026-02-01 09:00:00\n"));
}

// --- zero

TEST_F(QxctlCharts, BarsGoUpAndDownFromALineAtZero) {
  EXPECT_EQ(Chart({"x=-5", "x=0", "x=10", "x=2.5", "x=-2"}, {"--plot", "x"}), R"(
load, x: 5 values, lowest -5, highest 10
10 |  #
   |  #
   |  #
   |  #
   |  #:
   |  ##
 0 +-----
   |#   #
   |#   '
   |#
-5 +-----
    0   4
)");
  EXPECT_EQ(Chart({"x=-5", "x=0", "x=10", "x=2.5", "x=-2"}, {"--plot", "x"}, "C.UTF-8"), R"(
load, x: 5 values, lowest -5, highest 10
10 │  █
   │  █
   │  █
   │  █
   │  █▄
   │  ██
 0 ┼─────
   │█   █
   │█   ▔
   │█
-5 └─────
    0   4
)");
}

TEST_F(QxctlCharts, NegativeValuesHangFromZeroAtTheTop) {
  EXPECT_EQ(Chart({"x=-1", "x=-4"}, {"--plot", "x"}), R"(
load, x: 2 values, lowest -4, highest -1
 0 +--
   |##
   |##
   |"#
   | #
   | #
   | #
   | #
   | #
   | #
   | #
-4 +--
    0
)");
}

TEST_F(QxctlCharts, AxisFarFromZeroHasNoLineAtZero) {
  EXPECT_EQ(Chart({"x=1000", "x=1004"}, {"--plot", "x"}), R"(
load, x: 2 values, lowest 1000, highest 1004
1004 | #
     | #
     | #
     | #
     | #
1002 | #
     | #
     | #
     | #
     |.#
1000 +--
      0
)");
}

// --- several fields

TEST_F(QxctlCharts, SeveralFieldsHaveSignsAndALegend) {
  const Words records = {"cpu=10 load=1", "cpu=40 load=2", "cpu=20 load=30", "cpu=35"};
  const std::string chart = Chart(records, {"--plot", "cpu", "--plot", "load"});
  EXPECT_EQ(chart, R"(
load: cpu, load
* cpu: 4 values, lowest 10, highest 40, newest 35
o load: 3 values, lowest 1, highest 30, newest 30
40 | *
   |   *
   |
   |  o
   |
20 |  *
   |
   |
   |*
   |
 0 |oo
   +----
    0  3
qxctl: 1 of 4 records have no number for load
)");
  EXPECT_EQ(Chart(records, {"--plot", "cpu,load"}), chart);
  EXPECT_EQ(Chart(records, {"--plot", "cpu,load,cpu"}), chart);
}

TEST_F(QxctlCharts, SeveralFieldsInUnicodeWithALineAtZero) {
  EXPECT_EQ(Chart({"a=-1 b=2", "a=1 b=-2", "a=0 b=0"}, {"--plot", "a,b"}, "C.UTF-8"), R"(
load: a, b
● a: 3 values, lowest -1, highest 1, newest 0
○ b: 3 values, lowest -2, highest 2, newest 0
 2 │○
   │
   │
   │ ●
   │
 0 ┼──●
   │
   │
   │●
   │
-2 │ ○
   └───
    0 2
)");
}

TEST_F(QxctlCharts, EachFieldHasItsColour) {
  const std::string chart = Chart({"a=1 b=2"}, {"--plot", "a,b", "--color", "always"});
  EXPECT_THAT(chart, HasSubstr("\033[32m*\033[0m a: 1 value, lowest 1, highest 1, newest 1\n"));
  EXPECT_THAT(chart, HasSubstr("\033[36mo\033[0m b: 1 value, "));
}

TEST_F(QxctlCharts, SvgHasAnAxisOfTimeALineAtZeroAndALegend) {
  const Words records = {"2026-01-31 10:58 a=-10 b=5", "2026-01-31 10:59 a=20 b=10"};
  EXPECT_EQ(Chart(records, {"--plot", "a,b", "--svg", "-"}), R"(
<?xml version="1.0" encoding="UTF-8"?>
<svg xmlns="http://www.w3.org/2000/svg" width="800" height="440" viewBox="0 0 800 440"
  font-family="sans-serif" font-size="12">
<title>load: a, b</title>
<rect width="800" height="440" fill="#fff"/>
<text x="400.0" y="24.0" text-anchor="middle">load: a, b</text>
<line x1="80.0" y1="340.0" x2="780.0" y2="340.0" stroke="#ddd"/>
<text x="74.0" y="344.0" text-anchor="end">-10</text>
<line x1="80.0" y1="240.0" x2="780.0" y2="240.0" stroke="#ddd"/>
<text x="74.0" y="244.0" text-anchor="end">0</text>
<line x1="80.0" y1="140.0" x2="780.0" y2="140.0" stroke="#ddd"/>
<text x="74.0" y="144.0" text-anchor="end">10</text>
<line x1="80.0" y1="40.0" x2="780.0" y2="40.0" stroke="#ddd"/>
<text x="74.0" y="44.0" text-anchor="end">20</text>
<line x1="80.0" y1="40.0" x2="80.0" y2="340.0" stroke="#ddd"/>
<text x="80.0" y="358.0" text-anchor="middle">10:58:00</text>
<line x1="196.7" y1="40.0" x2="196.7" y2="340.0" stroke="#ddd"/>
<text x="196.7" y="358.0" text-anchor="middle">10:58:10</text>
<line x1="313.3" y1="40.0" x2="313.3" y2="340.0" stroke="#ddd"/>
<text x="313.3" y="358.0" text-anchor="middle">10:58:20</text>
<line x1="430.0" y1="40.0" x2="430.0" y2="340.0" stroke="#ddd"/>
<text x="430.0" y="358.0" text-anchor="middle">10:58:30</text>
<line x1="546.7" y1="40.0" x2="546.7" y2="340.0" stroke="#ddd"/>
<text x="546.7" y="358.0" text-anchor="middle">10:58:40</text>
<line x1="663.3" y1="40.0" x2="663.3" y2="340.0" stroke="#ddd"/>
<text x="663.3" y="358.0" text-anchor="middle">10:58:50</text>
<line x1="780.0" y1="40.0" x2="780.0" y2="340.0" stroke="#ddd"/>
<text x="780.0" y="358.0" text-anchor="middle">10:59:00</text>
<text x="430.0" y="380.0" text-anchor="middle">2026-01-31 10:58:00 to 10:59:00</text>
<line x1="80.0" y1="40.0" x2="80.0" y2="340.0" stroke="#333"/>
<line x1="80.0" y1="340.0" x2="780.0" y2="340.0" stroke="#333"/>
<line x1="80.0" y1="240.0" x2="780.0" y2="240.0" stroke="#333"/>
<line x1="80.0" y1="396.0" x2="120.0" y2="396.0" stroke="#06c" stroke-width="1.5"/>
<text x="130.0" y="400.0" text-anchor="start">a: 2 values, lowest -10, highest 20, newest 20</text>
<line x1="80.0" y1="416.0" x2="120.0" y2="416.0" stroke="#c30" stroke-width="1.5" stroke-dasharray="8 3"/>
<text x="130.0" y="420.0" text-anchor="start">b: 2 values, lowest 5, highest 10, newest 10</text>
<polyline fill="none" stroke="#06c" stroke-width="1.5" points="80.0,340.0 780.0,40.0"/>
<polyline fill="none" stroke="#c30" stroke-width="1.5" stroke-dasharray="8 3" points="80.0,190.0 780.0,140.0"/>
</svg>
)");
}

// --- fields that are not there

TEST_F(QxctlCharts, UnknownFieldListsTheFieldsWithNumbers) {
  MakeReport("load", 9, {"09:00 cpu=12% load 0.12 state=ok", "09:01 cpu=12% disk=3 state=2"});
  MakeReport("texts", 9, {"all is well", "state=ok"});
  const auto message = [this](Words arguments) {
    const Ran ran = Run(arguments);
    EXPECT_EQ(ran.code, 4);
    EXPECT_EQ(ran.out, "");
    return ran.err;
  };
  EXPECT_EQ(
      message({"report", "cat", "load", "--plot", "cup"}),
      "qxctl: no record of load has a number in the field cup; did you mean cpu? (fields with numbers: cpu, load, "
      "disk and state)\n");
  EXPECT_EQ(message({"fetch", "load", "--quiet", "--plot", "cpu,memory"}),
            "qxctl: no record of load has a number in the field memory; fields with numbers: cpu, load, disk and "
            "state\n");
  EXPECT_EQ(message({"follow", "load", "--count", "2", "--quiet", "--plot", "x\033y"}),
            "qxctl: no record of load has a number in the field x\\x1By; fields with numbers: cpu, load, disk and "
            "state\n");
  EXPECT_EQ(message({"report", "cat", "load", "--plot", "7", "--separator", " "}),
            "qxctl: no record of load has a number in the field 7; fields with numbers: 4\n");
  EXPECT_EQ(message({"report", "cat", "texts", "--plot", "state"}),
            "qxctl: no record of texts has a number in the field state, only texts\n");
  EXPECT_EQ(message({"report", "cat", "texts", "--plot", "cpu"}),
            "qxctl: no record of texts has a number in the field cpu, and none of its other fields has one; "
            "\"--separator\" splits records into columns\n");
}

TEST_F(QxctlCharts, ReportWithoutRecordsHasAChartWithoutValues) {
  EXPECT_EQ(Chart({}, {"--plot", "cpu"}), "\nload, cpu: 0 values\n");
}

// --- the table of fields

TEST_F(QxctlCharts, FieldsAreThoseOfTheNewestRecord) {
  MakeReport("load", 9, {"old=1", "2026-01-31 10:20:30 cpu=12% load 0.12 state=\"not \033 ok\""});
  const std::string table =
      "field    type     value\n"
      "(stamp)  time     2026-01-31 10:20:30\n"
      "cpu      integer  12%\n"
      "load     number   0.12\n"
      "state    text     not \\x1B ok\n";
  EXPECT_EQ(Run({"report", "cat", "load", "--fields"}).out, table);
  EXPECT_EQ(Run({"fetch", "load", "--fields"}).out, table);
  EXPECT_EQ(Run({"follow", "load", "--count", "2", "--fields"}).out, table);
  EXPECT_EQ(Run({"report", "cat", "load", "--fields", "--reverse"}).out, table);
  EXPECT_EQ(Run({"report", "cat", "load", "--fields", "--grep", "old"}).out,
            "field  type     value\nold    integer  1\n");
}

TEST_F(QxctlCharts, FieldsOfColumnsHaveTheirNumbers) {
  MakeReport("load", 9, {"09:00;7"});
  EXPECT_EQ(Run({"report", "cat", "load", "--fields", "--separator", ";"}).out,
            "field  type     value\n1      text     09:00\n2      integer  7\n");
}

TEST_F(QxctlCharts, FieldsOfSeveralReportsHaveHeadings) {
  MakeReport("load", 9, {"a=1"});
  MakeReport("disk", 9, {"b=x"});
  const std::string tables =
      "load:\nfield  type     value\na      integer  1\ndisk:\nfield  type  value\nb      text  x\n";
  EXPECT_EQ(Run({"report", "cat", "load", "disk", "--fields"}).out, tables);
  EXPECT_EQ(Run({"fetch", "load", "disk", "--fields"}).out, tables);
}

TEST_F(QxctlCharts, RecordWithoutFieldsIsAFinding) {
  MakeReport("load", 9, {"all is well"});
  MakeReport("empty", 9, {});
  const Ran ran = Run({"report", "cat", "load", "--fields"});
  EXPECT_EQ(ran.code, 1);
  EXPECT_EQ(ran.err,
            "qxctl: the newest record of load has no fields; \"--separator\" splits the records into columns\n");
  const Ran empty = Run({"report", "cat", "empty", "--fields"});
  EXPECT_EQ(empty.code, 0);
  EXPECT_EQ(empty.err, "qxctl: empty has no record whose fields could be shown\n");
}

// --- fields in documents

TEST_F(QxctlCharts, JsonHasFieldsAndTheTimeOfAStamp) {
  MakeReport("load", 9,
             {"2026-01-31 10:20:30 cpu=12% load 0.12 big=18446744073709551616", "[2026-01-31] state=ok raw=\xE4",
              "no fields"});
  const std::string lines =
      "{\"index\":0,\"text\":\"2026-01-31 10:20:30 cpu=12% load 0.12 big=18446744073709551616\","
      "\"timeMs\":1769854830000,\"fields\":{\"cpu\":12,\"load\":0.12,\"big\":1.8446744073709552e+19}}\n"
      "{\"index\":1,\"text\":null,\"textBase64\":\"WzIwMjYtMDEtMzFdIHN0YXRlPW9rIHJhdz3k\",\"timeMs\":1769817600000,"
      "\"fields\":{\"state\":\"ok\",\"raw\":null,\"rawBase64\":\"5A==\"}}\n"
      "{\"index\":2,\"text\":\"no fields\"}\n";
  EXPECT_EQ(Run({"report", "cat", "load", "--format", "json"}).out, lines);
  EXPECT_EQ(Run({"fetch", "load", "--format", "json"}).out, lines);
  EXPECT_EQ(Run({"fetch", "load", "--format", "json", "--resume", "state"}).out, lines);
  EXPECT_EQ(Run({"follow", "load", "--count", "3", "--format", "json"}).out, lines);
  EXPECT_EQ(CheckDocuments("$ qxctl report cat load --format json\n" + lines), "");
  EXPECT_NE(CheckDocuments("$ qxctl fetch load --format json\n{\"index\":0,\"text\":\"a\",\"fields\":{\"a\":[]}}\n"),
            "");
  const std::string followed = Run({"follow", "load", "--count", "3", "--json"}).out;
  EXPECT_THAT(followed, StartsWith("{\"kind\":\"record\"," + lines.substr(1, lines.find('\n'))));
  EXPECT_EQ(CheckDocuments("$ qxctl follow load --json\n" + followed), "");
}

TEST_F(QxctlCharts, JsonHasColumnsAndStampsAsTheOptionsSay) {
  MakeReport("load", 9, {"31.1.26;7"});
  EXPECT_EQ(Run({"report", "cat", "load", "--format", "json", "--separator", ";", "--time-format", "%d.%m.%y"}).out,
            "{\"index\":0,\"text\":\"31.1.26;7\",\"timeMs\":1769817600000,\"fields\":{\"1\":\"31.1.26\",\"2\":7}}\n");
}

}  // namespace qx::test
