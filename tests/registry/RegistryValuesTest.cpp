#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::Dump;
using qx::test::RegistryTest;
using qx::test::ScopedEnv;

class RegistryValues : public RegistryTest {
 protected:
  RegistryValues() {
    Given(
        "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nbin=b=01 02 03 "
        "\nnone=b=\nnum=d=-5\nsz=s=abc\nexp=es=%QX_T%/x\n[sub]\n\n\n\n\n");
    EXPECT_EQ(handle_.Open("SOFTWARE", CRegistry::MLocalMachine, 0), -1);  // nothing is loaded before the file exists
    CRegistry::SetupTree(false);
    EXPECT_EQ(handle_.Open("SOFTWARE", CRegistry::MLocalMachine, 0), 0);
  }

  std::string Text(const char* name) {
    std::string text = "?";
    const long result = handle_.QueryValue(text, name);
    EXPECT_EQ(handle_.Status(), result);
    return result == 0 ? text : std::to_string(result);
  }
  bool Set(const char* name, std::string_view data, unsigned type) {
    return handle_.SetValue(name, reinterpret_cast<const unsigned char*>(data.data()),
                            static_cast<unsigned>(data.size()), type);
  }

  CRegistry handle_;
};

TEST_F(RegistryValues, SizesCountTheNulOfStrings) {
  EXPECT_EQ(handle_.GetValueSize("sz"), 4U);
  EXPECT_EQ(handle_.GetValueSize("exp"), 9U);  // not expanded
  EXPECT_EQ(handle_.GetValueSize("bin"), 3U);
  EXPECT_EQ(handle_.GetValueSize("num"), 4U);
  for (const char* name : {"none", "sub", "missing", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(handle_.GetValueSize(name), 0U);
  }
  CRegistry closed;
  EXPECT_EQ(closed.GetValueSize("sz"), 0U);
  EXPECT_EQ(closed.GetValueSize("sz", handle_.CurrentKey()), 4U);
}

TEST_F(RegistryValues, ValuesAreReadAsTheirBytes) {
  EXPECT_STREQ(reinterpret_cast<const char*>(handle_.GetValue("sz")), "abc");
  EXPECT_EQ(handle_.ValueSize(), 4U);
  EXPECT_EQ(handle_.ValueType(), REG_SZ);
  EXPECT_EQ(std::memcmp(handle_.GetValue("bin"), "\1\2\3", 3), 0);
  EXPECT_EQ(handle_.ValueSize(), 3U);
  EXPECT_EQ(handle_.ValueType(), REG_BINARY);
  EXPECT_EQ(std::memcmp(handle_.GetValue("num"), "\xFB\xFF\xFF\xFF", 4), 0);
  EXPECT_EQ(handle_.ValueType(), REG_DWORD);
}

TEST_F(RegistryValues, MissingOrEmptyValueIsNullAndKeepsTheLastType) {
  ASSERT_NE(handle_.GetValue("num"), nullptr);
  for (const char* name : {"none", "sub", "missing", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(handle_.GetValue(name), nullptr);
    EXPECT_EQ(handle_.ValueSize(), 0U);
    EXPECT_EQ(handle_.ValueType(), REG_DWORD);
  }
  CRegistry closed;
  EXPECT_EQ(closed.GetValue("sz"), nullptr);
}

TEST_F(RegistryValues, EnvironmentVariablesAreExpandedInExpandStringsOnly) {
  const ScopedEnv variable("QX_T", "home");
  const ScopedEnv unset("QX_UNSET", nullptr);
  EXPECT_EQ(Text("exp"), "home/x");
  EXPECT_EQ(handle_.ValueSize(), 6U);  // without the NUL
  struct {
    const char* stored;
    const char* read;
  } const table[] = {
      {"", ""},
      {"plain", "plain"},
      {"%QX_T%", "home"},
      {"100%%", "100%"},
      {"a%b", "ab"},
      {"%", ""},
      {"%%", "%"},
      {"%%%", "%"},
      {"%%%%", "%%"},
      {"a%QX_UNSET%b", "ab"},
      {"%QX_T%%QX_T%", "homehome"},
      {"%QX_T%QX_T%", "homeQX_T"},
      {"%QX_T", "QX_T"},
      {"x%QX T%y", "xy"},
  };
  for (const auto& row : table) {
    ASSERT_TRUE(Set("e", row.stored, REG_EXPAND_SZ));
    EXPECT_EQ(Text("e"), row.read) << row.stored;
    ASSERT_TRUE(Set("e", row.stored, REG_SZ));
    EXPECT_EQ(Text("e"), row.stored);
  }
  EXPECT_EQ(Dump(*handle_.CurrentKey()).substr(0, 15), "bin=b=01 02 03 ");
}

TEST_F(RegistryValues, HomeIsExpanded) {
  const ScopedEnv home("HOME", "/home/agent");
  ASSERT_TRUE(Set("e", "%HOME%/x", REG_EXPAND_SZ));
  EXPECT_EQ(Text("e"), "/home/agent/x");
}

TEST_F(RegistryValues, ExpansionCanBeSwitchedOff) {
  handle_.SetExpand(false);
  EXPECT_EQ(Text("exp"), "%QX_T%/x");
  EXPECT_EQ(handle_.ValueSize(), 9U);
}

TEST_F(RegistryValues, StringQueryReadsOnlyTheTwoStringTypes) {
  const ScopedEnv variable("QX_T", nullptr);
  EXPECT_EQ(Text("sz"), "abc");
  EXPECT_EQ(Text("exp"), "/x");
  for (const char* name : {"num", "bin", "none", "sub", "missing"}) EXPECT_EQ(Text(name), "61");
}

TEST_F(RegistryValues, NumberQueryReadsEveryValueOfFourBytes) {
  unsigned number = 0;
  EXPECT_EQ(handle_.QueryValue(&number, "num"), 0);
  EXPECT_EQ(static_cast<int>(number), -5);
  EXPECT_EQ(handle_.QueryValue(&number, "bin"), ENODATA);
  EXPECT_EQ(handle_.Status(), ENODATA);
  EXPECT_EQ(handle_.QueryValue(&number, "missing"), ENODATA);
  EXPECT_EQ(static_cast<int>(number), -5);
  ASSERT_TRUE(Set("four", std::string_view("\1\0\0\0", 4), REG_BINARY));
  EXPECT_EQ(handle_.QueryValue(&number, "four"), 0);
  EXPECT_EQ(handle_.Status(), 0);
  EXPECT_EQ(number, 1U);
}

TEST_F(RegistryValues, NumberQueryWithoutAPointerReadsTheValueAndFindsNoData) {
  EXPECT_EQ(handle_.QueryValue(static_cast<unsigned*>(nullptr), "num"), ENODATA);
  EXPECT_EQ(handle_.Status(), ENODATA);
  EXPECT_EQ(handle_.ValueSize(), 4U);
  EXPECT_EQ(handle_.ValueType(), REG_DWORD);
}

TEST_F(RegistryValues, QuirkStringOfThreeCharactersIsANumberToo) {
  unsigned number = 0;
  EXPECT_EQ(handle_.QueryValue(&number, "sz"), 0);
  EXPECT_EQ(std::memcmp(&number, "abc", 4), 0);
  const ScopedEnv variable("QX_T", "12");  // expanded, "12/x" is four characters without the NUL
  EXPECT_EQ(handle_.QueryValue(&number, "exp"), 0);
  EXPECT_EQ(std::memcmp(&number, "12/x", 4), 0);
}

TEST_F(RegistryValues, QueryIntoABufferNeedsSpaceForTheNul) {
  char buffer[8] = "#######";
  unsigned count = 3;
  EXPECT_EQ(handle_.QueryValue(buffer, "sz", &count), ERANGE);
  EXPECT_EQ(handle_.Status(), ERANGE);
  EXPECT_STREQ(buffer, "abc####");  // no NUL
  EXPECT_EQ(count, 3U);
  count = 4;
  EXPECT_EQ(handle_.QueryValue(buffer, "sz", &count), 0);
  EXPECT_EQ(handle_.Status(), 0);
  EXPECT_STREQ(buffer, "abc");
  EXPECT_EQ(count, 3U);
  count = 0;
  EXPECT_EQ(handle_.QueryValue(buffer, "sz", &count), ERANGE);
  EXPECT_EQ(handle_.QueryValue(buffer, "sz", 2U), ERANGE);
  EXPECT_EQ(handle_.QueryValue(buffer, "sz", 8U), 0);
}

TEST_F(RegistryValues, QueryWithoutABufferReturnsTheNumberOfBytes) {
  unsigned count = 0;
  EXPECT_EQ(handle_.QueryValue(static_cast<char*>(nullptr), "sz", &count), 0);
  EXPECT_EQ(count, 4U);
}

TEST_F(RegistryValues, QueryIntoABufferWithoutACount) {
  char buffer[8];
  EXPECT_EQ(handle_.QueryValue(buffer, "sz", static_cast<unsigned*>(nullptr)), ERANGE);
  EXPECT_EQ(handle_.QueryValue(buffer, "num", static_cast<unsigned*>(nullptr)), ENODATA);  // the type comes first
}

TEST_F(RegistryValues, QueriesWithoutAKeyAreInvalidUnlessANodeIsGiven) {
  CRegistry closed;
  unsigned number = 0;
  std::string text;
  char buffer[8];
  unsigned count = sizeof buffer;
  EXPECT_EQ(closed.QueryValue(&number, "num"), EINVAL);
  EXPECT_EQ(closed.QueryValue(text, "sz"), EINVAL);
  EXPECT_EQ(closed.QueryValue(buffer, "sz", &count), EINVAL);
  EXPECT_EQ(closed.QueryValue(static_cast<unsigned*>(nullptr), "num"), EINVAL);
  EXPECT_EQ(closed.QueryValue(&number, "num", handle_.CurrentKey()), 0);
  EXPECT_EQ(closed.QueryValue(text, "sz", handle_.CurrentKey()), 0);
  EXPECT_EQ(closed.QueryValue(buffer, "sz", &count, handle_.CurrentKey()), 0);
}

// Name and data of every value of a type, as one text.
std::string List(CRegistry& handle, unsigned type) {
  std::string list;
  for (unsigned i = 0;; ++i) {
    char name[32];
    unsigned char data[32] = "";
    unsigned name_length = sizeof name;
    unsigned data_length = sizeof data;
    if (handle.EnumVal(name, &name_length, i, type, data, &data_length) != 0) return list;
    EXPECT_EQ(name_length, std::strlen(name));
    list += std::string(name) + "(" + std::string(reinterpret_cast<const char*>(data), data_length) + ")";
  }
}

TEST_F(RegistryValues, EnumerationListsAllValuesOrThoseOfOneTypeInByteOrder) {
  const ScopedEnv variable("QX_T", "h");
  EXPECT_EQ(List(handle_, 999), "bin()exp(h/x)none()num(\xFB\xFF\xFF\xFF)sz(abc)");
  EXPECT_EQ(List(handle_, REG_SZ), "sz(abc)");
  EXPECT_EQ(List(handle_, REG_EXPAND_SZ), "exp(h/x)");
  EXPECT_EQ(List(handle_, REG_BINARY), "bin()none()");  // binary data is never returned
  EXPECT_EQ(List(handle_, REG_DWORD), "num(\xFB\xFF\xFF\xFF)");
  EXPECT_EQ(List(handle_, 0), "");
}

TEST_F(RegistryValues, EnumeratedNumberNeedsFourBytes) {
  char name[8];
  unsigned name_length = sizeof name;
  unsigned char data[4] = {9, 9, 9, 9};
  unsigned data_length = 3;
  EXPECT_EQ(handle_.EnumVal(name, &name_length, 0, REG_DWORD, data, &data_length), 0);
  EXPECT_EQ(data_length, 0U);
  EXPECT_EQ(data[0], 9);
}

TEST_F(RegistryValues, EnumeratedStringThatDoesNotFitIsCutAndTheLengthStays) {
  char name[8];
  unsigned name_length = sizeof name;
  unsigned char data[4] = "###";
  unsigned data_length = 2;
  EXPECT_EQ(handle_.EnumVal(name, &name_length, 0, REG_SZ, data, &data_length), 0);
  EXPECT_EQ(data_length, 2U);
  EXPECT_STREQ(reinterpret_cast<const char*>(data), "ab#");
}

TEST_F(RegistryValues, EnumerationWithoutDataSetsItsLengthToZero) {
  char name[2];
  unsigned name_length = sizeof name;
  unsigned data_length = 9;
  EXPECT_EQ(handle_.EnumVal(name, &name_length, 0, REG_SZ, nullptr, &data_length), 0);
  EXPECT_STREQ(name, "s");
  EXPECT_EQ(name_length, 1U);
  EXPECT_EQ(data_length, 0U);
  unsigned char data[4] = "###";
  name_length = 0;
  EXPECT_EQ(handle_.EnumVal(name, &name_length, 0, REG_SZ, data, nullptr), 0);
  EXPECT_EQ(name_length, 0U);
  EXPECT_STREQ(name, "s");
  EXPECT_STREQ(reinterpret_cast<const char*>(data), "###");
  EXPECT_EQ(handle_.EnumVal(name, 2U, 0, REG_SZ, data, 4U), 0);  // lengths by value
  EXPECT_STREQ(reinterpret_cast<const char*>(data), "abc");
}

TEST_F(RegistryValues, EnumerationOfValuesChecksItsArguments) {
  char name[8];
  unsigned length = sizeof name;
  CRegistry closed;
  EXPECT_EQ(closed.EnumVal(name, &length, 0, 999, nullptr, nullptr), EINVAL);
  EXPECT_EQ(handle_.EnumVal(nullptr, &length, 0, 999, nullptr, nullptr), EINVAL);
  EXPECT_EQ(handle_.EnumVal(name, nullptr, 0, 999, nullptr, nullptr), EINVAL);
  EXPECT_EQ(handle_.EnumVal(name, &length, 5, 999, nullptr, nullptr), ENODATA);
}

TEST_F(RegistryValues, SetStoresEveryTypeAndReplacesAnyEntry) {
  EXPECT_TRUE(Set("v", "text", REG_SZ));
  EXPECT_TRUE(Set("v", std::string_view("\0\xFF", 2), REG_BINARY));
  EXPECT_TRUE(Set("v", "\1\2\3\4", REG_DWORD));
  EXPECT_TRUE(Set("v", "%X%", REG_EXPAND_SZ));
  EXPECT_TRUE(Set("num", "", REG_SZ));
  EXPECT_TRUE(Set("sz", "", REG_BINARY));
  EXPECT_TRUE(Set("sub", "no longer a key", REG_SZ));
  EXPECT_EQ(Dump(*handle_.CurrentKey()),
            "bin=b=01 02 03 \nexp=es=%QX_T%/x\nnone=b=\nnum=s=\nsub=s=no longer a key\nsz=b=\nv=es=%X%\n\n");
}

TEST_F(RegistryValues, SetThroughANodeLeavesTheCurrentKeyUnchanged) {
  CRegistry closed;
  EXPECT_TRUE(closed.SetValue("n", reinterpret_cast<const unsigned char*>("x"), 1, REG_SZ, CRegistry::MLocalMachine));
  EXPECT_EQ(handle_.GetValueSize("n"), 0U);
  EXPECT_EQ(handle_.GetValueSize("n", CRegistry::MLocalMachine), 2U);
}

TEST_F(RegistryValues, StringIsTheFirstBytesOfTheDataUpToItsNul) {
  EXPECT_TRUE(handle_.SetValue("v", reinterpret_cast<const unsigned char*>("abcdef"), 3, REG_SZ));
  EXPECT_EQ(Text("v"), "abc");
  EXPECT_TRUE(Set("v", std::string_view("ab\0cd", 5), REG_SZ));
  EXPECT_EQ(Text("v"), "ab");
  EXPECT_EQ(handle_.GetValueSize("v"), 3U);
}

TEST_F(RegistryValues, QuirkRefusedSetStillMarksTheTreeAndSavesIt) {
  const std::string tree = Tree();
  EXPECT_FALSE(Set("num", "\1\2", REG_DWORD));
  EXPECT_TRUE(CRegistry::MIsDirty);
  EXPECT_EQ(Tree(), tree);
  { const CRegistry other; }
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_TRUE(qx::test::Exists(File("registry.old")));
}

TEST_F(RegistryValues, SetRefusesUnknownTypesAndMissingData) {
  for (const unsigned type : {0U, 5U, 666U, 999U, 0xFFFFFFFFU}) EXPECT_FALSE(Set("v", "text", type)) << type;
  for (const unsigned type : {1U, 2U, 3U, 4U}) EXPECT_FALSE(handle_.SetValue("v", nullptr, 4, type)) << type;
  EXPECT_FALSE(handle_.SetValue("v", nullptr, 0, REG_DWORD));
  EXPECT_TRUE(handle_.SetValue("v", nullptr, 0, REG_SZ));
  EXPECT_TRUE(handle_.SetValue("w", nullptr, 0, REG_BINARY));
  EXPECT_EQ(Text("v"), "");
}

TEST_F(RegistryValues, SetWithoutANameStoresNothingAndIsTrue) {
  const std::string tree = Tree();
  EXPECT_TRUE(Set(nullptr, "text", REG_SZ));
  EXPECT_FALSE(Set(nullptr, "text", 5));  // the type is checked first
  EXPECT_EQ(Tree(), tree);
  EXPECT_TRUE(CRegistry::MIsDirty);
}

TEST_F(RegistryValues, SetWithoutAKeyIsRefusedAndLeavesTheTreeClean) {
  CRegistry closed;
  EXPECT_FALSE(closed.SetValue("v", reinterpret_cast<const unsigned char*>("x"), 1, REG_SZ));
  EXPECT_EQ(closed.SetValue("v", 1U), EINVAL);
  EXPECT_EQ(closed.SetValue("v", "x"), EINVAL);
  EXPECT_FALSE(CRegistry::MIsDirty);
}

TEST_F(RegistryValues, ShorthandsStoreNumbersAndStrings) {
  EXPECT_EQ(handle_.SetValue("n", 0xFFFFFFFFU), 0);
  EXPECT_EQ(handle_.SetValue("s", "text"), 0);
  EXPECT_EQ(handle_.SetValue("s2", static_cast<const char*>(nullptr)), EINVAL);
  EXPECT_EQ(Text("s"), "text");
  unsigned number = 0;
  EXPECT_EQ(handle_.QueryValue(&number, "n"), 0);
  EXPECT_EQ(number, 0xFFFFFFFFU);
  EXPECT_EQ(handle_.GetValueSize("s2"), 0U);
}

TEST_F(RegistryValues, DeleteValueRemovesAnyEntry) {
  for (const char* name : {"sz", "num", "bin", "exp", "none", "sub"}) {
    EXPECT_EQ(handle_.DeleteValue(name), 0);
    EXPECT_EQ(handle_.CurrentKey()->Find(name), nullptr);
  }
  EXPECT_EQ(Dump(*handle_.CurrentKey()), "\n");
  EXPECT_EQ(handle_.DeleteValue("sz"), 0);  // it does not exist any more
}

TEST_F(RegistryValues, DeleteValueAlwaysMarksTheTree) {
  CRegistry closed;
  EXPECT_EQ(closed.DeleteValue("sz"), EINVAL);
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_EQ(handle_.DeleteValue(nullptr), EINVAL);
  EXPECT_TRUE(CRegistry::MIsDirty);
  CRegistry::MIsDirty = false;
  EXPECT_EQ(handle_.DeleteValue("missing"), 0);
  EXPECT_TRUE(CRegistry::MIsDirty);
}

}  // namespace
