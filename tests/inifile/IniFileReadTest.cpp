// Tests the reading primitive: the syntax that it accepts, counts, buffers.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <string_view>
#include <vector>

#include "inifile/IniFile.h"
#include "tests/inifile/MemoryFile.h"
#include "tests/support/Support.h"

namespace {

using namespace std::string_literals;

constexpr char kCanary = '\x5A';

// The outcome of a read: the result, and the whole buffer with one byte after its end.
struct Outcome {
  unsigned result;
  std::string buffer;

  // The text, and the NUL after it.
  std::string Text() const { return buffer.substr(0, result + 1); }
};

class IniFileRead : public testing::Test {
 protected:
  void Write(std::string_view bytes) { qx::test::WriteFile(path_, bytes); }

  Outcome Read(const char* section, const char* key, const char* def, unsigned size) const {
    Outcome outcome{0, std::string(size + 1, kCanary)};
    outcome.result = CIniFile::GetPrivateProfileString(section, key, def, outcome.buffer.data(), size, path_.c_str());
    EXPECT_EQ(outcome.buffer.back(), kCanary) << "written after the buffer";
    return outcome;
  }

  std::string Value(const char* section, const char* key) const {
    const Outcome outcome = Read(section, key, "(default)", 2048);
    EXPECT_EQ(outcome.buffer.c_str(), outcome.buffer.substr(0, outcome.result));
    return outcome.buffer.c_str();
  }

  // The value of key "k" in section "S" of a file with this section and these lines.
  std::string ValueIn(std::string_view lines) {
    Write("[S]\n" + std::string(lines));
    return Value("S", "k");
  }

  std::vector<std::string> List(const char* section) const {
    const Outcome outcome = Read(section, nullptr, "never", 4096);
    std::vector<std::string> names;
    for (std::size_t at = 0; at < outcome.result; at += names.back().size() + 1) names.push_back(&outcome.buffer[at]);
    return names;
  }

  qx::test::TempDir dir_;
  std::string path_ = dir_.File("profile.ini");
};

using Names = std::vector<std::string>;

TEST_F(IniFileRead, ValueIsTheTextAfterTheEqualsSignWithoutOuterBlanks) {
  EXPECT_EQ(ValueIn("k=v\n"), "v");
  EXPECT_EQ(ValueIn("k = v \t\n"), "v");
  EXPECT_EQ(ValueIn("k\t\v\f=\r\t v w\n"), "v w");
  EXPECT_EQ(ValueIn("k=v\r\n"), "v");
  EXPECT_EQ(ValueIn("k=v"), "v");
  EXPECT_EQ(ValueIn("k=a=b\n"), "a=b");
  EXPECT_EQ(ValueIn("k==\n"), "=");
  EXPECT_EQ(ValueIn("k=\"v\"\n"), "\"v\"");
  EXPECT_EQ(ValueIn("k=[x]\n"), "[x]");
}

TEST_F(IniFileRead, SemicolonStartsACommentAlsoInsideAValue) {
  EXPECT_EQ(ValueIn("k = value ; note\n"), "value");
  EXPECT_EQ(ValueIn("k=a;b\n"), "a");
  EXPECT_EQ(ValueIn("k=;b\n"), "(default)");
  EXPECT_EQ(ValueIn(";k=1\n \t;k=2\nk=3\n"), "3");
  EXPECT_EQ(ValueIn("x;k=1\nk;=2\nk=3\n"), "3");
}

TEST_F(IniFileRead, EntryWithoutAValueReturnsTheDefault) {
  EXPECT_EQ(ValueIn("k=\n"), "(default)");
  EXPECT_EQ(ValueIn("k= \t\n"), "(default)");
  EXPECT_EQ(ValueIn("k=\nk=second\n"), "(default)") << "the first entry decides";
}

TEST_F(IniFileRead, KeysAreComparedExactly) {
  EXPECT_EQ(ValueIn("K=1\nkk=2\n\"k\"=3\nk x=4\n"), "(default)");
  EXPECT_EQ(ValueIn("k=1\nk=2\n"), "1");
  Write("[S]\na b = 1\n=2\n\xE4=3\n");
  EXPECT_EQ(Value("S", "a b"), "1");
  EXPECT_EQ(Value("S", ""), "2");
  EXPECT_EQ(Value("S", "\xE4"), "3");
}

TEST_F(IniFileRead, IndentedEntryIsFound) { EXPECT_EQ(ValueIn(" \t k=1\n"), "1"); }

TEST_F(IniFileRead, LineWithoutEqualsSignIsIgnored) {
  EXPECT_EQ(ValueIn("k\nk 1\nk:2\n"), "(default)");
  EXPECT_EQ(List("S"), Names{});
}

TEST_F(IniFileRead, HeaderMatchesExactlyWithoutBlanksInside) {
  Write("k=0\n[ Sec]\nk=1\n[Sec ]\nk=2\n[sec]\nk=3\n[Sect]\nk=4\n[Sec\nk=5\n[Se]\nk=6\n[Sec]\nk=7\n");
  EXPECT_EQ(Value("Sec", "k"), "7");
  EXPECT_EQ(Value(" Sec", "k"), "1");
  EXPECT_EQ(Value("Sec ", "k"), "2");
  EXPECT_EQ(Value("sec", "k"), "3");
  EXPECT_EQ(Value("", "k"), "(default)");
}

TEST_F(IniFileRead, SpacedAndLowerCaseHeadersAreOtherSections) {
  Write("[ Sec ]\nk=1\n[sec]\nk=2\n");
  EXPECT_EQ(Value("Sec", "k"), "(default)");
}

TEST_F(IniFileRead, IndentedHeaderMatches) {
  Write("  [Sec]\nk=1\n");
  EXPECT_EQ(Value("Sec", "k"), "1");
}

TEST_F(IniFileRead, TextAfterTheHeadersBracketIsIgnored) {
  Write("[Sec] text [x]\nk=1\n[T];c\nk=2\n[a]b]\nk=3\n[]\nk=4\n");
  EXPECT_EQ(Value("Sec", "k"), "1");
  EXPECT_EQ(Value("T", "k"), "2");
  EXPECT_EQ(Value("a]b", "k"), "3");
  EXPECT_EQ(Value("", "k"), "4");
}

TEST_F(IniFileRead, CommentCharacterCutsAHeader) {
  Write("[S;c]\nk=1\n");
  EXPECT_EQ(Value("S;c", "k"), "(default)");
  EXPECT_EQ(List(nullptr), Names{});
}

TEST_F(IniFileRead, OnlyTheFirstSectionOfANameIsSearched) {
  Write("[S]\na=1\n[T]\nk=2\n[S]\nk=3\n");
  EXPECT_EQ(Value("S", "k"), "(default)");
  Write("[S]\na=1\n[S]\nk=3\n");
  EXPECT_EQ(Value("S", "k"), "(default)");
}

TEST_F(IniFileRead, HeaderWithoutItsClosingBracketStillEndsASection) {
  EXPECT_EQ(ValueIn("[broken\nk=1\n"), "(default)");
}

TEST_F(IniFileRead, NulEndsItsLine) {
  EXPECT_EQ(ValueIn("k=a\0b\n"s), "a");
  EXPECT_EQ(ValueIn("k\0=1\nk=2\n"s), "2");
  EXPECT_EQ(ValueIn("\0k=1\n"s), "(default)");
}

TEST_F(IniFileRead, LongLineIsReadInPiecesOf1023Characters) {
  const std::string padding(1021, 'x');
  EXPECT_EQ(ValueIn("k=" + padding + "\n"), padding);
  EXPECT_EQ(ValueIn("k=" + padding + "yz\n"), padding);
  EXPECT_EQ(ValueIn(std::string(1023, 'x') + "k=tail\n"), "tail") << "the second piece is a line of its own";
  EXPECT_EQ(ValueIn(std::string(1023, 'x') + "[T]\nk=1\n"), "(default)") << "and may be a header";
}

TEST_F(IniFileRead, SectionNamesComeInFileOrderDuplicatesIncluded) {
  Write("[B]\nx=1\n[A]\n [C] \n[B] ; c\n[broken\n[ D ]\n");
  EXPECT_EQ(List(nullptr), (Names{"B", "A", "C", "B", " D "}));
}

TEST_F(IniFileRead, KeysComeInFileOrderDuplicatesIncluded) {
  Write("[S]\nb=1\n a =2\n;c=3\nb=4\nnone\n[T]\nd=5\n");
  EXPECT_EQ(List("S"), (Names{"b", "a", "b"}));
  EXPECT_EQ(List("T"), Names{"d"});
  EXPECT_EQ(List("U"), Names{});
}

TEST_F(IniFileRead, ListEndsWithAnEmptyNameAndCountsTheNulOfEachName) {
  Write("[S]\nab=1\ncd=2\n");
  const Outcome keys = Read("S", nullptr, "never", 16);
  EXPECT_EQ(keys.result, 6U);
  EXPECT_EQ(keys.Text(), "ab\0cd\0\0"s);
  const Outcome sections = Read(nullptr, "ignored", "never", 16);
  EXPECT_EQ(sections.result, 2U);
  EXPECT_EQ(sections.Text(), "S\0\0"s);
}

TEST_F(IniFileRead, EmptyKeyIsAnEmptyNameInsideTheList) {
  Write("[S]\n=1\na=2\n");
  const Outcome keys = Read("S", nullptr, nullptr, 16);
  EXPECT_EQ(keys.result, 3U);
  EXPECT_EQ(keys.Text(), "\0a\0\0"s);
}

// "ab\0cd\0" counts 6. The scan continues while the count is below size - 2.
TEST_F(IniFileRead, AnyResultSetsTheLastByteToNul) {
  Write("[S]\nab=1\n");
  EXPECT_EQ(Read("S", nullptr, nullptr, 9).buffer.substr(0, 10), "ab\0\0ZZZZ\0Z"s);
  EXPECT_EQ(Read(nullptr, nullptr, nullptr, 9).buffer.substr(0, 10), "S\0\0ZZZZZ\0Z"s);
  EXPECT_EQ(Read("S", "ab", nullptr, 9).buffer.substr(0, 10), "1\0ZZZZZZ\0Z"s);
  EXPECT_EQ(Read("S", "x", "d", 9).buffer.substr(0, 10), "d\0ZZZZZZ\0Z"s);
  EXPECT_EQ(Read("T", nullptr, nullptr, 9).buffer.substr(0, 10), "\0ZZZZZZZZZ"s) << "nothing is written";
}

TEST_F(IniFileRead, ListAtEveryBufferSize) {
  Write("[S]\nab=1\ncd=2\n");
  const auto read = [&](unsigned size) { return Read("S", nullptr, nullptr, size); };
  EXPECT_EQ(read(9).result, 6U);
  EXPECT_EQ(read(8).result, 6U) << "whole, but equal to size - 2";
  EXPECT_EQ(read(8).buffer.substr(0, 9), "ab\0cd\0\0\0Z"s);
  EXPECT_EQ(read(7).result, 6U) << "whole, but equal to size - 1";
  EXPECT_EQ(read(7).buffer.substr(0, 7), "ab\0cd\0\0"s);
  EXPECT_EQ(read(6).result, 4U) << "filled: size - 2";
  EXPECT_EQ(read(6).buffer.substr(0, 6), "ab\0c\0\0"s);
  EXPECT_EQ(read(5).result, 3U) << "the second name was not read: the first fills up to size - 2";
  EXPECT_EQ(read(5).buffer.substr(0, 6), "ab\0\0\0Z"s);
  EXPECT_EQ(read(4).result, 3U);
  EXPECT_EQ(read(4).buffer.substr(0, 4), "ab\0\0"s);
  EXPECT_EQ(read(3).result, 1U);
  EXPECT_EQ(read(3).buffer.substr(0, 3), "a\0\0"s);
  EXPECT_EQ(read(2).result, 0U);
  EXPECT_EQ(read(2).buffer.substr(0, 2), "\0Z"s);
}

TEST_F(IniFileRead, ValueAtEveryBufferSize) {
  Write("[S]\nk=abcde\n");
  const auto text = [&](unsigned size) {
    const Outcome outcome = Read("S", "k", "default", size);
    EXPECT_EQ(outcome.Text().back(), '\0');
    return outcome.Text().substr(0, outcome.result);
  };
  EXPECT_EQ(text(7), "abcde");
  EXPECT_EQ(text(6), "abcde");
  EXPECT_EQ(text(5), "abcd");
  EXPECT_EQ(text(4), "abc");
  EXPECT_EQ(text(3), "ab");
}

TEST_F(IniFileRead, BufferOfSizeTwoReturnsTheDefaultWithoutASearch) {
  Write("[S]\nk=x\n");
  const Outcome outcome = Read("S", "k", "default", 2);
  EXPECT_EQ(outcome.result, 1U);
  EXPECT_EQ(outcome.buffer, "d\0Z"s);
}

TEST_F(IniFileRead, BufferOfSizeOneGetsTheEmptyText) {
  Write("[S]\nk=x\n");
  const Outcome outcome = Read("S", "k", "default", 1);
  EXPECT_EQ(outcome.result, 0U);
  EXPECT_EQ(outcome.buffer, "\0Z"s);
  EXPECT_EQ(Read("S", nullptr, nullptr, 1).buffer, "\0Z"s);
  EXPECT_EQ(Read(nullptr, nullptr, nullptr, 1).result, 0U);
}

TEST_F(IniFileRead, BufferOfSizeZeroIsNotWritten) {
  Write("[S]\nk=x\n");
  const Outcome outcome = Read("S", "k", "default", 0);
  EXPECT_EQ(outcome.result, 0U);
  EXPECT_EQ(outcome.buffer, "Z");
}

TEST_F(IniFileRead, NullBufferOrPathIsZero) {
  char buf[4] = "abc";
  EXPECT_EQ(CIniFile::GetPrivateProfileString("S", "k", "d", nullptr, 4, path_.c_str()), 0U);
  EXPECT_EQ(CIniFile::GetPrivateProfileString("S", "k", "d", buf, 4, nullptr), 0U);
  EXPECT_STREQ(buf, "abc");
}

TEST_F(IniFileRead, DefaultIsCutLikeAValueAndTheResultIsItsCutLength) {
  Write("");
  const Outcome cut = Read("S", "k", "default", 4);
  EXPECT_EQ(cut.result, 3U);
  EXPECT_EQ(cut.buffer, "def\0Z"s);
  EXPECT_EQ(Read("S", "k", "default", 8).Text(), "default\0"s);
  EXPECT_EQ(Read("S", "k", nullptr, 8).Text(), "\0"s);
  EXPECT_EQ(Read("S", "k", "", 8).result, 0U);
}

TEST_F(IniFileRead, ListsHaveNoDefault) {
  Write("");
  EXPECT_EQ(Read("S", nullptr, "default", 16).Text(), "\0"s);
  EXPECT_EQ(Read(nullptr, nullptr, "default", 16).Text(), "\0"s);
}

TEST_F(IniFileRead, MissingFileReturnsTheDefaultForAKeyAndAnEmptyList) {
  EXPECT_EQ(Read("S", "k", "default", 16).Text(), "default\0"s);
  EXPECT_EQ(Read("S", nullptr, "default", 16).result, 0U);
  EXPECT_EQ(Read(nullptr, "k", "default", 16).result, 0U);
}

TEST_F(IniFileRead, FileThatIsNotRegularIsReadLikeAMissingOne) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(Value("S", "k"), "(default)");
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  EXPECT_EQ(Value("S", "k"), "(default)");
  EXPECT_EQ(List(nullptr), Names{});
}

TEST_F(IniFileRead, HugeSparseFileEndsInTime) {
  Write("[S]\nk=1\n");
  ASSERT_EQ(truncate(path_.c_str(), 64L << 20), 0);
  EXPECT_EQ(Value("S", "k"), "1");
  EXPECT_EQ(Value("S", "none"), "(default)");
}

TEST_F(IniFileRead, EveryPrefixOfAGoodFileIsReadWithoutHarm) {
  const qx::test::MemoryFile file;
  path_ = file.Path();
  const std::string whole = "\n[S]\n; c\nk = v ; n\n [T]\nk=" + std::string(1100, 'y') + "\n=e\n[U\n\xFF\xFE=\x80\n";
  for (std::size_t length = 0; length <= whole.size(); ++length) {
    file.Write(whole.substr(0, length));
    const std::string value = Value("S", "k");
    EXPECT_TRUE(value == "v" || (value == "(default)" && length < 14)) << length << ": " << value;
    (void)List(nullptr);
    (void)List("T");
  }
}

}  // namespace
