// Reads the bytes of a trace file, from an open file or from memory.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/File.h"

namespace qx::debug {

// Bytes that can be read at any offset. Readers must not rely on the size, because a file may become shorter meanwhile.
class TraceSource {
 public:
  TraceSource() = default;
  virtual ~TraceSource() = default;
  TraceSource(const TraceSource&) = delete;
  TraceSource& operator=(const TraceSource&) = delete;

  // The size at the open or at the last update. [owning thread]
  [[nodiscard]] virtual std::uint64_t Size() const noexcept = 0;

  // Reads up to `size` bytes from `offset` on and returns the number of read bytes: fewer only at the end of the file
  // or after a read error. [owning thread]
  [[nodiscard]] virtual std::size_t ReadAt(std::uint64_t offset, char* to, std::size_t size) const noexcept = 0;

  // The bytes from `offset` on, at most `size` of them. [owning thread]
  [[nodiscard]] std::string BytesAt(std::uint64_t offset, std::size_t size) const;
};

// A regular file, opened for reading only.
class TraceFile final : public TraceSource {
 public:
  // Opens the regular file `path`. 0, or the error number: EINVAL for anything but a regular file. [owning thread]
  [[nodiscard]] int Open(const std::string& path) noexcept;

  // The file's status now; unset if `fstat` fails. [owning thread]
  [[nodiscard]] std::optional<struct stat> Status() const noexcept;

  // Updates the size to that of the file now. [owning thread]
  void TakeSize() noexcept;

  [[nodiscard]] std::uint64_t Size() const noexcept override { return size_; }
  [[nodiscard]] std::size_t ReadAt(std::uint64_t offset, char* to, std::size_t size) const noexcept override;

 private:
  file::Descriptor file_;
  std::uint64_t size_ = 0;
};

// Bytes in memory, which must outlive the source.
class TraceMemory final : public TraceSource {
 public:
  explicit TraceMemory(std::string_view bytes) noexcept : bytes_(bytes) {}

  [[nodiscard]] std::uint64_t Size() const noexcept override { return bytes_.size(); }
  [[nodiscard]] std::size_t ReadAt(std::uint64_t offset, char* to, std::size_t size) const noexcept override;

 private:
  std::string_view bytes_;
};

}  // namespace qx::debug
