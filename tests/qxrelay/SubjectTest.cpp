// Tests how names of hosts and reports become parts of subjects, and how these become names again.
#include "tools/qxrelay/message/Subject.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Support.h"

namespace {

using qx::relay::Branch;
using qx::relay::IsHostName;
using qx::relay::IsPrefix;
using qx::relay::IsReportName;
using qx::relay::NameOfToken;
using qx::relay::Subject;
using qx::relay::SubjectOfText;
using qx::relay::TextOfSubject;
using qx::relay::TokenOf;

using Names = std::vector<std::string>;

struct NameRow {
  std::string name;
  std::string token;
};

TEST(RelaySubject, NamesBecomeTokensAndTokensNames) {
  const NameRow rows[] = {{"load", "load"},
                          {"Perf-1_a", "Perf-1_a"},
                          {"disk/sda 1", "disk%2Fsda%201"},
                          {"", "%"},
                          {"%", "%25"},
                          {"a.b*c>d", "a%2Eb%2Ac%3Ed"},
                          {"\xC3\xA5", "%C3%A5"},
                          {"\r\n\t", "%0D%0A%09"},
                          {"\xFF\x01", "%FF%01"},
                          {std::string("a\0b", 3), "a%00b"}};
  for (const NameRow& row : rows) {
    EXPECT_EQ(TokenOf(row.name), row.token);
    EXPECT_EQ(NameOfToken(row.token), row.name) << row.token;
  }
}

TEST(RelaySubject, TokensOfAnotherFormAreRefused) {
  for (const std::string& token :
       Names{"", "%2f", "%41", "a%", "a%2", "%%", "%2G", "a b", "a.b", "a*", ">", "\xC3\xA5", "a/b"}) {
    EXPECT_EQ(NameOfToken(token), std::nullopt) << token;
  }
}

TEST(RelaySubject, RandomNamesComeBackAndNoTwoShareAToken) {
  std::mt19937_64 random(qx::test::Seed("RelaySubject"));
  std::set<std::string> names;
  std::set<std::string> tokens;
  for (int i = 0; i < 5000; ++i) {
    std::string name;
    for (auto size = random() % 6; size > 0; --size) name += static_cast<char>(random() % 256);
    names.insert(name);
    const std::string token = TokenOf(name);
    tokens.insert(token);
    ASSERT_EQ(NameOfToken(token), name);
    ASSERT_EQ(token.find_first_of(". *>\t\r\n"), std::string::npos);
  }
  EXPECT_EQ(names.size(), tokens.size());
}

TEST(RelaySubject, NamesThatLeaveTheRootOrNameAFileTwiceAreRefused) {
  for (const std::string& name :
       Names{"/load", "//", "..", "../x", "a/..", "a/../b", ".", "./a", "a/./b", "a//b", "a/."}) {
    EXPECT_FALSE(IsReportName(name)) << name;
  }
  EXPECT_FALSE(IsReportName(std::string("a\0b", 3)));
  for (const std::string& name : Names{"load", "a/b", "a/", "", "..a", "a..", "a/..b", ".hidden", "a b", "*"}) {
    EXPECT_TRUE(IsReportName(name)) << name;
  }
}

TEST(RelaySubject, HostNamesAreWords) {
  for (const std::string& name : Names{"h", "host-3", "db_1", "a.example.org", std::string(64, 'x')}) {
    EXPECT_TRUE(IsHostName(name)) << name;
  }
  for (const std::string& name : Names{"", ".a", "-a", "_a", "a/b", "..", "a b", "\xC3\xA5", std::string(65, 'x')}) {
    EXPECT_FALSE(IsHostName(name)) << name;
  }
}

TEST(RelaySubject, PrefixesAreTokensWithDots) {
  for (const std::string& prefix : Names{"qx", "qx.prod", "a-1._b"}) EXPECT_TRUE(IsPrefix(prefix)) << prefix;
  for (const std::string& prefix : Names{"", ".", "a.", ".a", "a..b", "a b", "a.*", ">", "$JS"})
    EXPECT_FALSE(IsPrefix(prefix)) << prefix;
}

TEST(RelaySubject, SubjectsComeBack) {
  struct Row {
    Subject subject;
    std::string text;
  };
  const Row rows[] = {
      {{Branch::kReport, "host3", "disk/sda"}, "qx.p.report.host3.disk%2Fsda"},
      {{Branch::kNames, "a.b", ""}, "qx.p.names.a%2Eb.%"},
      {{Branch::kAbout, "host3", ""}, "qx.p.about.host3"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(TextOfSubject("qx.p", row.subject), row.text);
    EXPECT_EQ(SubjectOfText("qx.p", row.text), row.subject) << row.text;
  }
}

TEST(RelaySubject, ForeignSubjectsAreRefused) {
  for (const std::string& text :
       Names{"", "qx", "qx.", "qx.report", "qx.report.h", "qx.report.h.", "qx.report..load", "qx.report.h.a.b",
             "qy.report.h.a", "qx.reports.h.a", "qx.about.h.a", "qx.about", "qx.report.h.%2E%2E", "qx.report.h.%2Fetc",
             "qx.report.%2E.a", "qx.report.h.a%2F%2E%2E%2Fb", "qx.report.h.%00", "qxx.report.h.a", "qx.report.h.a."}) {
    EXPECT_EQ(SubjectOfText("qx", text), std::nullopt) << text;
  }
}

TEST(RelaySubject, NamesThatCannotBeRelayedHaveNoSubject) {
  EXPECT_EQ(TextOfSubject("qx", {Branch::kReport, "h", "../x"}), std::nullopt);
  EXPECT_EQ(TextOfSubject("qx", {Branch::kReport, "..", "x"}), std::nullopt);
  EXPECT_EQ(TextOfSubject("qx", {Branch::kReport, "h", std::string(501, ' ')}), std::nullopt);
  EXPECT_TRUE(TextOfSubject("qx", {Branch::kReport, "h", std::string(500, ' ')}).has_value());
}

}  // namespace
