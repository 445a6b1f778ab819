#include "base/CriticalSection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
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

// A lock in plain memory. Its fields can be read, even after the end of the lock.
class LockInMemory {
 public:
#if defined(__aarch64__)
  static constexpr std::size_t kOwnerOffset = 48;
#else
  static constexpr std::size_t kOwnerOffset = 40;
#endif
  static constexpr std::size_t kCountOffset = kOwnerOffset + 8;
  static constexpr std::size_t kValidOffset = kOwnerOffset + 12;

  CCriticalSection& Lock() { return *lock_; }
  void End() { lock_->~CCriticalSection(); }

  pthread_t Owner() const { return Field<pthread_t>(kOwnerOffset); }
  std::int32_t Count() const { return Field<std::int32_t>(kCountOffset); }
  bool IsValid() const { return memory_[kValidOffset] != 0; }
  void SetValid(bool valid) { memory_[kValidOffset] = valid ? 1 : 0; }

  // Tries to take the mutex, and releases it. Returns 0, EBUSY, or EINVAL for a destroyed mutex.
  int TryMutex() {
    auto* mutex = reinterpret_cast<pthread_mutex_t*>(memory_);
    const int result = pthread_mutex_trylock(mutex);
    if (result == 0) pthread_mutex_unlock(mutex);
    return result;
  }

 private:
  template <typename T>
  T Field(std::size_t offset) const {
    T field;
    std::memcpy(&field, memory_ + offset, sizeof field);
    return field;
  }

  alignas(CCriticalSection) unsigned char memory_[sizeof(CCriticalSection)] = {};
  CCriticalSection* lock_ = new (memory_) CCriticalSection;
};

TEST(CriticalSection, MutexOwnerCountAndValidAreInThisOrder) {
  LockInMemory memory;
  EXPECT_EQ(memory.Owner(), pthread_t{0});
  EXPECT_TRUE(memory.IsValid());
  EXPECT_EQ(memory.TryMutex(), 0);
  memory.Lock().Lock();
  memory.Lock().Lock();
  EXPECT_EQ(memory.Owner(), pthread_self());
  EXPECT_EQ(memory.Count(), 2);
  EXPECT_EQ(memory.TryMutex(), EBUSY);
  memory.Lock().Unlock();
  EXPECT_EQ(memory.Owner(), pthread_self());
  memory.Lock().Unlock();
  EXPECT_EQ(memory.Owner(), pthread_t{0});
  EXPECT_EQ(memory.Count(), 0);
  EXPECT_EQ(memory.TryMutex(), 0);
  memory.End();
}

TEST(CriticalSection, WithoutAMutexItLocksNothing) {
  LockInMemory memory;
  memory.SetValid(false);
  memory.Lock().Lock();
  EXPECT_EQ(memory.Count(), 0);
  EXPECT_EQ(memory.Owner(), pthread_t{0});
  EXPECT_EQ(memory.TryMutex(), 0);
  memory.Lock().Unlock();
  memory.End();
  EXPECT_EQ(memory.TryMutex(), 0);  // there was no mutex to destroy
  memory.SetValid(true);
  memory.End();
}

TEST(CriticalSection, WithoutAMutexNothingIsUnlocked) {
  LockInMemory memory;
  memory.Lock().Lock();
  memory.SetValid(false);
  memory.Lock().Unlock();
  CCriticalSection::CleanupHandlerForCritSecMutex(&memory.Lock());
  EXPECT_EQ(memory.Count(), 1);
  EXPECT_EQ(memory.TryMutex(), EBUSY);
  memory.SetValid(true);
  memory.Lock().Unlock();
  EXPECT_EQ(memory.TryMutex(), 0);
  memory.End();
}

// The system refuses to destroy a locked mutex and leaves it as it is.
TEST(CriticalSection, DestructionWhileHeldByTheCallerFreesTheMutexAndDestroysIt) {
  LockInMemory memory;
  memory.Lock().Lock();
  memory.Lock().Lock();
  memory.End();
  EXPECT_EQ(memory.TryMutex(), EINVAL);
}

}  // namespace
