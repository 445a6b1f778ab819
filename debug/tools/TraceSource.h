// Where the bytes of a trace file come from when it is read back: an open file, or memory.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/File.h"

namespace qx::debug {

// Bytes that can be read at any place. Reading never trusts that the size holds: a file may shrink meanwhile.
class TraceSource {
 public:
  TraceSource() = default;
  virtual ~TraceSource() = default;
  TraceSource(const TraceSource&) = delete;
  TraceSource& operator=(const TraceSource&) = delete;

  // The size when the source was opened, or was last asked for its size. [owning thread]
  [[nodiscard]] virtual std::uint64_t Size() const noexcept = 0;

  // Reads up to `size` bytes from `offset` on and returns how many came: fewer only at the end of the file or after a
  // read error, which count alike. [owning thread]
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

  // Takes the size that the file has now. [owning thread]
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
