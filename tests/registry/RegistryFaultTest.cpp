// Makes each allocation of an operation fail once: there must be no crash, no leak, and no partial change.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <functional>
#include <set>
#include <string>

#include "tests/registry/RegistryFixture.h"
#include "tests/support/FailingAllocator.h"

namespace {

using qx::test::FailingAllocation;
using qx::test::ReadFile;
using qx::test::RegistryTest;

class RegistryFault : public RegistryTest {
 protected:
  RegistryFault() { Given(kTree); }

  // Runs `work` with the first, second, ... allocation failing, until no allocation fails. `check` gets the number.
  static long FailEach(const std::function<void()>& work, const std::function<void(long)>& check) {
    for (long nth = 0;; ++nth) {
      bool has_failed = false;
      {
        const FailingAllocation failing({.nth = nth + 1});
        work();
        has_failed = failing.HasFailed();
      }
      check(nth);
      if (!has_failed) return nth;
    }
  }

  static void SetupWithoutMemory() {
    const FailingAllocation failing({.nth = 1});
    CRegistry::SetupTree(false);
  }

  static constexpr std::string_view kTree = "[HKEY_LOCAL_MACHINE]\n[A]\na=s=text\nb=b=01 \n[B]\nc=d=1\n\n\n\n\n";
};

TEST_F(RegistryFault, SetReplacesTheWholeValueOrNothing) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  bool is_stored = false;
  const long failures = FailEach([&] { is_stored = handle.SetValue("a", "longer than any short string") == 0; },
                                 [&](long) {
                                   std::string text;
                                   EXPECT_EQ(handle.QueryValue(text, "a"), 0);
                                   EXPECT_EQ(text, is_stored ? "longer than any short string" : "text");
                                 });
  EXPECT_EQ(failures, 1);
}

TEST_F(RegistryFault, SetOfANewNameStoresItOrLeavesTheKeyUnchanged) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  bool is_stored = false;
  const long failures = FailEach([&] { is_stored = handle.SetValue("new", "text") == 0; },
                                 [&](long) { EXPECT_EQ(handle.GetValueSize("new"), is_stored ? 5U : 0U); });
  EXPECT_EQ(failures, 2);
}

TEST_F(RegistryFault, CreateKeyFailsWithTheCurrentKeyUnchanged) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  CRegistryNode* before = handle.CurrentKey();
  long result = 0;
  const long failures = FailEach([&] { result = handle.CreateKey(nullptr, "New", false, 0); },
                                 [&](long) { EXPECT_EQ(handle.CurrentKey() == before, result != 0); });
  EXPECT_EQ(failures, 2);
}

TEST_F(RegistryFault, OpenFailsWithoutAKey) {
  CRegistry handle;
  long result = 0;
  const long failures = FailEach([&] { result = handle.Open("A\\B", CRegistry::MLocalMachine, 0); },
                                 [&](long) { EXPECT_EQ(handle.CurrentKey() != nullptr, result == 0); });
  EXPECT_EQ(failures, 1);
}

TEST_F(RegistryFault, ReadsReportNoValue) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  ASSERT_TRUE(
      handle.SetValue("e", reinterpret_cast<const unsigned char*>("%HOME%%HOME%%HOME%%HOME%"), 24, REG_EXPAND_SZ));
  const qx::test::ScopedEnv home("HOME", "a directory with a long name");
  std::string text;
  long result = 0;
  FailEach([&] { result = handle.QueryValue(text, "e"); },
           [&](long) {
             EXPECT_EQ(result, text.empty() ? ENODATA : 0);
             text = std::string();
           });
}

// If there is no memory for a value line, the load skips only this line. If there is not enough for a subkey line, it
// skips the whole subkey; otherwise the content of the subkey would become content of the key above.
TEST_F(RegistryFault, LoadWithoutMemorySkipsTheLine) {
  std::set<std::string> trees;
  FailEach([] { CRegistry::SetupTree(true); },
           [&](long) {
             trees.insert(Tree());
             Restart();
           });
  const std::set<std::string> expected = {
      "\n",
      "[HKEY_LOCAL_MACHINE]\n\n\n",
      "[HKEY_LOCAL_MACHINE]\n[A]\na=s=text\nb=b=01 \n\n\n\n",
      "[HKEY_LOCAL_MACHINE]\n[A]\na=s=text\nb=b=01 \n[B]\n\n\n\n\n",
      "[HKEY_LOCAL_MACHINE]\n[A]\na=s=text\n[B]\nc=d=1\n\n\n\n\n",
      "[HKEY_LOCAL_MACHINE]\n[A]\nb=b=01 \n[B]\nc=d=1\n\n\n\n\n",
      std::string(kTree),
  };
  EXPECT_EQ(trees, expected);
  CRegistry::SetupTree(true);
  EXPECT_EQ(Tree(), kTree);
}

TEST_F(RegistryFault, LoadOverATreeWithoutMemoryKeepsTheTreeWhole) {
  CRegistry handle("A\\B", CRegistry::MLocalMachine, 0);
  FailEach([&] { CRegistry::SetupTree(true); }, [&](long) { EXPECT_NE(CRegistry::MLocalMachine, nullptr); });
  CRegistry::SetupTree(true);
  EXPECT_EQ(Tree(), kTree);
}

TEST_F(RegistryFault, SetupThatThrowsIsTracedAndNotRetried) {
  const qx::test::TraceCapture capture(2);
  SetupWithoutMemory();
  EXPECT_TRUE(CRegistry::MIsSetup);
  EXPECT_EQ(capture.Text(),
            "CRegistry: SetupTree(): ForceSetup=0, MIsSetup=0, MIsDirty=0\n"
            "CRegistry: SetupTree(): ## ERROR during Setup\n");
}

TEST_F(RegistryFault, SetupThatThrowsTracesNothingBelowLevelTwo) {
  const qx::test::TraceCapture capture(1);
  SetupWithoutMemory();
  EXPECT_TRUE(CRegistry::MIsSetup);
  EXPECT_EQ(capture.Text(), "");
}

TEST_F(RegistryFault, FileThatAThrowingSetupDidNotReadIsKept) {
  SetupWithoutMemory();
  ASSERT_TRUE(CRegistry::MIsSetup);
  CRegistry::MPRegistry = File();
  CRegistry::MPRegistryOld = File("registry.old");
  CRegistry::MPRegistryTemp = File("registry.new");
  CRegistry::MIsDirty = true;
  CRegistry::SaveTree();
  EXPECT_EQ(ReadFile(File("registry.unread")), kTree);
}

TEST_F(RegistryFault, FileWithSkippedLinesIsKept) {
  FailEach([] { CRegistry::SetupTree(true); },
           [this](long nth) {
             const bool is_whole = Tree() == kTree;
             CRegistry::MIsDirty = CRegistry::MPRegistryDefault == File("registry.default");  // the paths were built
             const bool is_saved = CRegistry::MIsDirty;
             CRegistry::SaveTree();
             EXPECT_EQ(qx::test::Exists(File("registry.unread")), is_saved && !is_whole) << nth;
             for (const char* name : {"registry.unread", "registry.old"}) (void)unlink(File(name).c_str());
             Given(kTree);
             Restart();
           });
}

TEST_F(RegistryFault, SaveWithoutMemoryKeepsTheOldFile) {
  CRegistry handle("A", CRegistry::MLocalMachine, 0);
  ASSERT_EQ(handle.SetValue("x", std::string(5000, 'x').c_str()), 0);
  FailEach(
      [&] {
        CRegistry::MIsDirty = true;
        CRegistry::SaveTree();
      },
      [&](long) {
        EXPECT_FALSE(qx::test::IsHeld(CRegistry::MRoot) || qx::test::IsHeld(*handle.CurrentKey()));
        EXPECT_FALSE(qx::test::Exists(File("registry.new")));
        const std::string file = ReadFile(File());
        EXPECT_TRUE(file == kTree || file == Tree());
      });
  EXPECT_EQ(ReadFile(File()), Tree());
}

}  // namespace
