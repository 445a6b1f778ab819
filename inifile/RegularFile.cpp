#include "inifile/RegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace qx::inifile {

namespace {

bool IsRegularFile(int descriptor) {
  struct stat status;
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

int OpenWithoutWaiting(const char* path, int flags, mode_t mode) {
  int descriptor = -1;
  do {
    descriptor = open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

}  // namespace

bool Descriptor::Close() noexcept {
  // Not repeated after EINTR: the number is free by then and may already be another thread's file.
  return number_ < 0 || close(Release()) == 0;
}

Descriptor OpenRegularFile(const char* path, int flags, mode_t mode) noexcept {
  Descriptor file(OpenWithoutWaiting(path, flags, mode));
  if (!file.IsOpen() || IsRegularFile(file.Number())) return file;
  (void)file.Close();  // nothing was written to it
  errno = EINVAL;
  return Descriptor();
}

}  // namespace qx::inifile
