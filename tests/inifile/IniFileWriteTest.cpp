// Tests the writing primitive and its in-place edit. Each case shows the whole file before and after.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "inifile/IniFile.h"
#include "tests/support/Support.h"

namespace {

using namespace std::string_literals;

class IniFileWrite : public testing::Test {
 protected:
  // The file after one write; a failed one must have changed nothing.
  std::string After(std::string_view before, const char* section, const char* key, const char* value) {
    qx::test::WriteFile(path_, before);
    EXPECT_TRUE(CIniFile::WritePrivateProfileString(section, key, value, path_.c_str()));
    return qx::test::ReadFile(path_);
  }

  bool IsRefused(std::string_view before, const char* section, const char* key, const char* value) {
    qx::test::WriteFile(path_, before);
    const bool result = CIniFile::WritePrivateProfileString(section, key, value, path_.c_str());
    EXPECT_EQ(qx::test::ReadFile(path_), before);
    return !result;
  }

  bool Set(const char* section, const char* key, const char* value) {
    return CIniFile::WritePrivateProfileString(section, key, value, path_.c_str());
  }

  mode_t Mode() const {
    struct stat status = {};
    EXPECT_EQ(stat(path_.c_str(), &status), 0);
    return status.st_mode & 07777;
  }

  qx::test::TempDir dir_;
  const std::string path_ = dir_.File("profile.ini");
};

TEST_F(IniFileWrite, MissingFileIsCreatedWithHeaderBetweenEmptyLines) {
  EXPECT_TRUE(Set("Sec", "key", "value"));
  EXPECT_EQ(qx::test::ReadFile(path_), "\n[Sec]\n\nkey=value\n");
}

TEST_F(IniFileWrite, NewFileHasMode0644WhateverTheUmask) {
  for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
    const mode_t old = umask(mask);
    EXPECT_TRUE(Set("Sec", "key", "value"));
    umask(old);
    EXPECT_EQ(Mode(), 0644U) << "umask " << std::oct << mask;
    ASSERT_EQ(unlink(path_.c_str()), 0);
  }
}

TEST_F(IniFileWrite, ModeOfAnExistingFileStays) {
  qx::test::WriteFile(path_, "");
  ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
  EXPECT_TRUE(Set("Sec", "key", "value"));
  EXPECT_TRUE(Set("Sec", "key", "other"));
  EXPECT_EQ(Mode(), 0600U);
}

TEST_F(IniFileWrite, DeletingInAMissingFileIsTrueAndCreatesNothing) {
  EXPECT_TRUE(Set("Sec", "key", nullptr));
  EXPECT_TRUE(Set("Sec", nullptr, nullptr));
  EXPECT_TRUE(Set("Sec", nullptr, "value"));
  EXPECT_FALSE(qx::test::Exists(path_));
}

TEST_F(IniFileWrite, NewSectionIsAppended) {
  EXPECT_EQ(After("[A]\na=1\n", "B", "b", "2"), "[A]\na=1\n\n[B]\n\nb=2\n");
  EXPECT_EQ(After("", "B", "b", ""), "\n[B]\n\nb=\n");
}

TEST_F(IniFileWrite, NewKeyOfTheLastSectionIsAppended) {
  EXPECT_EQ(After("[A]\na=1\n", "A", "b", "2"), "[A]\na=1\nb=2\n");
  EXPECT_EQ(After("[A]\na=1\n\n; end\n", "A", "b", "2"), "[A]\na=1\n\n; end\nb=2\n");
}

TEST_F(IniFileWrite, NewKeyGoesBeforeTheEmptyAndCommentLinesAboveTheNextHeader) {
  EXPECT_EQ(After("[A]\na=1\n\n; about B\n\n[B]\nb=1\n", "A", "c", "3"), "[A]\na=1\nc=3\n\n; about B\n\n[B]\nb=1\n");
  EXPECT_EQ(After("[A]\n[B]\n", "A", "c", "3"), "[A]\nc=3\n[B]\n");
}

TEST_F(IniFileWrite, ValueIsReplacedInPlace) {
  EXPECT_EQ(After("[A]\n\na=1\nb=2\nc=3\n", "A", "b", "longer"), "[A]\n\na=1\nb=longer\nc=3\n");
  EXPECT_EQ(After("[A]\n\na=1\nb=long\nc=3\n", "A", "b", ""), "[A]\n\na=1\nb=\nc=3\n");
}

TEST_F(IniFileWrite, RewrittenLineLosesBlanksAndComment) {
  EXPECT_EQ(After("[A]\nx=0\na \t = 1 ; note\nb=2\n", "A", "a", "9"), "[A]\nx=0\na=9\nb=2\n");
}

TEST_F(IniFileWrite, EmptyAndCommentLinesDirectlyAboveARewrittenEntryDisappear) {
  EXPECT_EQ(After("[A]\nx=0\n\n; about a\n\na=1\nb=2\n", "A", "a", "9"), "[A]\nx=0\na=9\nb=2\n");
  EXPECT_EQ(After("[A]\nx=0\n\n; about a\n\na=1\nb=2\n", "A", "a", nullptr), "[A]\nx=0\nb=2\n");
}

TEST_F(IniFileWrite, QuirkRewritingTheFirstKeyAddsAnEmptyLineAfterTheHeader) {
  EXPECT_EQ(After("[A]\na=1\nb=2\n", "A", "a", "9"), "[A]\n\na=9\nb=2\n");
  EXPECT_EQ(After("[A]\n\na=1\nb=2\n", "A", "a", "9"), "[A]\n\na=9\nb=2\n");
  EXPECT_EQ(After("[A]\n; about a\na=1\nb=2\n", "A", "a", "9"), "[A]\n\na=9\nb=2\n");
}

TEST_F(IniFileWrite, QuirkDeletingTheFirstKeyLeavesAnEmptyLine) {
  EXPECT_EQ(After("[A]\na=1\nb=2\n", "A", "a", nullptr), "[A]\n\nb=2\n");
  EXPECT_EQ(After("[A]\na=1\n", "A", "a", nullptr), "[A]\n\n");
}

TEST_F(IniFileWrite, LineWithoutEqualsSignCountsAsTheFirstLine) {
  EXPECT_EQ(After("[A]\ntext\na=1\n", "A", "a", "9"), "[A]\ntext\na=9\n");
}

TEST_F(IniFileWrite, FirstOfTwoEqualKeysIsTheOneThatIsWritten) {
  EXPECT_EQ(After("[A]\nx=0\na=1\na=2\n", "A", "a", "9"), "[A]\nx=0\na=9\na=2\n");
  EXPECT_EQ(After("[A]\nx=0\na=1\na=2\n", "A", "a", nullptr), "[A]\nx=0\na=2\n");
}

TEST_F(IniFileWrite, FirstOfTwoEqualSectionsIsTheOneThatIsWritten) {
  EXPECT_EQ(After("[A]\na=1\n[A]\nb=2\n", "A", "b", "9"), "[A]\na=1\nb=9\n[A]\nb=2\n");
  EXPECT_EQ(After("[A]\na=1\n[A]\nb=2\n", "A", nullptr, nullptr), "[A]\nb=2\n");
}

TEST_F(IniFileWrite, KeyBeforeAnyHeaderIsNotFound) { EXPECT_EQ(After("a=1\n", "A", "a", "2"), "a=1\n\n[A]\n\na=2\n"); }

TEST_F(IniFileWrite, DeletedSectionIncludesTheCommentLinesAboveItsHeader) {
  EXPECT_EQ(After("[A]\na=1\n\n; about B\n[B]\nb=1\n\n; about C\n[C]\nc=1\n", "B", nullptr, nullptr),
            "[A]\na=1\n\n; about C\n[C]\nc=1\n");
  EXPECT_EQ(After("; file\n[A]\na=1\n[B]\n", "A", nullptr, nullptr), "[B]\n");
}

TEST_F(IniFileWrite, DeletedLastSectionGoesUpToTheEndOfTheFile) {
  EXPECT_EQ(After("[A]\na=1\n\n[B]\nb=1\n\n; end\n", "B", nullptr, nullptr), "[A]\na=1\n");
  EXPECT_EQ(After("[A]\na=1\n", "A", nullptr, "ignored"), "");
}

TEST_F(IniFileWrite, DeletionOfAMissingEntryIsFalse) {
  EXPECT_TRUE(IsRefused("[A]\na=1\n[B]\n", "A", "x", nullptr));
  EXPECT_TRUE(IsRefused("[A]\na=1\n", "A", "x", nullptr));
  EXPECT_TRUE(IsRefused("[A]\na=1\n", "X", "a", nullptr));
  EXPECT_TRUE(IsRefused("[A]\na=1\n", "X", nullptr, nullptr));
  EXPECT_TRUE(IsRefused("", "X", nullptr, nullptr));
}

TEST_F(IniFileWrite, MissingSectionOrPathIsFalse) {
  EXPECT_TRUE(IsRefused("[A]\na=1\n", nullptr, "a", "2"));
  EXPECT_FALSE(CIniFile::WritePrivateProfileString("A", "a", "2", nullptr));
}

TEST_F(IniFileWrite, QuirkIndentedHeaderIsNotFoundForWriting) {
  EXPECT_EQ(After(" [A]\na=1\n", "A", "a", "2"), " [A]\na=1\n\n[A]\n\na=2\n");
  EXPECT_TRUE(IsRefused(" [A]\na=1\n", "A", nullptr, nullptr));
  EXPECT_EQ(After("[A]\na=1\n [B]\nb=1\n[C]\n", "A", nullptr, nullptr), "[C]\n") << "it ends no section either";
}

TEST_F(IniFileWrite, QuirkIndentedEntryIsNotFoundForWriting) {
  EXPECT_EQ(After("[A]\n key=1\nb=2\n\n[B]\n", "A", "key", "9"), "[A]\n key=1\nb=2\nkey=9\n\n[B]\n");
  EXPECT_TRUE(IsRefused("[A]\n key=1\n", "A", "key", nullptr));
  EXPECT_EQ(After("[A]\nx=0\n key=1\n", "A", " key", "9"), "[A]\nx=0\n key=9\n") << "the blank is part of the key";
}

TEST_F(IniFileWrite, QuirkIndentedCommentIsALineOfItsSection) {
  EXPECT_EQ(After("[A]\n  ; c\na=1\n", "A", "a", "9"), "[A]\n  ; c\na=9\n");
}

TEST_F(IniFileWrite, LineOfBlanksOrCarriageReturnIsNotEmpty) {
  EXPECT_EQ(After("[A]\n \na=1\n", "A", "a", "9"), "[A]\n \na=9\n");
  EXPECT_EQ(After("[A]\r\n\r\na=1\r\n", "A", "a", "9"), "[A]\r\n\r\na=9\n");
}

TEST_F(IniFileWrite, OnlyBlanksAndTabsBeforeTheEqualsSignAreNotInTheKey) {
  EXPECT_EQ(After("[A]\nx=0\na\v=1\n", "A", "a", "9"), "[A]\nx=0\na\v=1\na=9\n");
}

TEST_F(IniFileWrite, QuirkHeaderWithACommentCharacterIsFoundForWritingOnly) {
  EXPECT_EQ(After("[A;1]\nx=0\na=1\n", "A;1", "a", "9"), "[A;1]\nx=0\na=9\n");
}

TEST_F(IniFileWrite, HeaderWithoutItsClosingBracketEndsASection) {
  EXPECT_EQ(After("[A]\na=1\n[broken\nb=1\n", "A", "b", "9"), "[A]\na=1\nb=9\n[broken\nb=1\n");
}

TEST_F(IniFileWrite, QuirkEntryAfterAnUnfinishedLastLineIsAppendedToThatLine) {
  EXPECT_EQ(After("[A]\na=1", "A", "b", "2"), "[A]\na=1b=2\n");
}

TEST_F(IniFileWrite, HeaderAfterAnUnfinishedLastLineStartsALine) {
  EXPECT_EQ(After("[A]\na=1", "B", "b", "2"), "[A]\na=1\n[B]\n\nb=2\n");
}

TEST_F(IniFileWrite, EntryInAnUnfinishedLastLineIsReplaced) {
  EXPECT_EQ(After("[A]\nx=0\na=1", "A", "a", "2"), "[A]\nx=0\na=2\n");
}

TEST_F(IniFileWrite, QuirkLastCharacterOfAnUnfinishedLastLineIsNotRead) {
  EXPECT_EQ(After("[A]\nx=0\na=", "A", "a", "2"), "[A]\nx=0\na=a=2\n") << "read as \"a\", which is not an entry";
  EXPECT_EQ(After("[A]", "A", "a", "2"), "[A]\n[A]\n\na=2\n") << "read as \"[A\", which is not a header of A";
}

TEST_F(IniFileWrite, QuirkNulHidesTheRestOfItsLineAndACharacter) {
  EXPECT_EQ(After("[A]\nx=0\na=1\0junk\nb=2\n"s, "A", "a", "9"), "[A]\nx=0\na=9\nb=2\n");
  EXPECT_EQ(After("[A]\0\na=1\n"s, "A", "a", "9"), "[A]\0\na=1\n\n[A]\n\na=9\n"s) << "read as \"[A\"";
  EXPECT_EQ(After("[A]\nx=0\n\0junk\na=1\n"s, "A", "a", "9"), "[A]\nx=0\na=9\n") << "an empty line";
}

TEST_F(IniFileWrite, QuirkPiecesOfALongLineAreEditedAsLines) {
  const std::string head = "a=" + std::string(1021, 'x');
  const std::string tail = "tail\n";
  EXPECT_EQ(After("[A]\nx=0\n" + head + tail, "A", "a", "9"), "[A]\nx=0\na=9\n" + tail);
  const std::string padding(1023, 'y');
  EXPECT_EQ(After("[A]\nx=0\n" + padding + "b=1\n", "A", "b", "9"), "[A]\nx=0\n" + padding + "b=9\n");
}

TEST_F(IniFileWrite, ValueOfAnyLengthIsWrittenWhole) {
  const std::string value(100000, 'v');
  EXPECT_EQ(After("[A]\nx=0\na=1\nb=2\n", "A", "a", value.c_str()), "[A]\nx=0\na=" + value + "\nb=2\n");
}

TEST_F(IniFileWrite, LongTailKeepsEveryByte) {
  std::string tail;
  for (int i = 0; i < 60000; ++i) tail += static_cast<char>(i * 7);
  for (const char* const value : {"", "1", "a value that is longer than before"}) {
    EXPECT_EQ(After("[A]\nx=0\na=123\n" + tail, "A", "a", value), "[A]\nx=0\na="s + value + "\n" + tail);
  }
}

TEST_F(IniFileWrite, NothingIsEscaped) {
  EXPECT_EQ(After("", "S", "k", "a\nb=1"), "\n[S]\n\nk=a\nb=1\n");
  EXPECT_EQ(After("", "S]", "k=", " v;"), "\n[S]]\n\nk== v;\n");
}

TEST_F(IniFileWrite, TargetOfASymbolicLinkIsWrittenInPlace) {
  const std::string target = dir_.File("target");
  ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0);
  EXPECT_TRUE(Set("S", "k", "1"));
  EXPECT_TRUE(Set("S", "k", "2"));
  EXPECT_EQ(qx::test::ReadFile(target), "\n[S]\n\nk=2\n");
}

class IniFileWriteLines : public testing::Test {
 protected:
  // The file after one edit of "0123456789", or "refused" with the file unchanged.
  std::string After(unsigned from, unsigned to, const char* key, const char* value, bool newline_first) {
    const qx::test::TempDir dir;
    const std::string path = dir.File("f");
    qx::test::WriteFile(path, "0123456789");
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "r+"), &std::fclose);
    const bool result = CIniFile::WriteLines(file.get(), from, to, key, value, newline_first);
    const std::string bytes = qx::test::ReadFile(path);
    if (result) return bytes;
    EXPECT_EQ(bytes, "0123456789");
    return "refused";
  }
};

TEST_F(IniFileWriteLines, RegionIsReplacedByTheEntry) {
  EXPECT_EQ(After(2, 5, "k", "v", false), "01k=v\n56789");
  EXPECT_EQ(After(2, 5, "k", "v", true), "01\nk=v\n56789");
  EXPECT_EQ(After(2, 9, "k", "v", false), "01k=v\n9");
}

TEST_F(IniFileWriteLines, EmptyRegionInserts) {
  EXPECT_EQ(After(0, 0, "k", "v", false), "k=v\n0123456789");
  EXPECT_EQ(After(10, 10, "k", "v", false), "0123456789k=v\n");
}

TEST_F(IniFileWriteLines, WithoutKeyOrValueTheRegionIsRemoved) {
  EXPECT_EQ(After(2, 5, nullptr, nullptr, false), "0156789");
  EXPECT_EQ(After(2, 5, "k", nullptr, false), "0156789");
  EXPECT_EQ(After(2, 5, nullptr, "v", true), "01\n56789");
  EXPECT_EQ(After(0, 10, nullptr, nullptr, false), "");
}

TEST_F(IniFileWriteLines, RegionOutsideTheFileIsRefused) {
  EXPECT_EQ(After(2, 11, "k", "v", false), "refused");
  EXPECT_EQ(After(11, 11, "k", "v", false), "refused");
  EXPECT_EQ(After(5, 2, "k", "v", false), "refused");
  EXPECT_EQ(After(0, 0xFFFFFFFFU, "k", "v", false), "refused");
}

TEST_F(IniFileWriteLines, NoStreamIsRefused) { EXPECT_FALSE(CIniFile::WriteLines(nullptr, 0, 0, "k", "v", false)); }

TEST_F(IniFileWriteLines, StreamThatCannotBeWrittenIsRefused) {
  const qx::test::TempDir dir;
  qx::test::WriteFile(dir.File("f"), "0123456789");
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(dir.File("f").c_str(), "r"), &std::fclose);
  EXPECT_FALSE(CIniFile::WriteLines(file.get(), 2, 5, "k", "v", false));
  EXPECT_FALSE(CIniFile::WriteLines(file.get(), 2, 5, nullptr, nullptr, false));
  EXPECT_EQ(qx::test::ReadFile(dir.File("f")), "0123456789");
}

}  // namespace
