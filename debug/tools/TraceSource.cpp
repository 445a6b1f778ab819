#include "debug/tools/TraceSource.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace qx::debug {

std::string TraceSource::BytesAt(std::uint64_t offset, std::size_t size) const {
  const std::uint64_t left = Size() - std::min(offset, Size());
  std::string bytes(static_cast<std::size_t>(std::min<std::uint64_t>(size, left)), '\0');
  bytes.resize(ReadAt(offset, bytes.data(), bytes.size()));
  return bytes;
}

int TraceFile::Open(const std::string& path) noexcept {
  file_ = file::Open(path.c_str(), O_RDONLY);
  const int error = errno;
  if (!file_.IsOpen()) return error;
  const auto status = Status();
  if (!status.has_value() || !S_ISREG(status->st_mode)) return EINVAL;
  size_ = static_cast<std::uint64_t>(status->st_size);
  return 0;
}

void TraceFile::TakeSize() noexcept {
  const auto status = Status();
  size_ = status.has_value() ? static_cast<std::uint64_t>(status->st_size) : 0;
}

std::optional<struct stat> TraceFile::Status() const noexcept {
  struct stat status {};
  if (!file_.IsOpen() || file::StatusOf(file_.Number(), status) != 0) return std::nullopt;
  return status;
}

// The writer of a ring stores into a mapping, in release order. This fence keeps the reads of one call before those of
// the next, so that a later read never returns an older state of the file.
std::size_t TraceFile::ReadAt(std::uint64_t offset, char* to, std::size_t size) const noexcept {
  const std::size_t bytes = file::ReadAt(file_.Number(), static_cast<std::int64_t>(offset), to, size).bytes;
  std::atomic_thread_fence(std::memory_order_acquire);
  return bytes;
}

std::size_t TraceMemory::ReadAt(std::uint64_t offset, char* to, std::size_t size) const noexcept {
  if (offset >= bytes_.size()) return 0;
  const std::string_view there = bytes_.substr(static_cast<std::size_t>(offset), size);
  if (!there.empty()) std::memcpy(to, there.data(), there.size());
  return there.size();
}

}  // namespace qx::debug
