// Tests how fetch and report cat write records: formats, columns and charts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/qxctl/RunQxctl.h"

namespace qx::test {

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

using Texts = std::vector<std::string>;

class QxctlRecordFormat : public testing::Test, protected QxctlFixture {
 protected:
  // The output of cat, which must be that of fetch.
  std::string Print(const Texts& options) const {
    Texts cat = {"report", "cat", "Reports/load"};
    Texts fetch = {"fetch", "load"};
    cat.insert(cat.end(), options.begin(), options.end());
    fetch.insert(fetch.end(), options.begin(), options.end());
    const Ran printed = Qxctl(cat);
    EXPECT_EQ(printed.code, 0) << printed.err;
    EXPECT_EQ(Qxctl(fetch).out, printed.out);
    return printed.out;
  }
  std::string Csv(const Texts& texts, const Texts& more = {}) const {
    (void)std::remove((ReportPath("load") + ".ind").c_str());
    MakeReport("load", 99, texts);
    Texts options = {"--format", "csv"};
    options.insert(options.end(), more.begin(), more.end());
    return Print(options);
  }
  Ran Plot(const Texts& texts, const Texts& options, const std::string& locale = "C") const {
    (void)std::remove((ReportPath("load") + ".ind").c_str());
    MakeReport("load", 5000, texts);
    Texts arguments = {"report", "cat", "Reports/load"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    Start start = StartHere();
    start.environment["LC_ALL"] = locale;
    start.environment["COLUMNS"] = "40";
    return Qxctl(arguments, start);
  }
};

std::vector<json> LinesOfText(const std::string& text) {
  std::vector<json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line));
  return lines;
}

}  // namespace

TEST_F(QxctlRecordFormat, TextIsWhatIsStored) {
  MakeReport("load", 9, {"a", "b\xFFlost", "\xE4"});
  EXPECT_EQ(Print({"--format", "text"}), "a\r\nb\xFF\xE4\r\n");
}

TEST_F(QxctlRecordFormat, JsonHasALineForEachRecordAndEveryByte) {
  MakeReport("load", 9, {"plain", "q\"\\\t", "\xE4", "a\nlost", "b\xFFlost", "\xC3\xA4"});
  const std::string out = Print({"--format", "json"});
  EXPECT_EQ(out.substr(0, out.find('\n') + 1), "{\"index\":0,\"text\":\"plain\"}\n");
  const std::vector<json> lines = LinesOfText(out);
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_EQ(lines[1]["text"], "q\"\\\t");
  EXPECT_EQ(lines[2], json::parse(R"({"index": 2, "text": null, "textBase64": "5A=="})"));
  EXPECT_EQ(lines[3], json::parse(R"({"index": 3, "text": "a", "end": "lf"})"));
  EXPECT_EQ(lines[4], json::parse(R"({"index": 4, "text": "b", "end": "ff"})"));
  EXPECT_EQ(lines[5]["text"], "\xC3\xA4");
}

// A reply does not show where a record without an end byte ends.
TEST_F(QxctlRecordFormat, RecordsCutAtANulAreSeparatedByTheModule) {
  Texts texts;
  for (int i = 0; i < 20; ++i) texts.push_back("abcdef" + std::to_string(i));
  MakeReport("load", 99, texts);
  std::string data = ReadFile(ReportPath("load") + ".dat");
  for (const char* const number : {"3", "4", "11", "19"}) data[data.find(std::string("abcdef") + number) + 3] = '\0';
  WriteFile(ReportPath("load") + ".dat", data);
  const std::vector<json> lines = LinesOfText(Print({"--format", "json"}));
  ASSERT_EQ(lines.size(), 20U);
  EXPECT_EQ(lines[3], json::parse(R"({"index": 3, "text": "abc", "end": "none"})"));
  EXPECT_EQ(lines[5], json::parse(R"({"index": 5, "text": "abcdef5"})"));
  EXPECT_EQ(lines[19]["end"], "none");
}

TEST_F(QxctlRecordFormat, CsvQuotesAsInRfc4180AndHasAHeader) {
  EXPECT_EQ(Csv({"plain", "a,b", "say \"hi\"", "cr\rcr", "", "\xE4"}),
            "index,text\r\n0,plain\r\n1,\"a,b\"\r\n2,\"say \"\"hi\"\"\"\r\n3,\"cr\rcr\"\r\n4,\r\n5,\xE4\r\n");
}

TEST_F(QxctlRecordFormat, CsvHasAsManyColumnsAsTheFirstRecordHasFields) {
  EXPECT_EQ(Csv({"a;b", "c", "d;e;f"}, {"--separator", ";"}), "index,column1,column2\r\n0,a,b\r\n1,c,\r\n2,d,e;f\r\n");
  EXPECT_EQ(Csv({"a\tb"}, {"--separator", "\\t"}), "index,column1,column2\r\n0,a,b\r\n");
  EXPECT_EQ(Csv({"a::b:c"}, {"--separator", "::"}), "index,column1,column2\r\n0,a,b:c\r\n");
}

TEST_F(QxctlRecordFormat, CsvSafeEscapesCellsThatLookLikeFormulas) {
  const Texts texts = {"=1+1", "+a", "-5", "@b", "\tc", "a=b", "=\"x\",y"};
  EXPECT_EQ(Csv(texts, {"--csv-safe"}),
            "index,text\r\n0,'=1+1\r\n1,'+a\r\n2,'-5\r\n3,'@b\r\n4,'\tc\r\n5,a=b\r\n6,\"'=\"\"x\"\",y\"\r\n");
  EXPECT_THAT(Csv(texts), HasSubstr("0,=1+1\r\n")) << "without the option a cell is what is stored";
  EXPECT_EQ(Qxctl({"report", "cat", "Reports/load", "--csv-safe"}).code, 2);
}

TEST_F(QxctlRecordFormat, EmptyReportPrintsNothingInEveryFormat) {
  MakeReport("load", 9, {});
  EXPECT_EQ(Print({"--format", "csv"}), "");
  EXPECT_EQ(Print({"--format", "json"}), "");
}

TEST_F(QxctlRecordFormat, FetchWritesTheFormatIntoItsOutputFile) {
  MakeReport("load", 9, {"a"});
  ASSERT_EQ(Qxctl({"fetch", "load", "--format", "json", "-o", "out"}).code, 0);
  EXPECT_EQ(ReadFile(Dir().File("out")), "{\"index\":0,\"text\":\"a\"}\n");
}

TEST_F(QxctlRecordFormat, ContradictoryOptionsAreAUsageError) {
  MakeReport("load", 9, {"a"});
  for (const Texts& options : {Texts{"--format", "xml"},
                               {"--separator", ";"},
                               {"--format", "csv", "--separator", ""},
                               {"--svg", "out.svg"},
                               {"--plot", "a", "-o", "out", "--json"}}) {
    Texts arguments = {"fetch", "load"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    EXPECT_EQ(Qxctl(arguments).code, 2) << options.back();
  }
}

TEST_F(QxctlRecordFormat, ChartOfAKeyInAscii) {
  const Ran ran = Plot({"cpu=0%", "cpu=50%", "cpu=100%", "nothing"}, {"--plot", "cpu"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out,
            "Reports/load, cpu: 3 values, lowest 0, highest 100\n"
            "100 |  #\n    |  #\n    |  #\n    |  #\n    |  #\n 50 | ##\n    | ##\n    | ##\n    | ##\n    |.##\n"
            "  0 +---\n     0 2\n");
  EXPECT_EQ(ran.err, "qxctl: 1 of 4 records have no number for cpu\n");
}

TEST_F(QxctlRecordFormat, ChartOfAColumnInUnicode) {
  const Ran ran = Plot({"09:00 1", "09:01 3.5", "09:02 4"}, {"--plot", "2", "--separator", " "}, "de_DE.UTF-8");
  EXPECT_THAT(ran.out, HasSubstr("4 │  █\n"));
  EXPECT_THAT(ran.out, HasSubstr("0 └───\n"));
  EXPECT_EQ(Plot({"09:00 1"}, {"--plot", "1", "--separator", " "}).code, 4) << "a time of day is not a number";
}

TEST_F(QxctlRecordFormat, KeysAreWholeWordsBeforeANumber) {
  const auto values = [&](const std::string& text) {
    return Plot({text}, {"--plot", "load"}).out.find(" 1 value,") != std::string::npos;
  };
  for (const char* const good : {"load 0.12", "load=1", "load: 3", "load = -2e3kB", "x load=5;", "load load 7"}) {
    EXPECT_TRUE(values(good)) << good;
  }
  for (const char* const bad : {"overload 1", "loads 1", "load 10.0.0.1", "load", "load=x", "load 9:00", "load nan",
                                "load1", "load 1e999", "load 0x1F", "load 5m30s"}) {
    EXPECT_FALSE(values(bad)) << bad;
  }
}

TEST_F(QxctlRecordFormat, MoreValuesThanColumnsShowTheirPeaks) {
  Texts texts(4000, "x=1");
  texts[1234] = "x=100";
  const std::string out = Plot(texts, {"--plot", "x"}).out;
  EXPECT_EQ(out.find('#') != std::string::npos, true);
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 60U);
  EXPECT_THAT(out, HasSubstr("highest 100\n100 |"));
}

TEST_F(QxctlRecordFormat, ExtremeAndEqualValuesHaveAChart) {
  for (const Texts& texts : {Texts{"x=1.7e308", "x=-1.7e308"},
                             {"x=5", "x=5"},
                             {"x=0"},
                             {"x=1e-308"},
                             {"x=-3"},
                             {"x=1e15", "x=1.000000000000001e15"}}) {
    const Ran ran = Plot(texts, {"--plot", "x", "--svg", "out.svg"});
    EXPECT_EQ(ran.code, 0) << texts[0];
    EXPECT_THAT(ran.out + ReadFile(Dir().File("out.svg")), Not(testing::ContainsRegex("[ \">-](inf|nan)[ \",<]")))
        << texts[0];
  }
}

TEST_F(QxctlRecordFormat, SvgIsValidXmlForEveryName) {
  const std::string field = "a<&\"]]>\x01\xE4";
  const Ran ran = Plot({field + "=1", field + "=2", field + "=1.5"}, {"--plot", field, "--svg", "out.svg"});
  ASSERT_EQ(ran.code, 0) << ran.err;
  const Ran parsed = Child({"/usr/bin/python3", "-c",
                            "import sys, xml.etree.ElementTree as e; r = e.parse(sys.argv[1]).getroot(); print(r.tag, "
                            "len(r.find('{http://www.w3.org/2000/svg}polyline').get('points').split()))",
                            "out.svg"},
                           StartHere())
                         .Wait();
  EXPECT_EQ(parsed.out, "{http://www.w3.org/2000/svg}svg 3\n") << parsed.err;
}

TEST_F(QxctlRecordFormat, BarsAreColouredOnlyOnRequest) {
  EXPECT_THAT(Plot({"x=1"}, {"--plot", "x"}).out, Not(HasSubstr("\033")));
  EXPECT_THAT(Plot({"x=1"}, {"--plot", "x", "--color", "always"}).out, HasSubstr("\033["));
}

}  // namespace qx::test
