#include "reportfile/StoreIo.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace qx::report {

namespace {

constexpr mode_t kStoreFileMode = 0644;

// The file is emptied only after it was checked, hence no O_TRUNC.
int OpenFlags(OpenMode mode) {
  switch (mode) {
    case OpenMode::kRead:
      return O_RDONLY;
    case OpenMode::kUpdate:
      return O_RDWR;
    case OpenMode::kCreate:
      return O_RDWR | O_CREAT;
  }
  return O_RDONLY;
}

// The errors of open for directories, sockets and devices without a driver.
bool MeansNotARegularFile(int error) { return error == EISDIR || error == ENXIO || error == ENODEV; }

bool EmptyFile(int descriptor) {
  if (file::Truncate(descriptor, 0) != 0) return false;
  (void)fchmod(descriptor, kStoreFileMode);  // the file of another owner keeps its mode; it is open and empty anyway
  return true;
}

}  // namespace

file::Descriptor OpenRegularFile(const std::string& path, OpenMode mode) {
  const mode_t created = mode == OpenMode::kCreate ? kStoreFileMode : 0;
  file::Descriptor descriptor = file::OpenRegular(path.c_str(), OpenFlags(mode), created);
  const int error = errno;
  if (!descriptor.IsOpen()) {
    errno = MeansNotARegularFile(error) ? EINVAL : error;
    return descriptor;
  }
  if (mode == OpenMode::kCreate && !EmptyFile(descriptor.Number())) return {};
  return descriptor;
}

std::FILE* StreamOf(file::Descriptor descriptor, OpenMode mode) {
  if (!descriptor.IsOpen()) return nullptr;
  std::FILE* const file = fdopen(descriptor.Number(), mode == OpenMode::kRead ? "rb" : "r+b");
  if (file != nullptr) (void)descriptor.Release();
  return file;
}

}  // namespace qx::report
