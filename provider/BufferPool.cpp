#include "provider/BufferPool.h"

#include <utility>

namespace qx::provider {

// Initialised without a constructor call, so it can be used while the module is being loaded. Its buffers are freed
// when the module is unloaded.
constinit BufferPool transfer_buffers;

std::string BufferPool::Take(std::size_t bytes) {
  std::string buffer;
  if (bytes >= kKeptBytesMin) {
    const std::lock_guard lock(mutex_);
    kept_.reserve(kKeptCountMax);
    const std::size_t found = BestFitLocked(bytes);
    if (found < kept_.size()) {
      buffer.swap(kept_[found]);
      kept_[found].swap(kept_.back());
      kept_.pop_back();
      kept_bytes_ -= buffer.capacity();
    }
  }
  buffer.reserve(bytes);
  return buffer;
}

void BufferPool::Return(std::string buffer) noexcept {
  buffer.clear();
  if (buffer.capacity() < kKeptBytesMin) return;  // only transfers have larger replies
  const std::lock_guard lock(mutex_);
  if (!MayKeepLocked(buffer.capacity())) return;
  kept_bytes_ += buffer.capacity();
  kept_.push_back(std::move(buffer));
}

void BufferPool::Clear() noexcept {
  const std::lock_guard lock(mutex_);
  kept_.clear();
  kept_bytes_ = 0;
}

std::size_t BufferPool::KeptCount() const {
  const std::lock_guard lock(mutex_);
  return kept_.size();
}

std::size_t BufferPool::KeptBytes() const {
  const std::lock_guard lock(mutex_);
  return kept_bytes_;
}

bool BufferPool::MayKeepLocked(std::size_t bytes) const {
  return kept_.size() < kept_.capacity() && kept_.size() < kKeptCountMax && bytes <= kKeptBytesMax &&
         kept_bytes_ + bytes <= kKeptBytesTotalMax;
}

std::size_t BufferPool::BestFitLocked(std::size_t bytes) const {
  std::size_t best = kept_.size();
  for (std::size_t i = 0; i < kept_.size(); ++i) {
    if (kept_[i].capacity() < bytes) continue;
    if (best == kept_.size() || kept_[i].capacity() < kept_[best].capacity()) best = i;
  }
  return best;
}

}  // namespace qx::provider
