// Keeps big text buffers between calls, so that the module can use them again.
//
// A megabyte of new memory costs far more than filling it: the kernel clears every page at its first use, and gets it
// back as soon as it is freed. So the buffers in which replies are built are kept and used again; only the reply itself
// is allocated for each call. The number and the sizes of the buffers are limited. All are freed when the module is
// unloaded.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace qx::provider {

// A bounded set of spare buffers.
//
// Threads: any thread may take and return buffers. Owns: the spare buffers; one that was taken belongs to the caller.
// Failure: Take throws std::bad_alloc; Return frees what it does not keep.
class BufferPool {
 public:
  // Limits: the number of spare buffers, the smallest and the largest size of a spare buffer, and the bytes of all of
  // them. A buffer that is smaller than kKeptBytesMin is cheap to allocate, so it is not kept.
  static constexpr std::size_t kKeptCountMax = 16;
  static constexpr std::size_t kKeptBytesMin = std::size_t{64} << 10;
  static constexpr std::size_t kKeptBytesMax = std::size_t{3} << 20;
  static constexpr std::size_t kKeptBytesTotalMax = std::size_t{24} << 20;

  constexpr BufferPool() = default;
  BufferPool(const BufferPool&) = delete;
  BufferPool& operator=(const BufferPool&) = delete;

  // An empty string with space for `bytes`: the smallest spare buffer that is large enough, or a new one. Requests for
  // fewer than kKeptBytesMin bytes do not use a spare buffer. [any thread]
  [[nodiscard]] std::string Take(std::size_t bytes);

  // Keeps `buffer` for a later Take if the limits allow it, and frees it otherwise. [any thread]
  void Return(std::string buffer) noexcept;

  // Frees all spare buffers. [any thread]
  void Clear() noexcept;

  // The number of spare buffers now, and the bytes of all of them. [any thread]
  [[nodiscard]] std::size_t KeptCount() const;
  [[nodiscard]] std::size_t KeptBytes() const;

 private:
  [[nodiscard]] bool MayKeepLocked(std::size_t bytes) const;
  [[nodiscard]] std::size_t BestFitLocked(std::size_t bytes) const;

  mutable std::mutex mutex_;
  std::vector<std::string> kept_;  // never grows beyond the space that Take reserves, so Return cannot fail
  std::size_t kept_bytes_ = 0;
};

// The module's pool.
extern BufferPool transfer_buffers;

// A buffer of the pool until the end of a scope.
class PooledBuffer {
 public:
  explicit PooledBuffer(std::size_t bytes) : text_(transfer_buffers.Take(bytes)) {}
  ~PooledBuffer() { transfer_buffers.Return(std::move(text_)); }
  PooledBuffer(const PooledBuffer&) = delete;
  PooledBuffer& operator=(const PooledBuffer&) = delete;

  std::string& text() { return text_; }

 private:
  std::string text_;
};

}  // namespace qx::provider
