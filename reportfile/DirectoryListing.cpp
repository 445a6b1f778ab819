#include "reportfile/DirectoryListing.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace qx::report {

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using OpenDirectory = std::unique_ptr<DIR, CloseDirectory>;

// Null with errno set.
OpenDirectory Open(const char* path, FinalLink link) {
  const int refused = link == FinalLink::kRefused ? O_NOFOLLOW : 0;
  const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK | refused);
  if (fd < 0) return nullptr;
  OpenDirectory directory(fdopendir(fd));
  if (directory == nullptr) {
    const int error = errno;
    close(fd);
    errno = error;
  }
  return directory;
}

bool IsSelfOrParent(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

}  // namespace

int ListDirectory(const char* path, FinalLink link, std::vector<std::string>& names) {
  const OpenDirectory directory = Open(path, link);
  if (directory == nullptr) return errno;
  for (;;) {
    errno = 0;  // the only way to tell the end from a failure
    const dirent* const entry = readdir(directory.get());
    if (entry == nullptr) return errno;
    if (!IsSelfOrParent(entry->d_name)) names.emplace_back(entry->d_name);
  }
}

// The C library's texts are constant, or one for each thread: nothing is shared.
const char* ErrorText(int error) { return std::strerror(error); }

}  // namespace qx::report
