#include "registry/TreeReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::registry::ByteSource;
using qx::registry::kLineCharsMax;
using qx::registry::LineReader;

// A source that returns the text, at most `portion` bytes at a time.
ByteSource BytesOf(std::string_view text, std::size_t portion = SIZE_MAX) {
  return [text, portion](char* to, std::size_t size) mutable {
    const std::size_t count = std::min({text.size(), size, portion});
    if (count > 0) std::memcpy(to, text.data(), count);
    text.remove_prefix(count);
    return static_cast<ssize_t>(count);
  };
}

std::vector<std::string> AllLines(LineReader lines) {
  std::vector<std::string> taken;
  while (const auto line = lines.Next()) taken.emplace_back(*line);
  return taken;
}

// The oracle: the lines that fgets with a buffer of 1024 bytes returns.
std::vector<std::string> LinesByBuffer(const std::string& text) {
  std::vector<std::string> taken;
  FILE* stream = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
  char buffer[kLineCharsMax + 1];
  while (fgets(buffer, sizeof buffer, stream) != nullptr) {
    if (char* feed = std::strrchr(buffer, '\n')) *feed = '\0';
    taken.emplace_back(buffer);
  }
  fclose(stream);
  return taken;
}

using Strings = std::vector<std::string>;

TEST(LineReader, LinesEndAtTheirLineFeedOrAtTheEndOfTheInput) {
  EXPECT_EQ(AllLines(LineReader(BytesOf(""))), Strings());
  EXPECT_EQ(AllLines(LineReader(BytesOf("\n"))), Strings({""}));
  EXPECT_EQ(AllLines(LineReader(BytesOf("a\n\nb"))), Strings({"a", "", "b"}));
  EXPECT_EQ(AllLines(LineReader(BytesOf("a\r\n"))), Strings({"a\r"}));
}

TEST(LineReader, NothingAfterANulIsRead) {
  EXPECT_EQ(AllLines(LineReader(BytesOf({"ab\0c\nd\n", 7}))), Strings({"ab", "d"}));
  EXPECT_EQ(AllLines(LineReader(BytesOf({"\0ab\nd\n", 6}))), Strings({"", "d"}));
}

TEST(LineReader, LongerLinesAreSplitAfter1023Characters) {
  const std::string full(kLineCharsMax, 'x');
  EXPECT_EQ(AllLines(LineReader(BytesOf(full))), Strings({full}));
  EXPECT_EQ(AllLines(LineReader(BytesOf(full + "\n"))), Strings({full, ""}));
  EXPECT_EQ(AllLines(LineReader(BytesOf(full + "y\n"))), Strings({full, "y"}));
  EXPECT_EQ(AllLines(LineReader(BytesOf(full.substr(1) + "\n"))), Strings({full.substr(1)}));
  EXPECT_EQ(AllLines(LineReader(BytesOf(full + full + "\nz"))), Strings({full, full, "", "z"}));
}

TEST(LineReader, NulAndSplitInOneLine) {
  std::string text(kLineCharsMax, 'x');
  text[5] = '\0';
  text += "\nz\n";
  EXPECT_EQ(AllLines(LineReader(BytesOf(text))), Strings({"xxxxx", "", "z"}));
}

TEST(LineReader, LinesAreThoseOfAPlainBufferForEveryWindowAndPortion) {
  std::mt19937_64 random(qx::test::Seed("LineReader"));
  for (int round = 0; round < 60; ++round) {
    std::string text;
    while (text.size() < 9000) {
      const std::size_t sizes[] = {0, 1, random() % 30, 1021, 1022, 1023, 1024, random() % 3000};
      text += std::string(sizes[random() % 8], "ab\0="[random() % 4]) + "\n";
    }
    text.resize(text.size() - random() % 3);
    const Strings expected = LinesByBuffer(text);
    for (const std::size_t window : {kLineCharsMax, kLineCharsMax + 1, 1500 + random() % 3000, 65536UL}) {
      for (const std::size_t portion : {1UL, 1 + random() % 2000, SIZE_MAX}) {
        ASSERT_EQ(AllLines(LineReader(BytesOf(text, portion), window)), expected) << window << " " << portion;
      }
    }
  }
}

TEST(LineReader, ReadErrorEndsTheLinesAndDropsTheUnfinishedOne) {
  int calls = 0;
  LineReader lines([&calls](char* to, std::size_t) -> ssize_t {
    if (calls++ > 0) return -1;
    std::memcpy(to, "a\nbc", 4);
    return 4;
  });
  EXPECT_EQ(lines.Next(), "a");
  EXPECT_FALSE(lines.HasFailed());
  EXPECT_EQ(lines.Next(), std::nullopt);
  EXPECT_TRUE(lines.HasFailed());
  EXPECT_EQ(lines.Next(), std::nullopt);
}

TEST(LineReader, BytesThatWereReadAheadAreKnown) {
  LineReader lines(BytesOf("a\n\nrest"));
  EXPECT_EQ(lines.Next(), "a");
  EXPECT_EQ(lines.Next(), "");
  EXPECT_EQ(lines.UnreadBytes(), 4U);
}

TEST(TreeReader, ReadErrorIsAFailureEvenAfterValues) {
  int calls = 0;
  LineReader lines([&calls](char* to, std::size_t) -> ssize_t {
    if (calls++ > 0) return -1;
    std::memcpy(to, "x=d=1\ny=d", 9);
    return 9;
  });
  CRegistryNode key;
  EXPECT_EQ(qx::registry::RestoreFrom(lines, key), qx::registry::Reading::kFailed);
  EXPECT_EQ(qx::test::Dump(key), "x=d=1\n\n");
}

}  // namespace
