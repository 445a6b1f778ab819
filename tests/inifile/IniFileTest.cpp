// Tests the members of the class: one file name, growing buffers, numbers, enumeration.
#include "inifile/IniFile.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/Support.h"

namespace {

using Names = std::vector<std::string>;

// The longest text that a member returns.
constexpr std::size_t kTextMax = 64509;

class IniFile : public testing::Test {
 protected:
  void Write(std::string_view bytes) {
    qx::test::WriteFile(path_, bytes);
    ASSERT_TRUE(ini_.Open(path_.c_str(), true));
  }

  unsigned NumberOf(const std::string& value) {
    qx::test::WriteFile(path_, "[S]\nk=" + value + "\n");
    EXPECT_TRUE(ini_.Open(path_.c_str(), true));
    return ini_.GetNumber("S", "k", 77);
  }

  std::string Bytes() const { return qx::test::ReadFile(path_); }

  qx::test::TempDir dir_;
  const std::string path_ = dir_.File("profile.ini");
  CIniFile ini_;
};

TEST_F(IniFile, NewObjectIsClosedAndHasNoName) {
  EXPECT_FALSE(ini_.IsOpen());
  EXPECT_STREQ(ini_.GetFileName(), "");
}

TEST_F(IniFile, FileNameIsACopyAndNullClearsIt) {
  std::string name = "/some/name";
  ini_.SetFilename(name.c_str());
  name = "changed";
  EXPECT_STREQ(ini_.GetFileName(), "/some/name");
  ini_.SetFilename(ini_.GetFileName());
  EXPECT_STREQ(ini_.GetFileName(), "/some/name");
  ini_.SetFilename(nullptr);
  EXPECT_STREQ(ini_.GetFileName(), "");
}

TEST_F(IniFile, OpenWithoutANameStaysClosed) {
  EXPECT_FALSE(ini_.Open(false));
  EXPECT_FALSE(ini_.Open(nullptr, false));
  EXPECT_FALSE(ini_.IsOpen());
}

TEST_F(IniFile, OpenOfAMissingFileDependsOnMustExist) {
  EXPECT_FALSE(ini_.Open(path_.c_str(), true));
  EXPECT_FALSE(ini_.IsOpen());
  EXPECT_STREQ(ini_.GetFileName(), path_.c_str()) << "the name stays";
  EXPECT_TRUE(ini_.Open(false));
  EXPECT_TRUE(ini_.IsOpen());
  EXPECT_FALSE(qx::test::Exists(path_)) << "nothing is created";
  EXPECT_FALSE(ini_.Open(true)) << "a failed open closes";
  EXPECT_FALSE(ini_.IsOpen());
}

TEST_F(IniFile, OnlyRegularFilesExist) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_FALSE(ini_.Open(path_.c_str(), true));
  EXPECT_FALSE(ini_.Open(dir_.Path().c_str(), true));
  EXPECT_FALSE(ini_.Open("/dev/null", true));
}

TEST_F(IniFile, CloseOnlyClearsTheFlag) {
  Write("[S]\nk=1\n");
  ini_.Close();
  EXPECT_FALSE(ini_.IsOpen());
  EXPECT_STREQ(ini_.GetFileName(), path_.c_str());
  EXPECT_TRUE(ini_.Open(true));
  EXPECT_EQ(ini_.GetNumber("S", "k", 0), 1U);
}

void ExpectEveryMemberFails(CIniFile& ini) {
  EXPECT_EQ(ini.GetNumber("S", "k", 7), 7U);
  std::string out = "untouched";
  EXPECT_FALSE(ini.GetString(out, "S", "k", "d"));
  EXPECT_EQ(out, "untouched");
  EXPECT_STREQ(ini.GetString("S", "k", "d"), "d");
  EXPECT_EQ(ini.GetString("S", "k", nullptr), nullptr);
  EXPECT_STREQ(ini.GetEnum("S"), "");
  EXPECT_STREQ(ini.GetNextEnum(), "");
  Names names;
  EXPECT_FALSE(ini.GetSections(names));
  EXPECT_FALSE(ini.GetEnums(names, "S"));
  EXPECT_EQ(names, Names{});
  EXPECT_FALSE(ini.SetString("S", "k", "v"));
  EXPECT_FALSE(ini.SetNumber("S", "k", 1));
  EXPECT_FALSE(ini.SetNumber("S", "k", 1U));
  EXPECT_FALSE(ini.CopySection("S", "T"));
  EXPECT_FALSE(ini.DeleteSection("S"));
  EXPECT_FALSE(ini.DeleteKey("S", "k"));
  ini.Flush();
}

TEST_F(IniFile, ClosedObjectReturnsFailureValuesAndChangesNothing) {
  Write("[S]\nk=1\n");
  ini_.Close();
  ExpectEveryMemberFails(ini_);
  EXPECT_EQ(Bytes(), "[S]\nk=1\n");
}

TEST_F(IniFile, OpenObjectThatLostItsNameReturnsFailureValues) {
  Write("[S]\nk=1\n");
  ini_.SetFilename(nullptr);
  EXPECT_TRUE(ini_.IsOpen());
  ExpectEveryMemberFails(ini_);
  EXPECT_EQ(Bytes(), "[S]\nk=1\n");
}

TEST_F(IniFile, NumberIsReadInTheBaseThatItsTextShows) {
  EXPECT_EQ(NumberOf("12"), 12U);
  EXPECT_EQ(NumberOf("0x1F"), 31U);
  EXPECT_EQ(NumberOf("017"), 15U);
  EXPECT_EQ(NumberOf("09"), 0U);
  EXPECT_EQ(NumberOf("12 apples"), 12U);
  EXPECT_EQ(NumberOf("apples"), 0U);
  EXPECT_EQ(NumberOf("+5"), 5U);
}

TEST_F(IniFile, NumberIsCutTo32Bits) {
  EXPECT_EQ(NumberOf("4294967295"), 4294967295U);
  EXPECT_EQ(NumberOf("4294967296"), 0U);
  EXPECT_EQ(NumberOf("4294967301"), 5U);
  EXPECT_EQ(NumberOf("-1"), 4294967295U);
  EXPECT_EQ(NumberOf("99999999999999999999"), 4294967295U) << "the largest 64-bit number, cut";
}

TEST_F(IniFile, NumberHasAtMost31Characters) {
  EXPECT_EQ(NumberOf(std::string(30, '0') + "7"), 7U);
  EXPECT_EQ(NumberOf(std::string(30, '0') + "12"), 1U);
}

TEST_F(IniFile, MissingOrEmptyNumberIsTheDefault) {
  EXPECT_EQ(NumberOf(""), 77U);
  EXPECT_EQ(ini_.GetNumber("S", "none", 5), 5U);
  EXPECT_EQ(ini_.GetNumber(nullptr, "k", 5), 5U);
  EXPECT_EQ(ini_.GetNumber("S", nullptr, 5), 5U);
}

TEST_F(IniFile, BothStringFormsReturnValueOrDefault) {
  Write("[S]\nk = v\nempty=\n");
  std::string out;
  EXPECT_TRUE(ini_.GetString(out, "S", "k", "d"));
  EXPECT_EQ(out, "v");
  EXPECT_TRUE(ini_.GetString(out, "S", "empty", "d"));
  EXPECT_EQ(out, "d");
  EXPECT_TRUE(ini_.GetString(out, "S", "none", nullptr));
  EXPECT_EQ(out, "");
  EXPECT_STREQ(ini_.GetString("S", "k", "d"), "v");
  EXPECT_STREQ(ini_.GetString("S", "empty", "d"), "d");
  EXPECT_STREQ(ini_.GetString("S", "none", nullptr), "");
}

// A result of 1022 or 1023 may have been cut by the first buffer, so these lengths are read again.
TEST_F(IniFile, TextsAroundTheBufferStepsAreWhole) {
  Write("[S]\n");
  for (const std::size_t step : {1024U, 2048U, 3072U, 63U * 1024U}) {
    for (std::size_t length = step - 4; length <= std::min(step + 1, kTextMax); ++length) {
      const std::string text(length, 'd');
      std::string out;
      EXPECT_TRUE(ini_.GetString(out, "S", "k", text.c_str())) << length;
      EXPECT_EQ(out, text) << length;
      EXPECT_EQ(ini_.GetString("S", "k", text.c_str()), text) << length;
    }
  }
}

TEST_F(IniFile, LongestValueOfALineIsWhole) {
  const std::string value(1022, 'v');  // after an empty key
  Write("[S]\n=" + value + "\n");
  std::string out;
  EXPECT_TRUE(ini_.GetString(out, "S", "", "d"));
  EXPECT_EQ(out, value);
  EXPECT_EQ(ini_.GetString("S", "", "d"), value);
}

TEST_F(IniFile, TextOverTheLimitReturnsTheDefaultItself) {
  Write("[S]\n");
  const std::string text(kTextMax + 1, 'd');
  std::string out;
  EXPECT_FALSE(ini_.GetString(out, "S", "k", text.c_str()));
  EXPECT_EQ(out, text);
  EXPECT_EQ(ini_.GetString("S", "k", text.c_str()), text.c_str()) << "the caller's own pointer";
}

TEST_F(IniFile, StringLivesUntilTheNextOneOfItsForm) {
  Write("[S]\na=1\nb=2\n");
  const char* const a = ini_.GetString("S", "a", "");
  std::string out;
  EXPECT_TRUE(ini_.GetString(out, "S", "b", ""));
  EXPECT_EQ(ini_.GetNumber("S", "b", 0), 2U);
  EXPECT_STREQ(ini_.GetEnum("S"), "a");
  EXPECT_TRUE(ini_.SetString("S", "a", "3"));
  ini_.Close();
  EXPECT_STREQ(a, "1");
}

TEST_F(IniFile, KeyAndDefaultMayBeStringsReturnedBefore) {
  const std::string padding(1000, 'x');
  Write("[S]\na=b\nb=c\nlong=" + padding + "\n");
  EXPECT_STREQ(ini_.GetString("S", ini_.GetString("S", "a", ""), ""), "c");
  EXPECT_STREQ(ini_.GetString("S", "none", ini_.GetString("S", "a", "")), "b");
  EXPECT_EQ(ini_.GetString("S", "none", ini_.GetString("S", "long", "")), padding);
}

TEST_F(IniFile, StringWithoutKeyIsTheListOfKeys) {
  Write("[S]\na=1\nbc=2\n");
  EXPECT_EQ(std::string(ini_.GetString("S", nullptr, "d"), 6), std::string("a\0bc\0\0", 6));
  std::string out;
  EXPECT_TRUE(ini_.GetString(out, "S", nullptr, "d"));
  EXPECT_EQ(out, "a") << "a std::string takes the first name";
}

TEST_F(IniFile, EnumerationWalksKeysInFileOrderDuplicatesIncluded) {
  Write("[S]\nb=1\na=2\nb=3\n[T]\nc=4\n");
  EXPECT_STREQ(ini_.GetEnum("S"), "b");
  EXPECT_STREQ(ini_.GetNextEnum(), "a");
  EXPECT_STREQ(ini_.GetNextEnum(), "b");
  EXPECT_STREQ(ini_.GetNextEnum(), "");
  EXPECT_STREQ(ini_.GetNextEnum(), "") << "the end stays the end";
  EXPECT_STREQ(ini_.GetEnum(nullptr), "S");
  EXPECT_STREQ(ini_.GetNextEnum(), "T");
  EXPECT_STREQ(ini_.GetNextEnum(), "");
}

TEST_F(IniFile, EnumerationOfNothingIsEmpty) {
  Write("[S]\n");
  EXPECT_STREQ(ini_.GetNextEnum(), "") << "without GetEnum";
  EXPECT_STREQ(ini_.GetEnum("S"), "");
  EXPECT_STREQ(ini_.GetNextEnum(), "");
  EXPECT_STREQ(ini_.GetEnum("none"), "");
}

TEST_F(IniFile, EnumerationContinuesOnlyWhileTheObjectIsOpen) {
  Write("[S]\na=1\nb=2\n");
  EXPECT_STREQ(ini_.GetEnum("S"), "a");
  ini_.Close();
  EXPECT_STREQ(ini_.GetNextEnum(), "");
  EXPECT_TRUE(ini_.Open(true));
  EXPECT_STREQ(ini_.GetNextEnum(), "b");
}

TEST_F(IniFile, FailedEnumerationEndsThePreviousOne) {
  Write("[S]\na=1\nb=2\n");
  EXPECT_STREQ(ini_.GetEnum("S"), "a");
  ini_.Close();
  EXPECT_STREQ(ini_.GetEnum("S"), "");
  EXPECT_TRUE(ini_.Open(true));
  EXPECT_STREQ(ini_.GetNextEnum(), "");
}

TEST_F(IniFile, QuirkEmptyKeyEndsAListOfNamesButNotTheCursor) {
  Write("[S]\na=1\n=2\nb=3\n");
  Names names;
  EXPECT_TRUE(ini_.GetEnums(names, "S"));
  EXPECT_EQ(names, Names{"a"});
  EXPECT_STREQ(ini_.GetEnum("S"), "a");
  EXPECT_STREQ(ini_.GetNextEnum(), "");
  EXPECT_STREQ(ini_.GetNextEnum(), "b");
  EXPECT_STREQ(ini_.GetNextEnum(), "");
  EXPECT_STREQ(ini_.GetNextEnum(), "");
}

TEST_F(IniFile, ListsAreAppendedAndReturnWhetherTheyHadANewName) {
  Write("[S]\na=1\nb=2\n[T]\n");
  Names names = {"kept"};
  EXPECT_TRUE(ini_.GetSections(names));
  EXPECT_TRUE(ini_.GetEnums(names, "S"));
  EXPECT_FALSE(ini_.GetEnums(names, "T"));
  EXPECT_FALSE(ini_.GetEnums(names, nullptr));
  EXPECT_EQ(names, (Names{"kept", "S", "T", "a", "b"}));
}

// A section whose keys count `total`. Names of 99 characters count 100 each; the last name makes up the rest.
std::string SectionWithKeysCounting(std::size_t total) {
  std::string text = "[S]\n";
  while (total > 200) {
    text += std::string(99, 'k') + "=1\n";
    total -= 100;
  }
  return text + std::string(total - 1, 'z') + "=1\n";
}

TEST_F(IniFile, ListsAroundTheBufferStepsAreWhole) {
  for (const std::size_t step : {1024U, 2048U, 3072U, 63U * 1024U}) {
    for (std::size_t total = step - 4; total <= std::min(step + 1, kTextMax); ++total) {
      Write(SectionWithKeysCounting(total));
      Names names;
      EXPECT_TRUE(ini_.GetEnums(names, "S"));
      std::size_t counted = 0;
      for (const std::string& name : names) counted += name.size() + 1;
      EXPECT_EQ(counted, total);
    }
  }
}

TEST_F(IniFile, ListOverTheLimitCountsAsEmpty) {
  Write(SectionWithKeysCounting(kTextMax + 1));
  Names names;
  EXPECT_FALSE(ini_.GetEnums(names, "S"));
  EXPECT_EQ(names, Names{});
  EXPECT_STREQ(ini_.GetNextEnum(), "");
  EXPECT_STREQ(ini_.GetString("S", nullptr, "d"), "d");
}

TEST_F(IniFile, StringsAndNumbersAreWrittenToTheFile) {
  ASSERT_TRUE(ini_.Open(path_.c_str(), false));
  EXPECT_TRUE(ini_.SetString("S", "text", "value"));
  EXPECT_TRUE(ini_.SetNumber("S", "most", 4294967295U));
  EXPECT_TRUE(ini_.SetNumber("S", "least", -2147483647 - 1));
  EXPECT_EQ(Bytes(), "\n[S]\n\ntext=value\nmost=4294967295\nleast=-2147483648\n");
}

TEST_F(IniFile, WritesWithoutSectionOrNumberKeyAreFalse) {
  Write("[S]\nk=1\n");
  EXPECT_FALSE(ini_.SetString(nullptr, "k", "2"));
  EXPECT_FALSE(ini_.SetNumber(nullptr, "k", 2));
  EXPECT_FALSE(ini_.SetNumber("S", nullptr, 2));
  EXPECT_FALSE(ini_.SetNumber("S", nullptr, 2U));
  EXPECT_FALSE(ini_.DeleteSection(nullptr));
  EXPECT_FALSE(ini_.DeleteKey(nullptr, "k"));
  EXPECT_EQ(Bytes(), "[S]\nk=1\n");
}

TEST_F(IniFile, SectionsAndKeysAreDeleted) {
  Write("[S]\na=1\nb=2\n[T]\nc=3\n");
  EXPECT_TRUE(ini_.DeleteKey("S", "b"));
  EXPECT_EQ(Bytes(), "[S]\na=1\n[T]\nc=3\n");
  EXPECT_FALSE(ini_.DeleteKey("S", "b"));
  EXPECT_TRUE(ini_.DeleteSection("S"));
  EXPECT_EQ(Bytes(), "[T]\nc=3\n");
  EXPECT_TRUE(ini_.SetString("T", "c", nullptr)) << "a null value deletes the key";
  EXPECT_TRUE(ini_.SetString("T", nullptr, "v")) << "a null key deletes the section";
  EXPECT_EQ(Bytes(), "");
}

TEST_F(IniFile, CopiedSectionHasEachKeyWithItsFirstValue) {
  Write("[S]\na = 1 ; note\nb=\na=2\n[T]\nold=3\n");
  EXPECT_TRUE(ini_.CopySection("S", "T"));
  EXPECT_EQ(Bytes(), "[S]\na = 1 ; note\nb=\na=2\n[T]\nold=3\na=1\nb=\n");
  EXPECT_TRUE(ini_.CopySection("S", "New"));
  EXPECT_EQ(Bytes(), "[S]\na = 1 ; note\nb=\na=2\n[T]\nold=3\na=1\nb=\n\n[New]\n\na=1\nb=\n");
}

TEST_F(IniFile, CopyWithoutASectionOrANameReturnsTheOpenFlag) {
  Write("[S]\na=1\n");
  EXPECT_TRUE(ini_.CopySection("none", "T"));
  EXPECT_TRUE(ini_.CopySection(nullptr, "T"));
  EXPECT_TRUE(ini_.CopySection("S", nullptr));
  ini_.Close();
  EXPECT_FALSE(ini_.CopySection(nullptr, "T"));
  EXPECT_FALSE(ini_.CopySection("S", nullptr));
  EXPECT_EQ(Bytes(), "[S]\na=1\n");
}

TEST_F(IniFile, QuirkCopyIsTrueEvenWhenItsWritesFail) {
  ASSERT_TRUE(ini_.Open(dir_.Path().c_str(), false));
  EXPECT_TRUE(ini_.CopySection("S", "T"));
}

TEST_F(IniFile, EveryCallReadsTheFileAsItIsNow) {
  Write("[S]\nk=1\n");
  EXPECT_EQ(ini_.GetNumber("S", "k", 0), 1U);
  qx::test::WriteFile(path_, "[S]\nk=2\n");
  EXPECT_EQ(ini_.GetNumber("S", "k", 0), 2U);
}

TEST_F(IniFile, InstanceNamesFileIsReadAsByTheProvider) {
  Write("[Quaxel Report Instances]\nVersion=1\nName=Performance\n\n[Names]\n1=North\n2=South & <East>\n");
  EXPECT_EQ(ini_.GetNumber("Quaxel Report Instances", "Version", 0), 1U);
  EXPECT_STREQ(ini_.GetString("Quaxel Report Instances", "Name", ""), "Performance");
  Names keys;
  EXPECT_TRUE(ini_.GetEnums(keys, "Names"));
  EXPECT_EQ(keys, (Names{"1", "2"}));
  EXPECT_STREQ(ini_.GetString("Names", "2", ""), "South & <East>");
}

TEST(IniFileThreads, ObjectsOfSeveralThreadsReadOneFile) {
  const qx::test::TempDir dir;
  const std::string path = dir.File("profile.ini");
  qx::test::WriteFile(path, "[S]\na=1\nb=2\n");
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&path] {
      CIniFile ini;
      ini.Open(path.c_str(), true);
      for (int i = 0; i < 100; ++i) {
        Names names;
        EXPECT_TRUE(ini.GetEnums(names, "S"));
        EXPECT_EQ(names, (Names{"a", "b"}));
        EXPECT_STREQ(ini.GetString("S", "b", ""), "2");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
