#include "inifile/LineScanner.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>

#include <random>
#include <string>
#include <vector>

#include "base/File.h"
#include "tests/inifile/FgetsProfile.h"
#include "tests/inifile/MemoryFile.h"
#include "tests/support/Support.h"

namespace {

using qx::file::Descriptor;
using qx::inifile::LineMark;
using qx::inifile::LineScanner;
using qx::test::PlainLine;

std::vector<PlainLine> ScannedLines(const std::string& path, std::size_t window_bytes) {
  const Descriptor file = qx::file::OpenRegular(path.c_str(), O_RDONLY);
  std::vector<char> window(window_bytes);
  LineScanner scanner(file.Number(), window);
  std::vector<PlainLine> lines;
  std::string_view line;
  while (scanner.Next(line)) lines.push_back({std::string(line), static_cast<long>(scanner.Position())});
  EXPECT_FALSE(scanner.Next(line)) << "the end stays the end";
  return lines;
}

std::vector<std::string> Texts(const std::string& bytes) {
  const qx::test::MemoryFile file;
  file.Write(bytes);
  std::vector<std::string> texts;
  for (const PlainLine& line : ScannedLines(file.Path(), LineScanner::kWindowBytes)) texts.push_back(line.text);
  return texts;
}

using Lines = std::vector<std::string>;

TEST(LineScanner, LineKeepsItsLineFeed) { EXPECT_EQ(Texts("a=1\n\nb\n"), (Lines{"a=1\n", "\n", "b\n"})); }

TEST(LineScanner, LastLineMayLackItsLineFeed) { EXPECT_EQ(Texts("a\nb"), (Lines{"a\n", "b"})); }

TEST(LineScanner, EmptyFileHasNoLine) { EXPECT_EQ(Texts(""), Lines{}); }

TEST(LineScanner, NulHidesTheRestOfItsLineOnly) {
  EXPECT_EQ(Texts(std::string("ab\0cd\n\0x\nef\n", 12)), (Lines{"ab", "", "ef\n"}));
}

TEST(LineScanner, LineOf1023BytesIsSplitBeforeItsLineFeed) {
  const std::string x(1022, 'x');
  EXPECT_EQ(Texts(x + "\nb\n"), (Lines{x + "\n", "b\n"}));
  EXPECT_EQ(Texts(x + "y\nb\n"), (Lines{x + "y", "\n", "b\n"}));
  EXPECT_EQ(Texts(x + "yz\nb\n"), (Lines{x + "y", "z\n", "b\n"}));
}

TEST(LineScanner, HiddenBytesCountForSplitAndPosition) {
  const qx::test::TempDir dir;
  qx::test::WriteFile(dir.File("f"), "a" + std::string(1500, '\0') + "\nb\n");
  const auto lines = ScannedLines(dir.File("f"), LineScanner::kLineBytesMax);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0].text, "a");
  EXPECT_EQ(lines[0].end, 1023);
  EXPECT_EQ(lines[1].text, "");
  EXPECT_EQ(lines[1].end, 1502);
  EXPECT_EQ(lines[2].text, "b\n");
}

TEST(LineScanner, ReadErrorEndsTheFile) {
  char window[LineScanner::kLineBytesMax];
  LineScanner scanner(-1, window);
  std::string_view line = "untouched";
  EXPECT_FALSE(scanner.Next(line));
  EXPECT_EQ(line, "untouched");
  EXPECT_EQ(scanner.Position(), 0U);
}

// A read is a cancellation point. If a host cancels its thread there, the process must continue.
TEST(LineScanner, CancelledThreadUnwindsFromARead) {
  const auto scan = [](void*) -> void* {
    char window[LineScanner::kLineBytesMax];
    LineScanner scanner(-1, window);
    std::string_view line;
    pthread_cancel(pthread_self());
    (void)scanner.Next(line);
    return nullptr;
  };
  pthread_t thread{};
  ASSERT_EQ(pthread_create(&thread, nullptr, scan, nullptr), 0);
  void* result = nullptr;
  ASSERT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(LineScanner, PositionOfTheDescriptorIsNeitherUsedNorChanged) {
  const qx::test::TempDir dir;
  qx::test::WriteFile(dir.File("f"), "a\nb\n");
  const Descriptor file = qx::file::OpenRegular(dir.File("f").c_str(), O_RDONLY);
  ASSERT_EQ(lseek(file.Number(), 3, SEEK_SET), 3);
  char window[LineScanner::kLineBytesMax];
  LineScanner scanner(file.Number(), window);
  std::string_view line;
  ASSERT_TRUE(scanner.Next(line));
  EXPECT_EQ(line, "a\n");
  EXPECT_EQ(lseek(file.Number(), 0, SEEK_CUR), 3);
}

std::string RandomBytes(std::mt19937_64& random) {
  std::string bytes;
  const std::size_t runs = random() % 40;
  for (std::size_t i = 0; i < runs; ++i) {
    const std::size_t kind = random() % 8;
    if (kind == 0) bytes.append(1015 + random() % 16, 'x');
    if (kind == 1) bytes.push_back('\0');
    if (kind >= 2 && kind < 5) bytes.append(random() % 400, static_cast<char>(random() % 256));
    if (kind >= 4) bytes.push_back('\n');
  }
  return bytes;
}

// The windows have space for one line, for a line and a byte, or their real size, so the end of a window may be
// anywhere in a line.
TEST(LineScanner, AgreesWithFgetsOnRandomBytesAcrossAnyWindow) {
  std::mt19937_64 random(qx::test::Seed("LineScanner"));
  const qx::test::MemoryFile file;
  const std::string path = file.Path();
  for (int round = 0; round < 600; ++round) {
    file.Write(RandomBytes(random));
    const std::vector<PlainLine> expected = qx::test::FgetsLines(path);
    for (const std::size_t window :
         {std::size_t{1023}, std::size_t{1024}, 1023 + random() % 3000, LineScanner::kWindowBytes}) {
      const std::vector<PlainLine> actual = ScannedLines(path, window);
      ASSERT_EQ(actual.size(), expected.size()) << "round " << round << ", window " << window;
      for (std::size_t i = 0; i < actual.size(); ++i) {
        ASSERT_EQ(actual[i].text, expected[i].text) << "round " << round << ", line " << i;
        ASSERT_EQ(actual[i].end, expected[i].end) << "round " << round << ", line " << i;
      }
    }
  }
}

// `line` is the line in the file, including the bytes after a NUL. If it does not end with a line feed, it is a piece
// of a longer line.
bool MayBeSearched(std::string_view line, LineMark mark) {
  const bool is_plain = static_cast<unsigned char>(line.front()) > ' ' && line.front() != '[';
  return !is_plain || line.back() != '\n' || (mark.column < line.size() && line[mark.column] == mark.byte);
}

// For every window, the skipped lines, the returned lines and the plain lines without the mark are together all lines,
// each once and in order.
TEST(LineScanner, SkippingLosesNoLineAndNoPosition) {
  std::mt19937_64 random(qx::test::Seed("LineScanner passing over"));
  const qx::test::MemoryFile file;
  const std::string path = file.Path();
  for (int round = 0; round < 600; ++round) {
    const std::string bytes = RandomBytes(random) + "\n";
    file.Write(bytes);
    const Descriptor descriptor = qx::file::OpenRegular(path.c_str(), O_RDONLY);
    std::vector<char> window(1023 + random() % 3000);
    LineScanner scanner(descriptor.Number(), window);
    std::vector<PlainLine> actual;
    const LineMark mark{random() % 20, bytes[random() % bytes.size()]};
    const auto pass_over = [&] {
      const char* front = nullptr;
      scanner.SkipLines(mark, [&](std::string_view line) {
        if (front == nullptr) front = line.data();
        if (random() % 4 == 0) return false;
        const std::string whole = std::string(line) + "\n";
        const auto end = static_cast<std::size_t>(line.data() - front) + whole.size();
        actual.push_back({whole.c_str(), static_cast<long>(scanner.Position() + end)});
        return true;
      });
    };
    std::string_view line;
    for (pass_over(); scanner.Next(line); pass_over()) {
      actual.push_back({std::string(line), static_cast<long>(scanner.Position())});
    }
    std::size_t next = 0;
    long begin = 0;
    for (const PlainLine& expected : qx::test::FgetsLines(path)) {
      const std::string_view line_bytes(bytes.data() + begin, static_cast<std::size_t>(expected.end - begin));
      begin = expected.end;
      if (next < actual.size() && actual[next].end == expected.end) {
        ASSERT_EQ(actual[next++].text, expected.text) << "round " << round;
      } else {
        ASSERT_FALSE(MayBeSearched(line_bytes, mark)) << "round " << round << ": " << line_bytes;
      }
    }
    ASSERT_EQ(next, actual.size()) << "round " << round;
  }
}

}  // namespace
