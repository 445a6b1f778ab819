// Tests calls that fail once, or a few times in a row: nothing may be lost.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/registry/RegistryFixture.h"
#include "tests/support/FailingFileCalls.h"

namespace {

using qx::test::Exists;
using qx::test::FailingCall;
using qx::test::FileCall;
using qx::test::FileFault;
using qx::test::ReadFile;
using qx::test::RegistryTest;

constexpr std::string_view kTransientTree = "[HKEY_LOCAL_MACHINE]\nnew=d=1\n\n\n";
constexpr std::string_view kOlderTree = "[HKEY_LOCAL_MACHINE]\nold=d=1\n\n\n";
constexpr int kTries = 3;

class RegistryTransient : public RegistryTest {
 protected:
  RegistryTransient() {
    Given(kTransientTree);
    Given(kOlderTree, "registry.old");
  }

  // The tree that a process with this fault loads.
  [[nodiscard]] std::string LoadedWith(const FileFault& fault) const {
    Restart();
    const FailingCall failing(fault);
    { const CRegistry handle; }
    EXPECT_TRUE(failing.HasFailed());
    return Tree();
  }

  static void Save(const char* name = "changed") {
    CRegistry handle;
    EXPECT_EQ(handle.Open("", CRegistry::MLocalMachine, 0), 0);
    EXPECT_EQ(handle.SetValue(name, 1U), 0);
  }
};

TEST_F(RegistryTransient, OpenThatFailsTwiceLoadsTheRegistry) {
  for (const int error : {ENFILE, EMFILE, ENOMEM, EIO, EACCES}) {
    for (int times = 1; times < kTries; ++times) {
      EXPECT_EQ(LoadedWith({.call = FileCall::kOpen, .path = "/registry", .times = times, .error = error}),
                kTransientTree);
    }
  }
}

TEST_F(RegistryTransient, ReadThatFailsTwiceLoadsTheRegistry) {
  for (int times = 1; times < kTries; ++times) {
    EXPECT_EQ(LoadedWith({.call = FileCall::kRead, .times = times, .error = EIO}), kTransientTree);
  }
}

TEST_F(RegistryTransient, ReadThatFailsInTheMiddleContinuesThere) {
  const std::string text = "[HKEY_LOCAL_MACHINE]\nlong=s=" + std::string(900, 'l') + "\nnew=d=1\n\n\n";
  Given(text);
  Restart();
  const FailingCall part({.call = FileCall::kRead, .times = 1, .bytes = 500});
  const FailingCall failing({.call = FileCall::kRead, .nth = 2, .times = 2, .error = EIO});
  const CRegistry handle;
  EXPECT_EQ(Tree(), text);
}

TEST_F(RegistryTransient, OpenThatKeepsFailingLosesNothingToTheNextSaves) {
  EXPECT_EQ(LoadedWith({.call = FileCall::kOpen, .path = "/registry", .times = kTries, .error = ENFILE}), kOlderTree);
  Save();
  EXPECT_EQ(ReadFile(File("registry.old")), kTransientTree);
  Save("again");
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nagain=d=1\nchanged=d=1\nold=d=1\n\n\n");
  EXPECT_EQ(ReadFile(File("registry.unread")), kTransientTree);
}

TEST_F(RegistryTransient, ReadThatKeepsFailingLosesNothingToTheNextSaves) {
  EXPECT_EQ(LoadedWith({.call = FileCall::kRead, .times = kTries, .error = EIO}), kOlderTree);
  Save();
  Save("again");
  EXPECT_EQ(ReadFile(File("registry.unread")), kTransientTree);
}

TEST_F(RegistryTransient, LaterGoodLoadMakesKeepingUnnecessary) {
  EXPECT_EQ(LoadedWith({.call = FileCall::kOpen, .path = "/registry", .times = kTries, .error = ENFILE}), kOlderTree);
  CRegistry::SetupTree(true);
  Save();
  EXPECT_FALSE(Exists(File("registry.unread")));
}

TEST_F(RegistryTransient, MissingFileIsOpenedOnce) {
  ASSERT_EQ(unlink(File().c_str()), 0);
  Restart();
  const FailingCall counter({.call = FileCall::kOpen, .path = "/registry", .nth = 100});
  { const CRegistry handle; }
  EXPECT_EQ(counter.Calls(), 1);
  EXPECT_EQ(Tree(), kOlderTree);
}

TEST_F(RegistryTransient, OpenOfTheNewFileThatFailsTwiceSavesTheTree) {
  for (int times = 1; times < kTries; ++times) {
    const FailingCall failing({.call = FileCall::kOpen, .path = "/registry.new", .times = times, .error = ENFILE});
    Save(("x" + std::to_string(times)).c_str());
  }
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nnew=d=1\nx1=d=1\nx2=d=1\n\n\n");
}

TEST_F(RegistryTransient, OpenOfTheNewFileThatKeepsFailingKeepsTheOldFile) {
  const FailingCall failing({.call = FileCall::kOpen, .path = "/registry.new", .times = kTries, .error = ENFILE});
  Save();
  EXPECT_EQ(failing.Calls(), kTries);
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_EQ(ReadFile(File()), kTransientTree);
}

TEST_F(RegistryTransient, StatusThatFailsDuringASaveStillMakesABackup) {
  { const CRegistry handle; }
  const FailingCall failing(
      {.call = FileCall::kStatusAt, .path = "/registry", .times = qx::test::kAlways, .error = EIO});
  Save();
  EXPECT_TRUE(failing.HasFailed());
  EXPECT_EQ(ReadFile(File("registry.old")), kTransientTree);
  EXPECT_EQ(ReadFile(File()), "[HKEY_LOCAL_MACHINE]\nchanged=d=1\nnew=d=1\n\n\n");
}

// Another process that renames a new file to the same name has this effect.
TEST_F(RegistryTransient, MissingNewFileLeavesTheRegistryUnchanged) {
  { const CRegistry handle; }
  const FailingCall gone({.call = FileCall::kRename, .path = "/registry.new", .times = 2, .error = ENOENT});
  Save();
  EXPECT_TRUE(gone.HasFailed());
  EXPECT_EQ(ReadFile(File()), kTransientTree);
  EXPECT_EQ(ReadFile(File("registry.old")), kOlderTree);
}

}  // namespace
