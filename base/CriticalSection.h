// The recursive lock that every layer shares, built on a plain POSIX mutex.
//
// The owner is kept next to the mutex, so a thread that holds the lock may take it again; only the outermost unlock
// releases the mutex. A recursive POSIX mutex is not used: it does not show its owner, and cannot be released at once
// if it is held several times. The clean-up of a cancelled thread, and the destructor of this class, need both.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

// A recursive mutual exclusion lock.
//
// Threads: any thread may lock and unlock; construction and destruction belong to the owner of the enclosing object.
// Owns: the POSIX mutex.
// Failure: a mutex that cannot be initialised leaves the lock invalid; Lock and Unlock then have no effect, and the
// users of the lock run without protection.
class CCriticalSection {
 public:
  CCriticalSection() noexcept;
  ~CCriticalSection();
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;

  // Takes the lock, or counts one more Lock if the calling thread holds it. Waits while another thread holds it. [any
  // thread]
  void Lock() noexcept;

  // Undoes one Lock; the outermost Unlock releases the lock. A call by a thread that does not hold the lock is ignored.
  // [any thread]
  void Unlock() noexcept;

  // True while the calling thread holds the lock. [any thread]
  [[nodiscard]] bool IsHeldByCaller() const noexcept;

  // Releases the lock if the calling thread holds it, even if Lock was called several times. [any thread]
  void ReleaseIfHeld() noexcept;

  // Releases the lock at `critical_section` (a CCriticalSection*), even if Lock was called several times. For
  // pthread_cleanup_push in a thread that may be cancelled while it holds the lock. [lock held]
  static void CleanupHandlerForCritSecMutex(void* critical_section) noexcept;

 private:
  void ReleaseWhole() noexcept;

  // Order is interface: other code of the suite embeds this layout.
  pthread_mutex_t mutex_;
  // Is read without the mutex. A thread finds its own id here only if it has written it itself, so relaxed order is
  // enough.
  std::atomic<pthread_t> owner_{0};
  std::int32_t count_ = 0;
  bool valid_ = false;
};

namespace qx {

// Holds a CCriticalSection from construction to the end of the scope.
class LockScope {
 public:
  explicit LockScope(CCriticalSection& lock) noexcept : lock_(lock) { lock_.Lock(); }
  ~LockScope() { lock_.Unlock(); }
  LockScope(const LockScope&) = delete;
  LockScope& operator=(const LockScope&) = delete;

 private:
  CCriticalSection& lock_;
};

}  // namespace qx
