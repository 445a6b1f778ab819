#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>

#include "debug/DebugTraceConfig.h"
#include "tests/support/Support.h"

namespace {

using qx::test::TempDir;
using qx::test::WriteFile;

constexpr std::string_view kNothing = "(no such key)";

// The text of "Key" in section "App" of a file with this text.
std::string TextOfKey(std::string_view file_text) {
  CDebugTraceConfigFile file;
  std::string_view value = kNothing;
  if (!file.ReadText(file_text)) return "(ignored)";
  if (!file.FindSection("App")) return "(no such section)";
  (void)file.ReadString("Key", value);
  return std::string(value);
}

std::uint32_t NumberOf(std::string_view text) {
  CDebugTraceConfigFile file;
  std::uint32_t number = 4711;
  EXPECT_TRUE(file.ReadText("[App]\nKey=" + std::string(text) + "\n[EndOfFile]"));
  EXPECT_TRUE(file.FindSection("App"));
  EXPECT_TRUE(file.ReadNumber("Key", number));
  return number;
}

void SetTime(const std::string& path, timespec time) {
  const timespec times[] = {time, time};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(DebugTraceConfigFile, IsIgnoredAsAWholeUnlessItsLastSectionIsEndOfFile) {
  EXPECT_EQ(TextOfKey("[App]\nKey=1\n[EndOfFile]\n"), "1");
  EXPECT_EQ(TextOfKey("[App]\nKey=1\n[ENDOFFILE]"), "1");
  EXPECT_EQ(TextOfKey("[App]\nKey=1\n[endoffile]\ntext after it is ignored"), "1");
  EXPECT_EQ(TextOfKey("[App]\nKey=1\n"), "(ignored)");
  EXPECT_EQ(TextOfKey("[App]\nKey=1\n[EndOfFile"), "(ignored)");
  EXPECT_EQ(TextOfKey("[App]\nKey=1\n[ EndOfFile]"), "(ignored)");
  EXPECT_EQ(TextOfKey("[App]\nKey=1\n[EndOfFile]\n[More]\n"), "(ignored)");
  EXPECT_EQ(TextOfKey("[App]\nKey=1\nEndOfFile]"), "(ignored)");
  EXPECT_EQ(TextOfKey("]"), "(ignored)");
  EXPECT_EQ(TextOfKey(""), "(ignored)");
}

TEST(DebugTraceConfigFile, EveryPrefixOfACompleteFileIsIgnored) {
  const std::string text = "[GlobalDebugSettings]\nDynamicUpdate=10\n[App]\nKey=1\n[EndOfFile]";
  for (std::size_t size = 0; size < text.size(); ++size) {
    EXPECT_EQ(TextOfKey(text.substr(0, size)), "(ignored)") << size;
  }
  EXPECT_EQ(TextOfKey(text), "1");
}

// A file that is shorter than its size may be in the middle of a write. The test uses a file of the kernel whose size
// is one page, but which has fewer bytes.
TEST(DebugTraceConfigFile, FileThatEndsBeforeItsSizeIsIgnored) {
  const std::string path = "/sys/kernel/uevent_seqnum";
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || status.st_size == 0)
    GTEST_SKIP() << "no file here is smaller than its reported size";
  CDebugTraceConfigFile file;
  file.SetPath(path);
  EXPECT_FALSE(file.ReadIfNewer());
}

TEST(DebugTraceConfigFile, SectionNamesIgnoreCaseAndEndAtTheNextBracket) {
  EXPECT_EQ(TextOfKey("[aPP]Key=1\n[EndOfFile]"), "1");
  EXPECT_EQ(TextOfKey("[Other]\nKey=1\n[App]\nKey=2\n[Third]\nKey=3\n[EndOfFile]"), "2");
  EXPECT_EQ(TextOfKey("[App]\nKey=2\n[App]\nKey=3\n[EndOfFile]"), "2");
  EXPECT_EQ(TextOfKey("[App]\n[Other]\nKey=1\n[EndOfFile]"), kNothing);
  EXPECT_EQ(TextOfKey("[App]\nKey=a[b\n[EndOfFile]"), "a");
  EXPECT_EQ(TextOfKey("[Appl]\nKey=1\n[EndOfFile]"), "(no such section)");
  EXPECT_EQ(TextOfKey("[ App]\nKey=1\n[EndOfFile]"), "(no such section)");
}

TEST(DebugTraceConfigFile, LaterSectionIsFoundAfterAnEarlierOne) {
  CDebugTraceConfigFile file;
  std::uint32_t number = 0;
  ASSERT_TRUE(file.ReadText("[App]\nKey=1\n[Other]\nKey=2\n[EndOfFile]"));
  ASSERT_TRUE(file.FindSection("App"));
  ASSERT_TRUE(file.FindSection("Other"));
  ASSERT_TRUE(file.ReadNumber("Key", number));
  EXPECT_EQ(number, 2U);
  EXPECT_FALSE(file.FindSection("Third"));
  EXPECT_FALSE(file.ReadNumber("Key", number));
  EXPECT_EQ(number, 2U);
}

TEST(DebugTraceConfigFile, QuirkBracketInsideALineSwallowsTheNextSectionHeader) {
  EXPECT_EQ(TextOfKey("a=[b\n[App]\nKey=1\n[EndOfFile]"), "(no such section)");
}

TEST(DebugTraceConfigFile, QuirkKeyIsThePlainTextAtItsFirstOccurrence) {
  EXPECT_EQ(TextOfKey("[App]\n;Key=1\nKey=2\n[EndOfFile]"), "1");
  EXPECT_EQ(TextOfKey("[App]\nOtherKeyLonger=1\nKey=2\n[EndOfFile]"), "1");
  EXPECT_EQ(TextOfKey("[App]\nkey=1\nKey=2\n[EndOfFile]"), "2");
}

TEST(DebugTraceConfigFile, QuirkValueFollowsTheNextEqualsSignEvenLinesLater) {
  EXPECT_EQ(TextOfKey("[App]\nKey\nOther=5\n[EndOfFile]"), "5");
  EXPECT_EQ(TextOfKey("[App]\nKey\n[Other]\nA=5\n[EndOfFile]"), kNothing);
}

TEST(DebugTraceConfigFile, EmptyValueDoesNotTakeTheNextLine) {
  EXPECT_EQ(TextOfKey("[App]\nKey=\nOther=5\n[EndOfFile]"), "");
  EXPECT_EQ(TextOfKey("[App]\nKey= \t\nOther=5\n[EndOfFile]"), "");
}

TEST(DebugTraceConfigFile, ValueStartsAfterBlanksAndKeepsTheRestOfItsLine) {
  EXPECT_EQ(TextOfKey("[App]\nKey =  \t /a b \r\n[EndOfFile]"), "/a b \r");
  EXPECT_EQ(TextOfKey("[App]\nKey==x=y\n[EndOfFile]"), "=x=y");
}

TEST(DebugTraceConfigFile, ValueHasAtMost64Characters) {
  const std::string text(64, 'v');
  EXPECT_EQ(TextOfKey("[App]\nKey=" + text + "\n[EndOfFile]"), text);
  EXPECT_EQ(TextOfKey("[App]\nKey=" + text + "w\n[EndOfFile]"), text);
}

TEST(DebugTraceConfigFile, NulEndsAValueAndItsSection) {
  using namespace std::string_literals;
  EXPECT_EQ(TextOfKey("[App]\nKey=12\0003\n[EndOfFile]"s), "12");
  EXPECT_EQ(TextOfKey("[App]\n\0Key=12\n[EndOfFile]"s), kNothing);
  EXPECT_EQ(TextOfKey("\0[Other]\0\n[App]\nKey=7\n[EndOfFile]\0"s), "7");
}

TEST(DebugTraceConfigFile, NumbersAreDecimalHexadecimalOrOctalAndCutTo32Bits) {
  EXPECT_EQ(NumberOf("16"), 16U);
  EXPECT_EQ(NumberOf("0x10"), 16U);
  EXPECT_EQ(NumberOf("010"), 8U);
  EXPECT_EQ(NumberOf(""), 0U);
  EXPECT_EQ(NumberOf("on"), 0U);
  EXPECT_EQ(NumberOf("5 levels"), 5U);
  EXPECT_EQ(NumberOf("0x100000002"), 2U);
  EXPECT_EQ(NumberOf("-1"), 0xFFFFFFFFU);
}

TEST(DebugTraceConfigFile, ReadIfNewerReadsOnlyAfterALaterChange) {
  const TempDir directory;
  const std::string path = directory.File("a.ini");
  CDebugTraceConfigFile file;
  std::uint32_t number = 0;
  file.SetPath(path);
  WriteFile(path, "[App]\nKey=1\n[EndOfFile]");
  SetTime(path, {1000, 5});
  ASSERT_TRUE(file.Read());

  WriteFile(path, "[App]\nKey=2\n[EndOfFile]");
  SetTime(path, {1000, 5});
  EXPECT_FALSE(file.ReadIfNewer());
  SetTime(path, {999, 6});
  EXPECT_FALSE(file.ReadIfNewer());
  SetTime(path, {1000, 6});
  EXPECT_TRUE(file.ReadIfNewer());
  ASSERT_TRUE(file.FindSection("App"));
  ASSERT_TRUE(file.ReadNumber("Key", number));
  EXPECT_EQ(number, 2U);
}

TEST(DebugTraceConfigFile, IncompleteFileIsReadAgainWithoutAChangeOfItsTime) {
  const TempDir directory;
  const std::string path = directory.File("a.ini");
  CDebugTraceConfigFile file;
  file.SetPath(path);
  WriteFile(path, "[App]\nKey=1\n");
  SetTime(path, {1000, 0});
  EXPECT_FALSE(file.Read());
  EXPECT_FALSE(file.ReadIfNewer());
  WriteFile(path, "[App]\nKey=1\n[EndOfFile]");
  SetTime(path, {1000, 0});
  EXPECT_TRUE(file.ReadIfNewer());
}

TEST(DebugTraceConfigFile, RemovedFileIsDroppedAndReadWhenItIsBack) {
  const TempDir directory;
  const std::string path = directory.File("a.ini");
  CDebugTraceConfigFile file;
  file.SetPath(path);
  WriteFile(path, "[App]\nKey=1\n[EndOfFile]");
  ASSERT_TRUE(file.Read());
  std::filesystem::remove(path);
  EXPECT_FALSE(file.ReadIfNewer());
  EXPECT_FALSE(file.FindSection("App"));
  EXPECT_EQ(file.Path(), path);
  WriteFile(path, "[App]\nKey=1\n[EndOfFile]");
  SetTime(path, {0, 0});  // older than what was read before
  EXPECT_TRUE(file.ReadIfNewer());
}

TEST(DebugTraceConfigFile, OnlyRegularFilesUpTo16MebibytesAreRead) {
  const TempDir directory;
  CDebugTraceConfigFile file;
  const auto reads = [&](const std::string& name) {
    file.SetPath(directory.File(name));
    return file.Read();
  };
  std::filesystem::create_directory(directory.File("directory.ini"));
  ASSERT_EQ(::mkfifo(directory.File("pipe.ini").c_str(), 0600), 0);
  std::filesystem::create_symlink("/dev/zero", directory.File("device.ini"));
  EXPECT_FALSE(reads("directory.ini"));
  EXPECT_FALSE(reads("pipe.ini"));
  EXPECT_FALSE(reads("device.ini"));
  EXPECT_FALSE(reads("missing.ini"));
  file.SetPath("");
  EXPECT_FALSE(file.Read());

  std::string text(CDebugTraceConfigFile::kFileBytesMax - 11, ' ');
  WriteFile(directory.File("large.ini"), text + "[EndOfFile]");
  EXPECT_TRUE(reads("large.ini"));
  WriteFile(directory.File("huge.ini"), text + " [EndOfFile]");
  EXPECT_FALSE(reads("huge.ini"));
}

TEST(DebugTraceConfigFile, IsReadThroughASymbolicLink) {
  const TempDir directory;
  WriteFile(directory.File("real"), "[App]\nKey=1\n[EndOfFile]");
  std::filesystem::create_symlink("real", directory.File("link.ini"));
  CDebugTraceConfigFile file;
  file.SetPath(directory.File("link.ini"));
  EXPECT_TRUE(file.Read());
}

// A plain form of the rules, with a NUL-terminated copy and C string functions.
std::string SlowTextOfKey(std::string text) {
  const std::size_t end = text.rfind(']');
  const std::size_t begin = end == std::string::npos ? end : text.rfind('[', end);
  if (begin == std::string::npos) return "(ignored)";
  if (::strcasecmp(text.substr(begin + 1, end - begin - 1).c_str(), "EndOfFile") != 0) return "(ignored)";
  std::size_t at = 0;
  while ((at = text.find('[', at)) != std::string::npos) {
    const std::size_t close = text.find(']', at);
    if (close == std::string::npos) break;
    if (::strcasecmp(text.substr(at + 1, close - at - 1).c_str(), "App") == 0) {
      const std::string section = text.substr(close + 1, text.find('[', close) - close - 1);
      const char* key = std::strstr(section.c_str(), "Key");
      const char* value = key != nullptr ? std::strchr(key, '=') : nullptr;
      if (value == nullptr) return std::string(kNothing);
      value += 1 + std::strspn(value + 1, " \t\r\v\f");
      return std::string(value, std::min<std::size_t>(std::strcspn(value, "\n"), 64));
    }
    at = close;
  }
  return "(no such section)";
}

TEST(DebugTraceConfigFile, RandomFilesAreReadAsByThePlainForm) {
  std::mt19937_64 random(qx::test::Seed("DebugTraceConfigFile"));
  const std::string_view pieces[] = {"[", "]",  "App", "app",       "Key", "=",       "\n",
                                     " ", "\t", "7",   "EndOfFile", "x",   "[App]\n", "[EndOfFile]"};
  for (int run = 0; run < 20000; ++run) {
    std::string text = run % 2 == 0 ? "[App]" : "";
    for (std::uint64_t n = random() % 12; n > 0; --n) text += pieces[random() % std::size(pieces)];
    if (random() % 4 != 0) text += "[EndOfFile]";
    ASSERT_EQ(TextOfKey(text), SlowTextOfKey(text)) << text;
  }
}

}  // namespace
