#include "base/CriticalSection.h"

#include <type_traits>

static_assert(sizeof(std::atomic<pthread_t>) == sizeof(pthread_t), "the owner word keeps the width of a thread id");
static_assert(std::is_standard_layout_v<CCriticalSection>);

// The size of the C library's mutex depends on the processor. So do the offsets of members after a lock.
#if defined(__x86_64__)
static_assert(sizeof(pthread_mutex_t) == 40 && sizeof(CCriticalSection) == 56);
#elif defined(__aarch64__)
static_assert(sizeof(pthread_mutex_t) == 48 && sizeof(CCriticalSection) == 64);
#endif
static_assert(sizeof(CCriticalSection) == sizeof(pthread_mutex_t) + 16, "owner 8, count 4, valid 1, padding 3");

CCriticalSection::CCriticalSection() noexcept { valid_ = pthread_mutex_init(&mutex_, nullptr) == 0; }

CCriticalSection::~CCriticalSection() {
  if (!valid_) return;
  ReleaseIfHeld();
  valid_ = false;
  pthread_mutex_destroy(&mutex_);
}

void CCriticalSection::Lock() noexcept {
  if (!valid_) return;
  if (!IsHeldByCaller()) {
    pthread_mutex_lock(&mutex_);
    owner_.store(pthread_self(), std::memory_order_relaxed);
  }
  ++count_;
}

void CCriticalSection::Unlock() noexcept {
  if (!valid_ || !IsHeldByCaller()) return;
  if (--count_ == 0) ReleaseWhole();
}

bool CCriticalSection::IsHeldByCaller() const noexcept {
  return owner_.load(std::memory_order_relaxed) == pthread_self();
}

void CCriticalSection::ReleaseIfHeld() noexcept {
  if (valid_ && count_ > 0 && IsHeldByCaller()) ReleaseWhole();
}

void CCriticalSection::CleanupHandlerForCritSecMutex(void* critical_section) noexcept {
  auto* lock = static_cast<CCriticalSection*>(critical_section);
  if (lock->valid_) lock->ReleaseWhole();
}

void CCriticalSection::ReleaseWhole() noexcept {
  count_ = 0;
  owner_.store(0, std::memory_order_relaxed);
  pthread_mutex_unlock(&mutex_);
}
