#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::Dump;
using qx::test::RegistryTest;

class RegistryKeys : public RegistryTest {
 protected:
  RegistryKeys() { Given("[HKEY_LOCAL_MACHINE]\n[A]\nv=s=text\n[B]\n[C]\nx=d=1\n\n\n[b]\n\n\n[a]\n\n\n\n"); }

  // Opens this path below HKEY_LOCAL_MACHINE, and returns the key path; "-1" if the open fails.
  static std::string Opened(const char* path) {
    CRegistry handle(path, CRegistry::MLocalMachine, 0);
    return handle.Status() == 0 ? handle.KeyPath() : std::to_string(handle.Status());
  }
};

TEST_F(RegistryKeys, BothSeparatorsOpenTheSameKey) {
  const CRegistry first("A\\B/C", CRegistry::MLocalMachine, 0);
  const CRegistry second("A/B/C", CRegistry::MLocalMachine, 0);
  const CRegistry third("A/B\\C", CRegistry::MLocalMachine, 0);
  ASSERT_NE(first.CurrentKey(), nullptr);
  EXPECT_EQ(first.CurrentKey(), second.CurrentKey());
  EXPECT_EQ(first.CurrentKey(), third.CurrentKey());
  EXPECT_STREQ(first.KeyPath(), "A/B/C");
}

TEST_F(RegistryKeys, PathsOpenTheKeysOfTheirNames) {
  EXPECT_EQ(Opened(""), "");
  EXPECT_EQ(Opened("A"), "A");
  EXPECT_EQ(Opened("A\\"), "A/");
  EXPECT_EQ(Opened("A/B\\C/"), "A/B/C/");
  EXPECT_EQ(Opened("a"), "a");
  EXPECT_EQ(Opened("A\\\\B"), "-1");  // the empty name in between is not a key here
  EXPECT_EQ(Opened("\\A"), "-1");
  EXPECT_EQ(Opened("\\"), "-1");
  EXPECT_EQ(Opened("AB"), "-1");
  EXPECT_EQ(Opened("A\\c"), "-1");
  EXPECT_EQ(Opened("A\\v"), "-1");  // a value is not a key
  EXPECT_EQ(Opened("A\\v\\B"), "-1");
  EXPECT_EQ(Opened(nullptr), "-1");
}

TEST_F(RegistryKeys, EmptyPathMakesTheStartKeyCurrent) {
  CRegistry handle;
  EXPECT_EQ(handle.Open("", CRegistry::MLocalMachine, 0), 0);
  EXPECT_EQ(handle.CurrentKey(), CRegistry::MLocalMachine);
  EXPECT_EQ(handle.Open("", nullptr, 0), 0);
  EXPECT_EQ(handle.CurrentKey(), &CRegistry::MRoot);
}

TEST_F(RegistryKeys, PathBelowTheRootMayBeginWithAHive) {
  CRegistry handle;
  EXPECT_EQ(handle.Open("HKEY_LOCAL_MACHINE\\A", nullptr, 0), 0);
  EXPECT_EQ(handle.Open("HKEY_USERS", nullptr, 0), -1);
}

TEST_F(RegistryKeys, FailedOpenLeavesNoKeyAndNoPath) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  EXPECT_EQ(handle.Open("nowhere", CRegistry::MLocalMachine, 0), -1);
  EXPECT_EQ(handle.Status(), -1);
  EXPECT_EQ(handle.CurrentKey(), nullptr);
  EXPECT_EQ(handle.KeyPath(), nullptr);
  EXPECT_EQ(handle.Open("A", CRegistry::MLocalMachine, 0), 0);
  EXPECT_EQ(handle.Status(), 0);
}

TEST_F(RegistryKeys, OwnPathCanBeOpenedAgain) {
  CRegistry handle("A\\B", CRegistry::MLocalMachine, 0);
  EXPECT_EQ(handle.Open(handle.KeyPath(), CRegistry::MLocalMachine, 0), 0);
  EXPECT_STREQ(handle.KeyPath(), "A/B");
}

TEST_F(RegistryKeys, CloseAndKeepDropTheKeyAndCloseKeepsThePath) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  CRegistryNode* key = handle.CurrentKey();
  EXPECT_TRUE(handle.Close());
  EXPECT_FALSE(handle.Close());
  EXPECT_STREQ(handle.KeyPath(), "A");
  EXPECT_EQ(handle.Open("A", CRegistry::MLocalMachine, 0), 0);
  EXPECT_EQ(handle.KeepKeyHandle(), key);
  EXPECT_EQ(handle.CurrentKey(), nullptr);
  EXPECT_EQ(handle.KeepKeyHandle(), nullptr);
}

TEST_F(RegistryKeys, CopyHasTheKeyAndPathButNotTheValue) {
  CRegistry original("A", CRegistry::MLocalMachine, 0);
  ASSERT_NE(original.GetValue("v"), nullptr);
  CRegistry copy(original);
  EXPECT_EQ(copy.CurrentKey(), original.CurrentKey());
  EXPECT_STREQ(copy.KeyPath(), "A");
  EXPECT_NE(copy.KeyPath(), original.KeyPath());
  EXPECT_EQ(copy.ValueSize(), 0U);
  EXPECT_EQ(copy.ValueType(), 0);
}

TEST_F(RegistryKeys, AssignmentResetsTheTargetButKeepsItsReadValue) {
  CRegistry source("A\\B", CRegistry::MLocalMachine, 0);
  CRegistry target("A", CRegistry::MLocalMachine, 0);
  const unsigned char* text = target.GetValue("v");
  target.SetExpand(false);
  target = source;
  EXPECT_EQ(target.CurrentKey(), source.CurrentKey());
  EXPECT_STREQ(target.KeyPath(), "A/B");
  EXPECT_EQ(target.ValueSize(), 0U);
  EXPECT_STREQ(reinterpret_cast<const char*>(text), "text");  // until the next read
}

TEST_F(RegistryKeys, AssignmentToItselfChangesNothing) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  ASSERT_NE(handle.GetValue("v"), nullptr);
  CRegistry& same = handle;
  handle = same;
  EXPECT_EQ(handle.ValueSize(), 5U);
  EXPECT_STREQ(handle.KeyPath(), "A");
}

TEST_F(RegistryKeys, AssignmentFromAHandleWithoutAPath) {
  CRegistry empty;
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  handle = empty;
  EXPECT_EQ(handle.CurrentKey(), nullptr);
  EXPECT_EQ(handle.KeyPath(), nullptr);
}

TEST_F(RegistryKeys, CreateKeyMakesMissingKeysAndOpensTheLast) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  EXPECT_EQ(handle.CreateKey(nullptr, "B\\New/Deep\\", false, 0), 0);
  EXPECT_STREQ(handle.KeyPath(), "A");
  EXPECT_TRUE(CRegistry::MIsDirty);
  CRegistry opened("A\\B\\New\\Deep", CRegistry::MLocalMachine, 0);
  EXPECT_NE(opened.CurrentKey(), nullptr);
  EXPECT_EQ(opened.CurrentKey(), handle.CurrentKey());
}

TEST_F(RegistryKeys, CreateKeyOfAnExistingPathOnlyOpensIt) {
  CRegistry handle;
  EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, "A\\B", false, 0), 0);
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, "", false, 0), 0);
  EXPECT_EQ(handle.CurrentKey(), CRegistry::MLocalMachine);
}

TEST_F(RegistryKeys, CreateKeyWithTwoSeparatorsInARowMakesAKeyWithAnEmptyName) {
  CRegistry handle;
  EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, "N\\\\B", false, 0), 0);
  const CRegistry key("N", CRegistry::MLocalMachine, 0);
  ASSERT_NE(key.CurrentKey(), nullptr);
  EXPECT_EQ(Dump(*key.CurrentKey()), "[]\n[B]\n\n\n\n");
  EXPECT_EQ(Opened("N\\\\B"), "N//B");
}

TEST_F(RegistryKeys, CreateKeyThroughAValueFailsAndCreatesNothing) {
  CRegistry handle("A\\B", CRegistry::MLocalMachine, 0);
  CRegistryNode* before = handle.CurrentKey();
  const std::string tree = Tree();
  EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, "A\\v\\X", false, 0), -1);
  EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, "A\\B\\C\\x", false, 0), -1);  // a number, even 0, is a value
  EXPECT_EQ(handle.CurrentKey(), before);
  EXPECT_EQ(Tree(), tree);
}

TEST_F(RegistryKeys, CreateKeyWithoutAStartOrAPathFails) {
  CRegistry handle;
  EXPECT_EQ(handle.CreateKey(nullptr, "X", false, 0), -1);
  EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, nullptr, false, 0), -1);
}

TEST_F(RegistryKeys, CreateKeyFillsTheEntryOfAMissingHive) {
  Given("x=d=1\n\n");
  CRegistry handle;
  ASSERT_EQ(CRegistry::MRoot.Entries().size(), 6U);
  EXPECT_EQ(handle.CreateKey(&CRegistry::MRoot, "HKEY_LOCAL_MACHINE\\K", false, 0), 0);
  EXPECT_EQ(CRegistry::MRoot.Entries().size(), 6U);
  EXPECT_EQ(Tree(), "x=d=1\n[HKEY_LOCAL_MACHINE]\n[K]\n\n\n\n");
}

TEST_F(RegistryKeys, SubkeysAreCountedAndListedInByteOrder) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  unsigned count = 9;
  EXPECT_EQ(handle.NoOfSubKeys(&count), 0);
  EXPECT_EQ(count, 2U);
  std::string names;
  char name[16];
  for (unsigned i = 0;; ++i) {
    unsigned length = sizeof name;
    unsigned class_length = 7;
    char class_name[4] = "cls";
    const long result = handle.EnumKey(name, &length, i, class_name, &class_length);
    if (result != 0) {
      EXPECT_EQ(result, ENODATA);
      break;
    }
    EXPECT_EQ(length, 1U);
    EXPECT_EQ(class_length, 0U);
    EXPECT_STREQ(class_name, "cls");
    names += name;
  }
  EXPECT_EQ(names, "Bb");
}

TEST_F(RegistryKeys, CountWithoutAPointerOrAKey) {
  CRegistry handle;
  unsigned count = 9;
  EXPECT_EQ(handle.NoOfSubKeys(nullptr), EINVAL);
  EXPECT_EQ(handle.NoOfSubKeys(&count), EINVAL);
  EXPECT_EQ(count, 0U);
}

TEST_F(RegistryKeys, EnumeratedNameIsCutToItsBuffer) {
  CRegistry handle;
  ASSERT_EQ(handle.CreateKey(CRegistry::MLocalMachine, "E\\abcdef", false, 0), 0);
  ASSERT_EQ(handle.Open("E", CRegistry::MLocalMachine, 0), 0);
  for (const unsigned size : {1U, 3U, 6U, 7U, 100U}) {
    char name[101] = "################";
    unsigned length = size;
    EXPECT_EQ(handle.EnumKey(name, &length, 0, nullptr, nullptr), 0);
    EXPECT_EQ(std::string(name), std::string("abcdef").substr(0, size - 1));
    EXPECT_EQ(length, std::min(size - 1, 6U));
  }
  char name[3] = {'#', '#', '#'};
  unsigned length = 0;
  EXPECT_EQ(handle.EnumKey(name, &length, 0, nullptr, nullptr), 0);
  EXPECT_EQ(length, 0U);
  EXPECT_EQ(name[0], '#');
  EXPECT_EQ(handle.EnumKey(name, 3U, 0, nullptr, 0U), 0);  // lengths by value
  EXPECT_STREQ(name, "ab");
}

TEST_F(RegistryKeys, EnumerationWithoutKeyNameOrLengthIsInvalid) {
  CRegistry handle;
  char name[4];
  unsigned length = 4;
  EXPECT_EQ(handle.EnumKey(name, &length, 0, nullptr, nullptr), EINVAL);
  ASSERT_EQ(handle.Open("A", CRegistry::MLocalMachine, 0), 0);
  EXPECT_EQ(handle.EnumKey(nullptr, &length, 0, nullptr, nullptr), EINVAL);
  EXPECT_EQ(handle.EnumKey(name, nullptr, 0, nullptr, nullptr), EINVAL);
}

TEST_F(RegistryKeys, DeleteKeyRemovesTheSubkeyWithEverythingBelowIt) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  EXPECT_EQ(handle.DeleteKey("B"), 0);
  EXPECT_TRUE(CRegistry::MIsDirty);
  EXPECT_EQ(Dump(*handle.CurrentKey()), "v=s=text\n[b]\n\n\n");
  EXPECT_EQ(handle.CurrentKey()->Find("B"), nullptr);
  EXPECT_EQ(Opened("A\\B"), "-1");
}

TEST_F(RegistryKeys, DeleteKeyOfAnotherEntryIsInvalidAndLeavesTheTreeClean) {
  CRegistry handle;
  EXPECT_EQ(handle.DeleteKey("A"), EINVAL);
  ASSERT_EQ(handle.Open("", CRegistry::MLocalMachine, 0), 0);
  EXPECT_EQ(handle.DeleteKey(nullptr), EINVAL);
  EXPECT_EQ(handle.DeleteKey("nowhere"), EINVAL);
  EXPECT_EQ(handle.DeleteKey("A\\B"), EINVAL);  // only direct children
  ASSERT_EQ(handle.Open("A", CRegistry::MLocalMachine, 0), 0);
  EXPECT_EQ(handle.DeleteKey("v"), EINVAL);
  EXPECT_FALSE(CRegistry::MIsDirty);
}

TEST_F(RegistryKeys, DeletedHiveIsNoLongerARoot) {
  CRegistry handle;
  ASSERT_EQ(handle.Open("", nullptr, 0), 0);
  EXPECT_EQ(handle.DeleteKey("HKEY_LOCAL_MACHINE"), 0);
  EXPECT_EQ(CRegistry::MLocalMachine, nullptr);
  const CRegistry next;  // adds the entries of the hives again
  EXPECT_EQ(Tree(), "\n");
  EXPECT_EQ(handle.DeleteKey("HKEY_LOCAL_MACHINE"), EINVAL);  // an entry without a key
}

TEST_F(RegistryKeys, HiveReplacedOrRemovedAsAValueIsNoLongerARoot) {
  CRegistry handle;
  ASSERT_EQ(handle.Open("", nullptr, 0), 0);
  EXPECT_EQ(handle.SetValue("HKEY_LOCAL_MACHINE", 1U), 0);
  EXPECT_EQ(CRegistry::MLocalMachine, nullptr);
  Restart();
  CRegistry again;
  ASSERT_EQ(again.Open("", nullptr, 0), 0);
  ASSERT_NE(CRegistry::MLocalMachine, nullptr);
  EXPECT_EQ(again.DeleteValue("HKEY_LOCAL_MACHINE"), 0);
  EXPECT_EQ(CRegistry::MLocalMachine, nullptr);
}

class RegistryPointers : public RegistryTest {
 protected:
  static constexpr const char* kPointers =
      "SYSTEM\\CurrentControlSet\\Control\\UUID\\C3681B60-0D26-11D3-8319-00A0C9B61E25";

  RegistryPointers() { Given("[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n[Suite]\nx=d=1\n\n\n\n\n"); }

  long OpenPointer(const char* target) {
    CRegistry handle;
    EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, "P", false, 0), 0);
    EXPECT_EQ(handle.SetValue("to", target), 0);
    const long result = handle.OpenPointerKey("P", "to", CRegistry::MLocalMachine, 0);
    EXPECT_EQ(result, handle.Status());
    EXPECT_EQ(result == 0, handle.CurrentKey() != nullptr);
    if (result == 0) path_ = handle.KeyPath();
    return result;
  }
  std::string path_;
};

TEST_F(RegistryPointers, OpenTheKeyWhoseFullPathIsTheValue) {
  EXPECT_EQ(OpenPointer("HKEY_LOCAL_MACHINE\\SOFTWARE\\Suite"), 0);
  EXPECT_EQ(path_, "HKEY_LOCAL_MACHINE/SOFTWARE/Suite");
  EXPECT_EQ(OpenPointer("hkey_local_machine\\SOFTWARE/Suite"), 0);
  EXPECT_EQ(OpenPointer("Hkey_Local_Machine/SOFTWARE\\Suite"), 0);
  EXPECT_EQ(OpenPointer("HKEY_LOCAL_MACHINE\\"), 0);
}

TEST_F(RegistryPointers, FailIfTheValueIsNotAPath) {
  EXPECT_EQ(OpenPointer(""), -1);
  EXPECT_EQ(OpenPointer("HKEY_LOCAL_MACHINE"), -1);
  EXPECT_EQ(OpenPointer("HKEY_LOCAL_MACHINE\\software"), -1);
  EXPECT_EQ(OpenPointer("\\HKEY_LOCAL_MACHINE\\SOFTWARE"), -1);
  CRegistry handle;
  EXPECT_EQ(handle.OpenPointerKey("P", "missing", CRegistry::MLocalMachine, 0), -1);
  EXPECT_EQ(handle.OpenPointerKey("P", nullptr, CRegistry::MLocalMachine, 0), -1);
  EXPECT_EQ(handle.OpenPointerKey("nowhere", "to", CRegistry::MLocalMachine, 0), -1);
  EXPECT_EQ(handle.OpenPointerKey(nullptr, "to", CRegistry::MLocalMachine, 0), -1);
}

TEST_F(RegistryPointers, AreOnlyStrings) {
  CRegistry handle(CRegistry::MLocalMachine);
  const std::string path = "HKEY_LOCAL_MACHINE\\SOFTWARE";  // a block has no NUL at its end
  const auto* bytes = reinterpret_cast<const unsigned char*>(path.data());
  ASSERT_TRUE(handle.SetValue("to", bytes, static_cast<unsigned>(path.size()), REG_BINARY));
  EXPECT_EQ(handle.OpenPointerKey("", "to", CRegistry::MLocalMachine, 0), -1);
  ASSERT_TRUE(
      handle.SetValue("to", bytes, static_cast<unsigned>(path.size()), REG_EXPAND_SZ, CRegistry::MLocalMachine));
  EXPECT_EQ(handle.OpenPointerKey("", "to", CRegistry::MLocalMachine, 0), 0);
}

TEST_F(RegistryPointers, OfProductsAreInOneKey) {
  CRegistry handle;
  EXPECT_EQ(handle.OpenUUIDPointer("Suite Pointer", CRegistry::MLocalMachine, 0, nullptr, false), -1);
  ASSERT_EQ(handle.CreateKey(CRegistry::MLocalMachine, kPointers, false, 0), 0);
  ASSERT_EQ(handle.SetValue("Suite Pointer", "HKEY_LOCAL_MACHINE\\SOFTWARE\\Suite"), 0);
  EXPECT_EQ(handle.OpenUUIDPointer("Suite Pointer", CRegistry::MLocalMachine, 0, nullptr, false), 0);
  EXPECT_EQ(handle.GetValueSize("x"), 4U);
  std::string root = "kept";
  EXPECT_TRUE(CRegistry::GetProductRegistryRoot(root, "Suite Pointer"));
  EXPECT_EQ(root, "HKEY_LOCAL_MACHINE\\SOFTWARE\\Suite");
}

TEST_F(RegistryPointers, MissingProductRootLeavesTheOutputUnchanged) {
  std::string root = "kept";
  EXPECT_FALSE(CRegistry::GetProductRegistryRoot(root, "Suite Pointer"));
  CRegistry handle;
  ASSERT_EQ(handle.CreateKey(CRegistry::MLocalMachine, kPointers, false, 0), 0);
  ASSERT_EQ(handle.SetValue("number", 5U), 0);
  EXPECT_FALSE(CRegistry::GetProductRegistryRoot(root, "Suite Pointer"));
  EXPECT_FALSE(CRegistry::GetProductRegistryRoot(root, "number"));
  EXPECT_FALSE(CRegistry::GetProductRegistryRoot(root, nullptr));
  EXPECT_EQ(root, "kept");
}

}  // namespace
