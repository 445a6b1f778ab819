#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/registry/RegistryFixture.h"

namespace {

using qx::test::Dump;
using qx::test::IsHeld;
using qx::test::ReadFile;
using qx::test::RegistryTest;

class RegistryThreads : public RegistryTest {
 protected:
  RegistryThreads() { Given("[HKEY_LOCAL_MACHINE]\nanchor=d=1\n\n\n"); }

  static void Run(int count, const std::function<void(int)>& work) {
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t) threads.emplace_back(work, t);
    for (std::thread& thread : threads) thread.join();
  }
};

constexpr int kRounds = 60;

// Each handle saves when it is destroyed, so the changes of every thread race with the saves of all others.
TEST_F(RegistryThreads, FourThreadsSettingReadingAndSavingLoseNothing) {
  Run(4, [](int thread) {
    const std::string path = "T" + std::to_string(thread) + "\\Deep";
    for (int round = 0; round < kRounds; ++round) {
      CRegistry handle;
      EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, path.c_str(), false, 0), 0);
      const std::string name = "v" + std::to_string(round);
      EXPECT_EQ(handle.SetValue(name.c_str(), static_cast<unsigned>(round)), 0);
      unsigned number = 0;
      EXPECT_EQ(handle.QueryValue(&number, name.c_str()), 0);
      EXPECT_EQ(number, static_cast<unsigned>(round));
    }
  });
  EXPECT_FALSE(CRegistry::MIsDirty);
  EXPECT_EQ(ReadFile(File()), Tree());
  for (int thread = 0; thread < 4; ++thread) {
    const std::string path = "T" + std::to_string(thread) + "\\Deep";
    const CRegistry handle(path.c_str(), CRegistry::MLocalMachine, 0);
    ASSERT_NE(handle.CurrentKey(), nullptr);
    EXPECT_EQ(handle.CurrentKey()->Entries().size(), static_cast<std::size_t>(kRounds));
  }
}

TEST_F(RegistryThreads, OneKeyWrittenByAllOfThemKeepsEveryValue) {
  Run(4, [](int thread) {
    CRegistry handle(CRegistry::MLocalMachine);
    for (int i = 0; i < 500; ++i) {
      const std::string name = std::to_string(i) + "-" + std::to_string(thread);
      EXPECT_EQ(handle.SetValue(name.c_str(), name.c_str()), 0);
      EXPECT_EQ(handle.SetValue("shared", name.c_str()), 0);
      std::string read;
      EXPECT_EQ(handle.QueryValue(read, "shared"), 0);
      if (i % 3 == 0) {
        EXPECT_EQ(handle.DeleteValue(name.c_str()), 0);
      }
    }
  });
  EXPECT_EQ(CRegistry::MLocalMachine->Entries().size(), 4U * (500 - 167) + 2);
  EXPECT_EQ(ReadFile(File()), Tree());
}

TEST_F(RegistryThreads, ThreadsThatCreateTheSameKeyGetTheSameKey) {
  for (int round = 0; round < 20; ++round) {
    const std::string path = "K" + std::to_string(round) + "\\L";
    CRegistryNode* keys[4] = {};
    Run(4, [&](int thread) {
      CRegistry handle;
      EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, path.c_str(), false, 0), 0);
      keys[thread] = handle.KeepKeyHandle();
    });
    for (const CRegistryNode* key : keys) EXPECT_EQ(key, keys[0]);
  }
}

TEST_F(RegistryThreads, FirstHandlesOfAllThreadsLoadOnce) {
  Run(8, [](int) {
    CRegistry handle(CRegistry::MLocalMachine);
    EXPECT_EQ(handle.GetValueSize("anchor"), 4U);
  });
  EXPECT_EQ(Tree(), "[HKEY_LOCAL_MACHINE]\nanchor=d=1\n\n\n");
}

TEST_F(RegistryThreads, KeysAreDeletedAndMadeWhileTheTreeIsSaved) {
  Run(4, [](int thread) {
    const std::string name = "K" + std::to_string(thread);
    for (int round = 0; round < kRounds; ++round) {
      CRegistry handle;
      EXPECT_EQ(handle.CreateKey(CRegistry::MLocalMachine, (name + "\\A\\B\\C").c_str(), false, 0), 0);
      EXPECT_EQ(handle.SetValue("x", 1U), 0);
      EXPECT_EQ(handle.Open("", CRegistry::MLocalMachine, 0), 0);
      EXPECT_EQ(handle.DeleteKey(name.c_str()), 0);
      CRegistry::SaveTree();
    }
  });
  EXPECT_EQ(Tree(), "[HKEY_LOCAL_MACHINE]\nanchor=d=1\n\n\n");
  EXPECT_EQ(ReadFile(File()), Tree());
}

// A forced load exchanges the content of keys that stay, so that handles of other threads still work.
TEST_F(RegistryThreads, HandlesStillReadWhileTheTreeIsLoadedAgain) {
  Given("[HKEY_LOCAL_MACHINE]\n[A]\n[B]\nx=s=text\n\n\n\n\n");
  { const CRegistry first; }
  std::atomic<bool> done{false};
  std::thread loader([&] {
    for (int i = 0; i < 200; ++i) CRegistry::SetupTree(true);
    done = true;
  });
  Run(3, [&](int) {
    CRegistry handle("A\\B", CRegistry::MLocalMachine, 0);
    ASSERT_NE(handle.CurrentKey(), nullptr);
    while (!done) {
      std::string text;
      EXPECT_EQ(handle.QueryValue(text, "x"), 0);
      EXPECT_EQ(text, "text");
    }
  });
  loader.join();
}

TEST_F(RegistryThreads, SaveHoldsTheLocksOfAWholeDeepPathAndReleasesThem) {
  std::string text = "[HKEY_LOCAL_MACHINE]\n";
  for (int i = 0; i < 40; ++i) text += "[k]\n";  // the race detector follows no more than 64 locks at a time
  text += "x=d=1\n" + std::string(42, '\n');
  Given(text);
  { const CRegistry handle; }
  std::thread([&] { EXPECT_EQ(Dump(CRegistry::MRoot), text); }).join();
  EXPECT_EQ(Dump(CRegistry::MRoot), text);
}

// If the key above were not locked, the key could be deleted while it is written.
TEST_F(RegistryThreads, SaveHoldsTheKeysAboveWhileItWaitsForOneBelow) {
  Given("[HKEY_LOCAL_MACHINE]\n[A]\n[B]\nx=d=1\n\n\n\n\n");
  const CRegistry top("", CRegistry::MLocalMachine, 0);
  const CRegistry middle("A", CRegistry::MLocalMachine, 0);
  const CRegistry below("A\\B", CRegistry::MLocalMachine, 0);
  below.CurrentKey()->Lock().Lock();
  std::thread saving([] { (void)Dump(CRegistry::MRoot); });
  while (!IsHeld(*middle.CurrentKey())) std::this_thread::yield();
  for (int i = 0; i < 1000; ++i) {
    EXPECT_TRUE(IsHeld(CRegistry::MRoot) && IsHeld(*top.CurrentKey()) && IsHeld(*middle.CurrentKey()));
    std::this_thread::yield();
  }
  below.CurrentKey()->Lock().Unlock();
  saving.join();
  EXPECT_FALSE(IsHeld(CRegistry::MRoot) || IsHeld(*top.CurrentKey()) || IsHeld(*middle.CurrentKey()));
}

// A save clears the flag and writes the key while a change still waits for the key's lock.
TEST_F(RegistryThreads, ChangeAfterASaveOfItsKeyMarksTheTreeAgain) {
  const CRegistry key("", CRegistry::MLocalMachine, 0);
  const std::function<void()> changes[] = {
      [] { EXPECT_EQ(CRegistry(CRegistry::MLocalMachine).SetValue("x", 1U), 0); },
      [] { EXPECT_EQ(CRegistry(CRegistry::MLocalMachine).DeleteValue("x"), 0); },
  };
  for (const auto& change : changes) {
    key.CurrentKey()->Lock().Lock();
    std::thread changing(change);
    while (!CRegistry::MIsDirty) std::this_thread::yield();
    CRegistry::MIsDirty = false;
    const std::string before = qx::test::ReadFile(File());
    key.CurrentKey()->Lock().Unlock();
    changing.join();  // the destruction of its handle has saved the change
    EXPECT_NE(ReadFile(File()), before);
    EXPECT_EQ(ReadFile(File()), Tree());
  }
}

// The address sanitizer does not notice that a cancelled thread unwinds, and treats its ended frames as live.
#ifdef QX_ADDRESS_SANITIZER
constexpr bool kCanCancel = false;
#else
constexpr bool kCanCancel = true;
#endif

// Runs `work` in a thread that is cancelled at its first cancellation point.
void RunCancelled(const std::function<void()>& work) {
  std::thread thread([&] {
    pthread_cancel(pthread_self());
    work();
    pthread_testcancel();
    ADD_FAILURE() << "the thread was not cancelled";
  });
  thread.join();
}

TEST_F(RegistryThreads, CancelledThreadFinishesTheSaveOfItsHandle) {
  if (!kCanCancel) GTEST_SKIP() << "under the address sanitizer";
  const qx::test::TraceCapture tracing(4);
  auto handle = std::make_unique<CRegistry>(CRegistry::MLocalMachine);
  RunCancelled([&] {
    CRegistry::MIsDirty = true;
    handle.reset();
  });
  EXPECT_EQ(ReadFile(File("registry.old")), ReadFile(File()));
  EXPECT_FALSE(CRegistry::MIsDirty);
}

TEST_F(RegistryThreads, ThreadThatIsCancelledInALoadReleasesTheLocks) {
  if (!kCanCancel) GTEST_SKIP() << "under the address sanitizer";
  RunCancelled([] { const CRegistry handle; });
  EXPECT_FALSE(CRegistry::MIsSetup);
  Run(1, [](int) {
    const CRegistry handle;
    EXPECT_NE(CRegistry::MLocalMachine, nullptr);
  });
}

}  // namespace
