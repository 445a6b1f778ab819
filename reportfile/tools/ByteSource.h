// Reads bytes by offset, from a file of a store or from memory.
//
// The tools read stores through this, so that the same checks run on files that another process writes to and, in tests
// and fuzz programs, on bytes in memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

#include "base/File.h"

namespace qx::report {

// A run of bytes that a file stores. Between runs there are holes, which read as zeros.
struct DataRun {
  std::int64_t begin = 0;
  std::int64_t end = 0;

  [[nodiscard]] bool IsEmpty() const { return begin >= end; }
};

// Threads: one source belongs to one thread.
class ByteSource {
 public:
  virtual ~ByteSource() = default;

  // The number of bytes now. [owning thread]
  [[nodiscard]] virtual std::int64_t Size() = 0;

  // Reads up to `size` bytes at `offset`; returns the number of bytes that were read before the end of the source or an
  // error. [owning thread]
  [[nodiscard]] virtual std::size_t ReadAt(std::int64_t offset, void* to, std::size_t size) = 0;

  // The first run of stored bytes at or after `offset`; empty if only a hole or nothing follows. The end of the run may
  // be after the end of the source. [owning thread]
  [[nodiscard]] virtual DataRun DataFrom(std::int64_t offset) {
    return {.begin = offset, .end = std::numeric_limits<std::int64_t>::max()};
  }

 protected:
  ByteSource() = default;
  ByteSource(const ByteSource&) = default;
  ByteSource& operator=(const ByteSource&) = default;
};

// A source of bytes in memory. Borrows the bytes.
class MemoryBytes final : public ByteSource {
 public:
  explicit MemoryBytes(std::string_view bytes) : bytes_(bytes) {}

  std::int64_t Size() override { return static_cast<std::int64_t>(bytes_.size()); }
  std::size_t ReadAt(std::int64_t offset, void* to, std::size_t size) override {
    if (size == 0 || offset < 0 || offset >= Size()) return 0;
    const std::size_t held = std::min(size, bytes_.size() - static_cast<std::size_t>(offset));
    std::memcpy(to, bytes_.data() + offset, held);
    return held;
  }

 private:
  std::string_view bytes_;
};

// A source that reads an open file. Owns the file.
class FileBytes final : public ByteSource {
 public:
  // Takes an open regular file; one that is not open reads as empty.
  explicit FileBytes(file::Descriptor file) : file_(std::move(file)) {}

  std::int64_t Size() override;
  std::size_t ReadAt(std::int64_t offset, void* to, std::size_t size) override;
  DataRun DataFrom(std::int64_t offset) override;

  [[nodiscard]] bool IsOpen() const { return file_.IsOpen(); }
  [[nodiscard]] int Number() const { return file_.Number(); }
  // The error number of the first read that failed, 0 if none has.
  [[nodiscard]] int Error() const { return error_; }

 private:
  file::Descriptor file_;
  int error_ = 0;
};

// Reads a source through one buffer of kWindowBytes, for readers whose offsets mostly rise.
class WindowedBytes {
 public:
  static constexpr std::size_t kWindowBytes = std::size_t{64} << 10;

  explicit WindowedBytes(ByteSource& source) : source_(source) {}

  // The bytes at `offset`: at least `requested` bytes (at most kWindowBytes) unless the source ends before that, often
  // more. Empty at the end. Valid until the next call. [owning thread]
  [[nodiscard]] std::string_view At(std::int64_t offset, std::size_t requested = 1);

 private:
  ByteSource& source_;
  std::unique_ptr<char[]> bytes_;
  std::int64_t begin_ = 0;
  std::size_t size_ = 0;
};

}  // namespace qx::report
