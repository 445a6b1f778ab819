#include "reportfile/tools/ByteSource.h"

#include <sys/stat.h>

#include <cerrno>

#include "reportfile/StoreIo.h"

namespace qx::report {

std::int64_t FileBytes::Size() {
  struct stat status = {};
  if (file_ == nullptr) return 0;
  if (fstat(fileno(file_.get()), &status) == 0) return status.st_size;
  if (error_ == 0) error_ = errno;
  return 0;
}

std::size_t FileBytes::ReadAt(std::int64_t offset, void* to, std::size_t size) {
  if (file_ == nullptr) return 0;
  errno = 0;
  const std::size_t got = report::ReadAt(file_.get(), offset, to, size);
  const int error = errno;
  if (got < size && error != 0 && error != EINTR && error_ == 0) error_ = error;
  return got;
}

std::string_view WindowedBytes::At(std::int64_t offset, std::size_t wanted) {
  const std::int64_t skipped = offset - begin_;
  const bool is_held = skipped >= 0 && skipped + static_cast<std::int64_t>(wanted) <= static_cast<std::int64_t>(size_);
  if (is_held) return {bytes_.get() + skipped, size_ - static_cast<std::size_t>(skipped)};

  if (bytes_ == nullptr) bytes_ = std::make_unique_for_overwrite<char[]>(kWindowBytes);
  begin_ = offset;
  size_ = source_.ReadAt(offset, bytes_.get(), kWindowBytes);
  return {bytes_.get(), size_};
}

}  // namespace qx::report
