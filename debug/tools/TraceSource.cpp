#include "debug/tools/TraceSource.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qx::debug {

std::string TraceSource::BytesAt(std::uint64_t offset, std::size_t size) const {
  const std::uint64_t left = Size() - std::min(offset, Size());
  std::string bytes(static_cast<std::size_t>(std::min<std::uint64_t>(size, left)), '\0');
  bytes.resize(ReadAt(offset, bytes.data(), bytes.size()));
  return bytes;
}

TraceFile::~TraceFile() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

int TraceFile::Open(const std::string& path) noexcept {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor_ < 0) return errno;
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
  if (descriptor_ < 0 || ::fstat(descriptor_, &status) != 0) return std::nullopt;
  return status;
}

std::size_t TraceFile::ReadAt(std::uint64_t offset, char* to, std::size_t size) const noexcept {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = ::pread(descriptor_, to + done, size - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

std::size_t TraceMemory::ReadAt(std::uint64_t offset, char* to, std::size_t size) const noexcept {
  if (offset >= bytes_.size()) return 0;
  const std::string_view there = bytes_.substr(static_cast<std::size_t>(offset), size);
  if (!there.empty()) std::memcpy(to, there.data(), there.size());
  return there.size();
}

}  // namespace qx::debug
