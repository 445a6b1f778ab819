// Tests loads and the hives.
#include "registry/Registry.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::Dump;
using qx::test::kExample;
using qx::test::ReadFile;
using qx::test::RegistryTest;

class Registry : public RegistryTest {};

// A static object of a program that is built before all others and destroyed after them.
class EarlyUser {
 public:
  EarlyUser() {
    CRegistry handle;
    worked_ = handle.Open("", nullptr, 0) == 0 && handle.CreateKey(nullptr, "early", false, 0) == 0 &&
              handle.SetValue("x", 1U) == 0 && handle.GetValueSize("x") == 4;
    CRegistry::MIsDirty = false;  // nothing may be saved into the system's directory
  }
  ~EarlyUser() { const CRegistry handle; }
  [[nodiscard]] bool HasWorked() const { return worked_; }

 private:
  bool worked_ = false;
};

__attribute__((init_priority(103))) EarlyUser early_user;

TEST(RegistryStatics, AreUsableInOtherStaticObjects) { EXPECT_TRUE(early_user.HasWorked()); }

constexpr std::string_view kSmallTree = "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nx=d=1\n\n\n\n";

TEST_F(Registry, NothingIsLoadedBeforeTheFirstHandle) {
  EXPECT_FALSE(CRegistry::MIsSetup);
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_EQ(CRegistry::MLocalMachine, nullptr);
  EXPECT_EQ(CRegistry::MPRegistry, "");
  EXPECT_EQ(Tree(), "\n");
}

TEST_F(Registry, FirstHandleLoadsTheTreeAndSetsTheHives) {
  Given("[HKEY_USERS]\n\n[HKEY_LOCAL_MACHINE]\nx=d=1\n\n\n");
  const CRegistry handle;
  EXPECT_TRUE(CRegistry::MIsSetup);
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_EQ(Dump(*CRegistry::MLocalMachine), "x=d=1\n\n");
  EXPECT_EQ(Dump(*CRegistry::MUsers), "\n");
  EXPECT_EQ(CRegistry::MCurrentUser, nullptr);
  EXPECT_EQ(CRegistry::MClassesRoot, nullptr);
  EXPECT_EQ(CRegistry::MCurrentConfig, nullptr);
}

TEST_F(Registry, PathsAreTheDirectoryAndFourNames) {
  const CRegistry handle;
  EXPECT_EQ(CRegistry::MPRegistry, File("registry"));
  EXPECT_EQ(CRegistry::MPRegistryOld, File("registry.old"));
  EXPECT_EQ(CRegistry::MPRegistryTemp, File("registry.new"));
  EXPECT_EQ(CRegistry::MPRegistryDefault, File("registry.default"));
}

TEST_F(Registry, LaterHandlesDoNotReload) {
  Given(kSmallTree);
  { const CRegistry first; }
  Given("[HKEY_LOCAL_MACHINE]\ny=d=2\n\n\n");
  const CRegistry second;
  EXPECT_EQ(Tree(), kSmallTree);
}

TEST_F(Registry, MissingFileFallsBackToTheBackupAndThenToTheDefault) {
  Given("[HKEY_LOCAL_MACHINE]\nfrom=s=default\n\n\n", "registry.default");
  { const CRegistry handle; }
  EXPECT_EQ(Tree(), "[HKEY_LOCAL_MACHINE]\nfrom=s=default\n\n\n");
  Restart();
  Given("[HKEY_LOCAL_MACHINE]\nfrom=s=backup\n\n\n", "registry.old");
  { const CRegistry handle; }
  EXPECT_EQ(Tree(), "[HKEY_LOCAL_MACHINE]\nfrom=s=backup\n\n\n");
}

TEST_F(Registry, EmptyFileFallsBackToTheBackup) {
  Given("");
  Given(kSmallTree, "registry.old");
  const CRegistry handle;
  EXPECT_EQ(Tree(), kSmallTree);
}

TEST_F(Registry, FileOfSectionsWithoutValuesFallsBackToTheBackup) {
  Given("[HKEY_LOCAL_MACHINE]\n[A]\n\n\n[HKEY_USERS]\n\n\n");
  Given(kSmallTree, "registry.old");
  const CRegistry handle;
  // The entries of the failed file stay in the tree.
  EXPECT_EQ(Tree(), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nx=d=1\n\n\n[HKEY_USERS]\n\n\n");
}

TEST_F(Registry, QuirkTreeSavedWithoutValuesDoesNotLoadAgain) {
  Given(kSmallTree);
  {
    CRegistry handle("SOFTWARE", CRegistry::MLocalMachine, 0);
    EXPECT_EQ(handle.DeleteValue("x"), 0);
  }
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\n\n\n\n");
  Restart();
  const CRegistry handle;
  EXPECT_EQ(Tree(), kSmallTree);
}

TEST_F(Registry, TemporaryFileIsNeverRead) {
  Given(kSmallTree, "registry.new");
  const CRegistry handle;
  EXPECT_FALSE(CRegistry::MIsSetup);
}

TEST_F(Registry, EveryHandleRetriesUntilALoadSucceeds) {
  { const CRegistry handle; }
  EXPECT_FALSE(CRegistry::MIsSetup);
  Given(kSmallTree);
  { const CRegistry handle; }
  EXPECT_TRUE(CRegistry::MIsSetup);
  EXPECT_EQ(Tree(), kSmallTree);
}

TEST_F(Registry, HandleCanBeMadeOnAHiveBeforeTheFirstLoad) {
  Given(kSmallTree);
  const CRegistry handle(CRegistry::MLocalMachine);
  EXPECT_NE(handle.CurrentKey(), nullptr);
  EXPECT_EQ(handle.CurrentKey(), CRegistry::MLocalMachine);
  Restart();
  const CRegistry opened("SOFTWARE", CRegistry::MLocalMachine, 0);
  EXPECT_NE(opened.CurrentKey(), nullptr);
}

TEST_F(Registry, ForcedSetupMergesAndReplacesHivesWhole) {
  Given("[HKEY_LOCAL_MACHINE]\nold=d=1\n[A]\n\n\n[HKEY_USERS]\nkept=d=1\n\n\n");
  CRegistry handle(CRegistry::MLocalMachine);
  Given("[HKEY_LOCAL_MACHINE]\nnew=d=2\n\n\n");
  CRegistry::SetupTree(true);
  EXPECT_EQ(Tree(), "[HKEY_LOCAL_MACHINE]\nnew=d=2\n\n[HKEY_USERS]\nkept=d=1\n\n\n");
  EXPECT_EQ(handle.GetValueSize("new"), 4U);  // the hive's key is the same object
}

TEST_F(Registry, ForcedSetupThatFailsKeepsTheStateAndItsHives) {
  Given(kSmallTree);
  { const CRegistry handle; }
  unlink(File().c_str());
  CRegistry::SetupTree(true);
  EXPECT_TRUE(CRegistry::MIsSetup);
  EXPECT_EQ(Dump(*CRegistry::MLocalMachine), "[SOFTWARE]\nx=d=1\n\n\n");
}

TEST_F(Registry, HiveEntryThatIsAValueCountsAsAbsent) {
  Given("HKEY_LOCAL_MACHINE=s=text\nHKEY_USERS=d=5\nx=d=1\n\n");
  const CRegistry handle;
  EXPECT_TRUE(CRegistry::MIsSetup);
  EXPECT_EQ(CRegistry::MLocalMachine, nullptr);
  EXPECT_EQ(Tree(), "x=d=1\n\n");  // the entries are hives without keys now
}

TEST_F(Registry, HiveThatALaterFileMakesAValueIsNoLongerARoot) {
  Given(kSmallTree);
  { const CRegistry handle; }
  Given("HKEY_LOCAL_MACHINE=s=text\n\n");
  CRegistry::SetupTree(true);
  EXPECT_EQ(CRegistry::MLocalMachine, nullptr);
}

TEST_F(Registry, HandleWithoutHivesAddsFiveEmptyEntriesThatAreNotSaved) {
  Given("x=d=1\n\n");
  const CRegistry handle;
  const auto entries = CRegistry::MRoot.Entries();
  ASSERT_EQ(entries.size(), 6U);
  for (const char* name :
       {"HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER", "HKEY_USERS", "HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG"}) {
    const StrMapEntry* entry = CRegistry::MRoot.Find(name);
    ASSERT_NE(entry, nullptr) << name;
    EXPECT_EQ(entry->value.type, REG_NODE);
    EXPECT_EQ(entry->value.slot.pointer, nullptr);
  }
  EXPECT_EQ(Tree(), "x=d=1\n\n");
}

TEST_F(Registry, KeysMadeBeforeAnyLoadSurviveTheNextHandle) {
  CRegistry maker;
  ASSERT_EQ(maker.CreateKey(&CRegistry::MRoot, "HKEY_USERS\\A", false, 0), 0);
  ASSERT_EQ(maker.SetValue("x", 1U), 0);
  CRegistry::MIsDirty = false;  // nothing is saved, so nothing can be loaded
  const CRegistry other;
  EXPECT_EQ(Tree(), "[HKEY_USERS]\n[A]\nx=d=1\n\n\n\n");
}

TEST_F(Registry, ReadTreeRefusesANullPath) {
  CRegistryNode key;
  EXPECT_FALSE(CRegistry::ReadTree(nullptr, key));
  EXPECT_FALSE(CRegistry::ReadTree("", key));
}

TEST_F(Registry, ReadTreeMergesIntoAnyKey) {
  Given(kExample);
  CRegistryNode key;
  EXPECT_TRUE(CRegistry::ReadTree(File().c_str(), key));
  EXPECT_EQ(Dump(key), "[HKEY_LOCAL_MACHINE]\n[SOFTWARE]\nBlob=b=0a ff \nCount=d=-5\nName=s=some text\n\n\n\n");
}

TEST_F(Registry, DirectoryOrFifoInPlaceOfTheFileFallsBack) {
  Given(kSmallTree, "registry.default");
  ASSERT_EQ(mkdir(File().c_str(), 0755), 0);
  ASSERT_EQ(mkfifo(File("registry.old").c_str(), 0644), 0);  // nobody writes into it
  const CRegistry handle;
  EXPECT_EQ(Tree(), kSmallTree);
}

TEST_F(Registry, HugeLinesAreSplitAndRead) {
  Given("x=s=" + std::string(5000000, 'y') + "\n");
  CRegistry handle;
  EXPECT_TRUE(CRegistry::MIsSetup);
  EXPECT_EQ(handle.GetValueSize("x", &CRegistry::MRoot), 1020U);
}

double CpuSeconds() {
  timespec time = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// The time to load a file of values whose names are not sorted.
double SecondsToLoad(const std::string& path, unsigned values) {
  std::string text;
  for (unsigned i = 0; i < values; ++i) text += std::to_string(i * 2654435761U) + "=d=1\n";
  qx::test::WriteFile(path, text);
  double best = 1e9;
  for (int attempt = 0; attempt < 3; ++attempt) {
    CRegistryNode key;
    const double begin = CpuSeconds();
    EXPECT_TRUE(CRegistry::ReadTree(path.c_str(), key));
    best = std::min(best, CpuSeconds() - begin);
  }
  return best;
}

// Four times as many values in one key must need about four times the time. If each value were inserted at its place in
// order, they would need sixteen times the time.
TEST_F(Registry, LoadingUnsortedValuesOfOneKeyIsNotQuadratic) {
  double ratio = 0;
  for (int attempt = 0; attempt < 4; ++attempt) {
    ratio = SecondsToLoad(File(), 40000) / SecondsToLoad(File(), 10000);
    if (ratio < 8) break;
  }
  EXPECT_LT(ratio, 8);
}

}  // namespace
