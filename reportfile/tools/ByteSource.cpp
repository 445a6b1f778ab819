#include "reportfile/tools/ByteSource.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace qx::report {

std::int64_t FileBytes::Size() {
  struct stat status = {};
  if (!file_.IsOpen()) return 0;
  const int error = file::StatusOf(file_.Number(), status);
  if (error_ == 0) error_ = error;
  return error == 0 ? status.st_size : 0;
}

std::size_t FileBytes::ReadAt(std::int64_t offset, void* to, std::size_t size) {
  if (!file_.IsOpen()) return 0;
  const file::Progress progress = file::ReadAt(file_.Number(), offset, to, size);
  if (error_ == 0) error_ = progress.error;
  return progress.bytes;
}

// If the file system does not report holes, everything counts as stored.
DataRun FileBytes::DataFrom(std::int64_t offset) {
  if (!file_.IsOpen()) return {};
  const off_t begin = lseek(file_.Number(), offset, SEEK_DATA);
  const int error = errno;
  if (begin < 0) return error == ENXIO ? DataRun() : ByteSource::DataFrom(offset);
  const off_t end = lseek(file_.Number(), begin, SEEK_HOLE);
  return end > begin ? DataRun{.begin = begin, .end = end} : ByteSource::DataFrom(begin);
}

std::string_view WindowedBytes::At(std::int64_t offset, std::size_t requested) {
  const std::int64_t skipped = offset - begin_;
  const bool is_held =
      skipped >= 0 && skipped + static_cast<std::int64_t>(requested) <= static_cast<std::int64_t>(size_);
  if (is_held) return {bytes_.get() + skipped, size_ - static_cast<std::size_t>(skipped)};

  if (bytes_ == nullptr) bytes_ = std::make_unique_for_overwrite<char[]>(kWindowBytes);
  begin_ = offset;
  size_ = source_.ReadAt(offset, bytes_.get(), kWindowBytes);
  return {bytes_.get(), size_};
}

}  // namespace qx::report
