// Tests qxctl explain: it knows every code and every error text of the sources, and nothing else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/qxctl/RunQxctl.h"
#include "tools/qxctl/doctor/Explanations.h"

namespace qx::test {

namespace {

using ctl::AllExplanations;
using ctl::ExplainedKind;
using ctl::Explanation;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

// The text with every `from` replaced by `to`.
std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// The source with adjacent literals joined and without comments.
std::string Joined(const std::string& source) {
  std::string joined;
  std::istringstream lines(source);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find_first_not_of(' ');
    if (first == std::string::npos || line.compare(first, 2, "//") == 0) continue;
    if (line[first] == '"' && joined.ends_with("\"")) {
      joined.pop_back();
      joined += line.substr(first + 1);
    } else {
      joined += line;
    }
  }
  return joined;
}

std::vector<std::string> LiteralsIn(const std::string& source) {
  std::vector<std::string> literals;
  for (std::size_t at = source.find('"'); at != std::string::npos; at = source.find('"', at)) {
    std::size_t end = at + 1;
    while (end < source.size() && source[end] != '"') end += source[end] == '\\' ? 2 : 1;
    literals.push_back(source.substr(at + 1, std::min(end, source.size()) - at - 1));
    at = end + 1;
    if (at >= source.size()) break;
  }
  return literals;
}

bool MarksAnError(const std::string& literal) {
  return literal.find("ERROR") != std::string::npos || literal.find("WARNING") != std::string::npos ||
         (literal.find("### ") != std::string::npos && literal.find("fail") != std::string::npos) ||
         literal.find("has been cut") != std::string::npos;
}

// The text of a literal as a log shows it: without line feeds and without the escapes of the source.
std::string AsTraced(std::string literal) {
  literal = Replaced(literal, "\\n", "");
  return Replaced(literal, "\\\"", "\"");
}

std::set<std::string> TextsOfTheSources() {
  std::set<std::string> texts;
  for (const char* const folder :
       {"base", "debug", "inifile", "markup", "process", "provider", "registry", "reportfile"}) {
    for (const auto& entry : std::filesystem::directory_iterator(std::string(QX_SOURCE_DIR) + "/" + folder)) {
      if (entry.path().extension() != ".cpp" && entry.path().extension() != ".h") continue;
      for (const std::string& literal : LiteralsIn(Joined(ReadFile(entry.path())))) {
        if (MarksAnError(literal)) texts.insert(AsTraced(literal));
      }
    }
  }
  return texts;
}

std::vector<std::string> CodesFor(std::string_view text) {
  std::vector<std::string> codes;
  for (const Explanation* const one : ctl::Explain(text)) {
    codes.push_back(std::string(NameOf(one->kind)) + " " + std::string(one->code));
  }
  return codes;
}

bool IsErrorName(const std::string& text) {
  for (int number = 1; number < 200; ++number) {
    const char* const name = strerrorname_np(number);
    if (name != nullptr && text == name) return true;
  }
  return false;
}

// The names of errors in a page, and the numbers after "LastError=".
//   "EACCES or LastError=\"13\"" => "EACCES", "13"
std::vector<std::string> ErrorsIn(const std::string& page) {
  constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  constexpr char kDigits[] = "0123456789";
  std::vector<std::string> errors;
  for (std::size_t at = page.find_first_of(kLetters); at != std::string::npos;) {
    const std::size_t end = std::min(page.find_first_not_of(kLetters, at), page.size());
    if (const std::string word = page.substr(at, end - at); IsErrorName(word)) errors.push_back(word);
    at = page.find_first_of(kLetters, end);
  }
  for (std::size_t at = page.find("LastError="); at != std::string::npos; at = page.find("LastError=", at + 1)) {
    const std::size_t begin = page.find_first_of(kDigits, at);
    if (begin < at + 14) errors.push_back(page.substr(begin, page.find_first_not_of(kDigits, begin) - begin));
  }
  return errors;
}

class QxctlExplain : public testing::Test, protected QxctlFixture {};

}  // namespace

TEST(Explanations, TheTableHasExactlyTheTextsOfTheSources) {
  std::set<std::string> known;
  for (const Explanation& one : AllExplanations()) {
    if (one.kind == ExplainedKind::kTrace) known.insert(std::string(one.code));
  }
  EXPECT_THAT(known, testing::ContainerEq(TextsOfTheSources()));
}

TEST(Explanations, EachEntryFillsEveryColumnAndIsThereOnce) {
  std::set<std::string> seen;
  for (const Explanation& one : AllExplanations()) {
    EXPECT_TRUE(seen.insert(std::string(NameOf(one.kind)) + std::string(one.code)).second) << one.code;
    for (const std::string_view column : {one.meaning, one.cause, one.action}) {
      EXPECT_GE(column.size(), 4U) << one.code;
      EXPECT_FALSE(column.ends_with('.')) << one.code;
    }
  }
}

TEST(Explanations, EveryCodeOfAReplyAndEveryExitCodeIsKnown) {
  for (const char* const code : {"0", "1", "2", "12", "13", "401", "1313", "-1", "22", "34", "61"}) {
    EXPECT_FALSE(ctl::Explain(code).empty()) << code;
  }
  for (int code = 0; code <= 6; ++code) {
    EXPECT_THAT(CodesFor(std::to_string(code)), testing::Contains("exit code " + std::to_string(code)));
  }
}

TEST(Explanations, EveryTraceTextIsFoundInAFormattedLine) {
  for (const Explanation& one : AllExplanations()) {
    if (one.kind != ExplainedKind::kTrace) continue;
    std::string line = Replaced(std::string(one.code), "%s", "a value");
    line = Replaced(Replaced(Replaced(line, "%d", "-7"), "%02X", "0D"), "%08X", "0000000D");
    line = "2026-01-31 10:20:30.123 [0000ABCD] QXRemConXfer  " + Replaced(line, "%X", "D");
    EXPECT_THAT(CodesFor(line), ElementsAre("trace text " + std::string(one.code)));
  }
}

TEST(Explanations, LongerOfTwoMatchingTextsIsShown) {
  EXPECT_THAT(CodesFor("x CRegistry: WARNING: Could not restore tree from \"/etc/brollan/registry\", trying backup"),
              ElementsAre("trace text CRegistry: WARNING: Could not restore tree from \"%s\", trying backup"));
}

TEST(Explanations, PartOfATextFindsAllTextsThatContainIt) {
  EXPECT_EQ(CodesFor("Could not restore tree").size(), 3U);
  EXPECT_TRUE(CodesFor("ERROR").empty()) << "less than eight characters say nothing";
  EXPECT_TRUE(CodesFor("an ordinary line of a log").empty());
  EXPECT_TRUE(CodesFor("").empty());
}

TEST(Explanations, DoctorCodesAreFoundInLettersOfEitherCase) {
  EXPECT_THAT(CodesFor("qx101"), ElementsAre("doctor code QX101"));
  EXPECT_TRUE(CodesFor("QX999").empty());
}

TEST(Explanations, ErrorNumberIsFoundByItsNameAndInHexadecimal) {
  EXPECT_THAT(CodesFor("ENOENT"), ElementsAre("error number 2"));
  EXPECT_THAT(CodesFor("enametoolong"), ElementsAre("error number 36"));
  EXPECT_THAT(CodesFor("0x521"), ElementsAre("error number 1313"));
  EXPECT_THAT(CodesFor("0x0000000D"), ElementsAre("error number 13"));
  for (const char* const unknown : {"ENOSUCHNAME", "0x", "0xZZ", "0x1267"}) {
    EXPECT_TRUE(CodesFor(unknown).empty()) << unknown;
  }
}

TEST(Explanations, EveryErrorThatAPageNamesIsKnown) {
  for (const auto& entry : std::filesystem::directory_iterator(std::string(QX_SOURCE_DIR) + "/docs")) {
    if (entry.path().extension() != ".md") continue;
    const std::string page = ReadFile(entry.path());
    for (const std::string& error : ErrorsIn(page)) {
      EXPECT_FALSE(ctl::Explain(error).empty()) << entry.path() << ": " << error;
    }
  }
}

// "code: meaning | cause | action", in the order of the table.
std::vector<std::string> RowsOfExplanations() {
  std::vector<std::string> rows;
  for (const Explanation& one : AllExplanations()) {
    const bool is_in_page = one.kind == ExplainedKind::kResult || one.kind == ExplainedKind::kErrorNumber ||
                            one.kind == ExplainedKind::kFinding;
    if (!is_in_page) continue;
    rows.push_back(std::string(one.code) + ": " + std::string(one.meaning) + " | " + std::string(one.cause) + " | " +
                   std::string(one.action));
  }
  return rows;
}

// The rows of RowsOfExplanations from the tables of a page. The severity, which only codes of doctor have, is left out.
//   "| `QX100` | ok | It loads | The ordinary case | Nothing |"  => "QX100: It loads | The ordinary case | Nothing"
std::vector<std::string> RowsOfPage(const std::string& page) {
  std::vector<std::string> rows;
  std::istringstream lines(page);
  bool is_in_table = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.ends_with("| what it means | likely cause | what to do |")) is_in_table = true;
    if (!line.starts_with("| ")) is_in_table = is_in_table && line.starts_with("|--");
    if (!is_in_table || line.starts_with("|--") || line.ends_with("| what to do |")) continue;
    const bool has_severity = line.starts_with("| `");
    const std::size_t end_of_code = line.find(" | ");
    const std::size_t before_meaning = has_severity ? line.find(" | ", end_of_code + 3) : end_of_code;
    rows.push_back(Replaced(line.substr(2, end_of_code - 2), "`", "") + ": " +
                   line.substr(before_meaning + 3, line.size() - before_meaning - 5));
  }
  return rows;
}

TEST(Explanations, TablesOfThePageAreThoseOfExplain) {
  const std::string page = ReadFile(std::string(QX_SOURCE_DIR) + "/docs/troubleshooting.md");
  const std::vector<std::string> rows = RowsOfExplanations();
  EXPECT_GT(rows.size(), 70U);
  EXPECT_THAT(RowsOfPage(page), testing::UnorderedElementsAreArray(rows));
}

TEST(Explanations, EveryReplyMessageIsFoundAndIsInTheSources) {
  std::string sources;
  for (const auto& entry : std::filesystem::directory_iterator(std::string(QX_SOURCE_DIR) + "/provider")) {
    if (entry.path().extension() == ".cpp") sources += Replaced(Joined(ReadFile(entry.path())), "\\\"", "\"");
  }
  for (const Explanation& one : AllExplanations()) {
    if (one.kind != ExplainedKind::kMessage) continue;
    const std::string code(one.code);
    EXPECT_THAT(CodesFor(Replaced(code, "%s", "load")), ElementsAre("message " + code));
    EXPECT_THAT(sources,
                HasSubstr("\"" + code.substr(0, code.ends_with(": %s") ? code.size() - 2 : code.size()) + "\""));
  }
}

TEST_F(QxctlExplain, CodeIsPrintedWithMeaningCauseAndWhatToDo) {
  const Ran ran = Qxctl({"explain", "1313"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_EQ(ran.out,
            "error number 1313\n"
            "  meaning  The caller lacks the privilege AccessPerformanceMgr\n"
            "  cause    Security data without the privilege, in a trace (0x521) or in a reply for a names file whose "
            "version is not 1\n"
            "  to do    Give the user the privilege AccessPerformanceMgr\n");
  EXPECT_THAT(Qxctl({"explain", "-1"}).out, HasSubstr("result code -1\n"));
  EXPECT_THAT(Qxctl({"explain", "12"}).out, HasSubstr("error number 12\n"));
}

TEST_F(QxctlExplain, TraceLineMayBeOneOrSeveralArguments) {
  const Ran ran = Qxctl({"explain", "##", "ERROR!", "Could", "not", "read", "data", "file"});
  EXPECT_EQ(ran.code, 0);
  EXPECT_THAT(ran.out, HasSubstr("trace text WCSP_QX GetReports  : ## ERROR! Could not read data file"));
}

TEST_F(QxctlExplain, UnknownTextIsNotFound) {
  const Ran ran = Qxctl({"explain", "4711"});
  EXPECT_EQ(ran.code, 4);
  EXPECT_EQ(ran.err, "qxctl: nothing is known about \"4711\"; --list shows what is known\n");
  EXPECT_EQ(Qxctl({"explain"}).code, 2);
  EXPECT_EQ(Qxctl({"explain", "1", "--list"}).code, 2);
}

TEST_F(QxctlExplain, ListAndJsonHaveEveryEntry) {
  const Ran list = Qxctl({"explain", "--list"});
  EXPECT_EQ(static_cast<std::size_t>(std::count(list.out.begin(), list.out.end(), '\n')), AllExplanations().size());
  EXPECT_THAT(list.out, HasSubstr("\ndoctor code QX301 - There is no report directory\n"));
  EXPECT_THAT(list.out, HasSubstr("\nmessage krx_gendata thread id is 0 - The block of the request names no thread\n"));
  const json all = json::parse(Qxctl({"explain", "--list", "--json"}).out);
  EXPECT_EQ(all["explanations"].size(), AllExplanations().size());
  EXPECT_EQ(json::parse(Qxctl({"explain", "401", "--json"}).out)["explanations"][0]["kind"], "result code");
}

}  // namespace qx::test
