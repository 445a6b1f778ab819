#include "base/CriticalSection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

bool OtherThreadCanLock(CCriticalSection& lock) {
  std::atomic<bool> got{false};
  std::thread other([&] {
    lock.Lock();
    got = true;
    lock.Unlock();
  });
  other.join();
  return got;
}

TEST(CriticalSectionThreads, SixteenThreadsLoseNoIncrement) {
  CCriticalSection lock;
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        const qx::LockScope outer(lock);
        const qx::LockScope inner(lock);
        ++counter;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, 32000);
}

TEST(CriticalSection, OwnerMayLockAgainAndOnlyTheLastUnlockFrees) {
  CCriticalSection lock;
  lock.Lock();
  lock.Lock();
  lock.Unlock();
  EXPECT_TRUE(lock.IsHeldByCaller());
  lock.Unlock();
  EXPECT_FALSE(lock.IsHeldByCaller());
  EXPECT_TRUE(OtherThreadCanLock(lock));
}

TEST(CriticalSection, UnlockByANonOwnerIsIgnored) {
  CCriticalSection lock;
  lock.Lock();
  std::thread([&] { lock.Unlock(); }).join();
  EXPECT_TRUE(lock.IsHeldByCaller());
  lock.Unlock();
  lock.Unlock();
  EXPECT_TRUE(OtherThreadCanLock(lock));
}

TEST(CriticalSection, CleanupHandlerFreesTheLockWhateverItsDepth) {
  CCriticalSection lock;
  lock.Lock();
  lock.Lock();
  lock.Lock();
  CCriticalSection::CleanupHandlerForCritSecMutex(&lock);
  EXPECT_FALSE(lock.IsHeldByCaller());
  EXPECT_TRUE(OtherThreadCanLock(lock));
}

TEST(CriticalSection, DestructionWhileHeldByTheCallerIsClean) {
  CCriticalSection lock;
  lock.Lock();
  lock.Lock();
}

}  // namespace
