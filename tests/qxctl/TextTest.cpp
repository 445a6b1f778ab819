// Tests texts of messages: quotes and lengths of time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "base/File.h"
#include "tests/qxctl/RunQxctl.h"
#include "tools/qxctl/cli/WriteAll.h"
#include "tools/qxctl/cli/text/Duration.h"
#include "tools/qxctl/cli/text/Quote.h"

namespace qx::test {

namespace {

using ctl::DurationText;
using ctl::ParseDuration;
using ctl::ShellWord;
using ctl::WriteUntilInterrupted;

// The number of calls of write and similar functions that this process has made.
long WriteCalls() {
  std::ifstream io("/proc/self/io");
  std::string key;
  for (long value = 0; io >> key >> value;) {
    if (key == "syscw:") return value;
  }
  return -1;
}

}  // namespace

TEST(WriteUntilInterrupted, EmptyPipeIsFilledByOneWriteAndAnyOtherByShortOnes) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const file::Descriptor reader(ends[0]);
  const file::Descriptor writer(ends[1]);
  const int capacity = fcntl(writer.Number(), F_GETPIPE_SZ);
  ASSERT_GE(capacity, 4 * PIPE_BUF);
  const std::string text(static_cast<std::size_t>(capacity), 'x');
  const long before = WriteCalls();
  EXPECT_EQ(WriteUntilInterrupted(writer.Number(), text).bytes, text.size());
  EXPECT_EQ(WriteCalls() - before, 1);
  std::string read(3 * PIPE_BUF, ' ');
  ASSERT_EQ(file::ReadSome(reader.Number(), read.data(), read.size()).bytes, read.size());
  EXPECT_EQ(WriteUntilInterrupted(writer.Number(), text.substr(0, 2 * PIPE_BUF)).bytes, 2UL * PIPE_BUF);
  EXPECT_EQ(WriteCalls() - before, 3);
}

TEST(ShellWords, EveryTextIsOneWordForTheShell) {
  const std::vector<std::string> texts = {"load", "a b",   "it's", "",   "a\nb",    "$HOME", "~",     "a\\b",     "=x",
                                          "-n",   "\x7F'", "a\"b", "#x", "a;b|c&d", "*",     "{a,b}", "\xC3\xA4", "!x"};
  std::string command = "printf '%s\\036'";
  std::string expected;
  for (const std::string& text : texts) {
    command += " " + ShellWord(text);
    expected += text + "\036";
  }
  EXPECT_EQ(Child({"/bin/bash", "-c", command}, {.directory = "/"}).Wait().out, expected) << command;
}

TEST(ShellWords, OrdinaryPathsStayAsTheyAre) {
  EXPECT_EQ(ShellWord("/srv/reports/load.ind"), "/srv/reports/load.ind");
  EXPECT_EQ(ShellWord("/srv/my reports"), "'/srv/my reports'");
  EXPECT_EQ(ShellWord("=x"), "'=x'") << "zsh would take it for a command";
}

TEST(Durations, UnitIsRequiredAndKnown) {
  const std::vector<std::pair<std::string, std::int64_t>> good = {{"0s", 0},      {"90s", 90},  {"10m", 600},
                                                                  {"10min", 600}, {"2h", 7200}, {"3d", 259200}};
  for (const auto& [text, seconds] : good) EXPECT_EQ(ParseDuration(text), seconds) << text;
  for (const char* const text :
       {"", "10", "m", "-1m", "1.5h", "10 m", "10w", "9999999999999999d", "99999999999999999999s"}) {
    EXPECT_FALSE(ParseDuration(text).has_value()) << text;
  }
}

TEST(Durations, AreShownInTheLargestUnitOfWhichThereAreTwo) {
  const std::vector<std::pair<std::int64_t, std::string>> rows = {
      {-5, "0 s"}, {0, "0 s"}, {119, "119 s"}, {120, "2 min"}, {7199, "119 min"}, {7200, "2 h"}, {172800, "2 d"}};
  for (const auto& [seconds, text] : rows) EXPECT_EQ(DurationText(seconds), text);
}

}  // namespace qx::test
