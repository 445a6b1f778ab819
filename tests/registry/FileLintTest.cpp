// Tests the findings of a check of a registry file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "registry/TreeWriter.h"
#include "registry/tools/FileLint.h"
#include "registry/tools/TreeDiff.h"
#include "tests/support/Support.h"

namespace qx::registry {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// "LINE rule" for each finding, with "!" for errors.
std::vector<std::string> Lint(std::string_view bytes) {
  std::vector<std::string> found;
  for (const LintFinding& finding : LintFile(bytes).findings) {
    const char* const mark = finding.severity == LintSeverity::kError ? "!" : "";
    found.push_back(std::to_string(finding.line) + " " + finding.rule + mark);
    EXPECT_FALSE(finding.explanation.empty());
    EXPECT_FALSE(finding.fix.empty());
  }
  return found;
}

// The lines are the content of a key below the first hive; the first of them is line 3.
std::vector<std::string> LintInKey(const std::string& lines) {
  return Lint("[HKEY_LOCAL_MACHINE]\n[K]\n" + lines + "\n\n\n\n");
}

const std::string kLine1022 = "n=s=" + std::string(1018, 'x');

}  // namespace

TEST(FileLint, SavedFileIsClean) {
  EXPECT_THAT(LintInKey("Blob=b=0a ff \nCount=d=-5\nEmpty=b=\nHome=es=%HOME%\n[x=s=y\n" + kLine1022), IsEmpty());
}

TEST(FileLint, OtherNotationsOfTheSameNumbersAreNotFindings) {
  EXPECT_THAT(LintInKey("a=d= +007\nb=b=0A FF\nc=b=1 2 3\nd=b=0x1F"), IsEmpty());
}

TEST(FileLint, FileWithoutValuesDoesNotLoad) {
  EXPECT_THAT(Lint(""), ElementsAre("1 no-values!"));
  EXPECT_THAT(Lint("[HKEY_USERS]\n\n\n"), ElementsAre("3 no-values!"));
  EXPECT_FALSE(LintFile("[HKEY_USERS]\n\n\n").loads);
  EXPECT_TRUE(LintFile("v=d=1\n\n").loads);
}

TEST(FileLint, LinesThatAreNotReadAreNamed) {
  EXPECT_THAT(LintInKey("v=d=1\nno marker\nx=y=z\n  [Indented]\n[open\n \t"),
              ElementsAre("4 no-value", "5 unknown-marker", "6 no-value", "7 no-value", "8 blank-line"));
}

TEST(FileLint, NumbersThatChangeAreNamed) {
  EXPECT_THAT(LintInKey("a=d=\nb=d=12abc\nc=d=4294967295\nd=d=99999999999999999999"),
              ElementsAre("3 number-without-digits!", "4 number-changed!", "5 number-changed!", "6 number-changed!"));
}

TEST(FileLint, BlocksThatChangeAreNamed) {
  EXPECT_THAT(LintInKey("a=b=1ff 2\nb=b=0a xx\nc=b=-1"),
              ElementsAre("3 block-changed!", "4 block-changed!", "5 block-changed!"));
}

TEST(FileLint, BlockThatTheNextSaveMakesTooLongIsNamed) {
  std::string block = "v=b=";
  for (int i = 0; i < 340; ++i) block += "1 ";
  EXPECT_THAT(LintInKey(block), ElementsAre("3 line-grows!"));
}

TEST(FileLint, LongLinesAreNamed) {
  EXPECT_THAT(LintInKey(kLine1022 + "x"), ElementsAre("3 line-of-1023!"));
  EXPECT_THAT(LintInKey(kLine1022 + "xy"), ElementsAre("3 line-too-long!"));
  EXPECT_THAT(Lint("v=s=" + std::string(1019, 'x') + "\n\n"), ElementsAre("1 line-of-1023!"));
}

TEST(FileLint, RestOfALongLineIsReadAsALine) {
  const std::string file = "[HKEY_USERS]\nv=s=" + std::string(1019, 'x') + "[K]\nw=d=1\n\n\n\n";
  EXPECT_THAT(Lint(file), ElementsAre("2 line-too-long!"));  // three keys are closed, so K was opened
}

TEST(FileLint, TextAfterABracketIsNamed) {
  EXPECT_THAT(LintInKey("v=d=1\n[a]b]\n\n[a2]=s=text\n"),
              ElementsAre("4 text-behind-bracket!", "6 text-behind-bracket!"));
}

TEST(FileLint, RepetitionsAreNamedWithTheEarlierLine) {
  EXPECT_THAT(LintInKey("v=d=1\nv=d=2\n[S]\na=d=1\n\n[S]\n\n[v]\n"),
              ElementsAre("4 duplicate-value", "8 duplicate-key!", "10 name-taken!"));
  EXPECT_THAT(LintFile("a=d=1\n\n").findings, IsEmpty());
  EXPECT_THAT(LintFile("v=d=1\nv=d=2\n\n").findings[0].explanation, HasSubstr("line 1"));
}

TEST(FileLint, NumberWithoutDigitsReplacesNothing) {
  EXPECT_THAT(LintInKey("v=d=1\nv=d="), ElementsAre("4 number-without-digits!"));
}

TEST(FileLint, TextAfterTheEndIsNamed) {
  EXPECT_THAT(Lint("v=d=1\n\n\n\n[HKEY_USERS]\nw=d=1\n"), ElementsAre("2 content-after-end!"));
  EXPECT_THAT(LintFile("v=d=1\n\n\n\nx\n").findings[0].explanation, HasSubstr("line 5"));
  EXPECT_THAT(Lint("v=d=1\n\n\n\n"), IsEmpty());
}

TEST(FileLint, FileThatEndsWithOpenKeysMayHaveBeenCut) {
  EXPECT_THAT(Lint("[HKEY_USERS]\nv=d=1\n\n"), ElementsAre("3 not-closed"));
  EXPECT_THAT(Lint("[HKEY_USERS]\nv=d=1"), ElementsAre("2 not-closed"));
}

TEST(FileLint, NulIsNamed) {
  EXPECT_THAT(Lint(std::string_view("v=s=a\0b\n\n", 9)), ElementsAre("1 nul!"));
  EXPECT_THAT(Lint(std::string_view("v=s=a\n\0b\n", 9)), ElementsAre("2 nul!"));
}

TEST(FileLint, CarriageReturnsAreNamedOnce) {
  EXPECT_THAT(Lint("[HKEY_USERS]\r\nv=d=1\r\n\r\n\r\n"), ElementsAre("1 carriage-return!", "4 not-closed"));
}

TEST(FileLint, UnreachableKeysAreNamed) {
  EXPECT_THAT(LintInKey("[a/b]\nv=d=1\n"), ElementsAre("3 unreachable-key"));
  EXPECT_THAT(Lint("[HKEY_LOCAL_MACHIN]\nv=d=1\n\n\n"), ElementsAre("1 unknown-hive"));
}

TEST(FileLint, OnlyAHundredFindingsAreKeptAndAllAreCounted) {
  std::string file = "v=d=1\n";
  for (int i = 0; i < 200; ++i) file += "nothing\n";
  const LintResult result = LintFile(file + "\n");
  EXPECT_EQ(result.findings.size(), 100U);
  EXPECT_EQ(result.warnings, 200U);
  EXPECT_FALSE(result.IsComplete());
}

// If a file has no findings, it is loaded without loss: written again, it has the same lines.
TEST(FileLint, FileWithoutFindingsIsReadWhole) {
  constexpr const char* kLines[] = {"[HKEY_USERS]\n", "[A]\n",      "[B]\n",    "a=d=1\n", "b=s=x\n",
                                    "c=b=0a \n",      "d=es=%A%\n", "\n",       "\n",      "\n",
                                    "[a\n",           "a=d=\n",     "x=b=zz\n", "[A] \n"};
  std::mt19937_64 random(qx::test::Seed("lint"));
  int clean = 0;
  for (int round = 0; round < 20'000; ++round) {
    std::string file = random() % 2 == 0 ? "" : "[HKEY_USERS]\n";
    const std::size_t count = random() % 10;
    const std::size_t kinds = random() % 4 == 0 ? std::size(kLines) : 10;
    for (std::size_t i = 0; i < count; ++i) file += kLines[random() % kinds];
    const LintResult result = LintFile(file);
    CRegistryNode tree;
    EXPECT_EQ(result.loads, ParseTree(file, tree)) << file;
    if (!result.findings.empty()) continue;
    ++clean;
    std::string again;
    ASSERT_TRUE(FormatTree(tree, again));
    const auto end = file.find_last_not_of('\n');
    const std::size_t lines = static_cast<std::size_t>(std::count(file.begin(), file.end(), '\n'));
    const std::size_t extra = file.size() - end;  // more empty lines after the end are not a finding
    const auto lines_again = static_cast<std::size_t>(std::count(again.begin(), again.end(), '\n'));
    EXPECT_LE(lines_again, lines) << file;
    EXPECT_LE(lines, lines_again + extra) << file;
  }
  EXPECT_GT(clean, 100);
}

}  // namespace qx::registry
