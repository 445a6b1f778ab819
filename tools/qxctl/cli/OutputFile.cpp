#include "tools/qxctl/cli/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "tools/qxctl/cli/WriteAll.h"

namespace qx::ctl {

namespace {

constexpr mode_t kModeMask = 07777;
constexpr mode_t kModeNew = 0666;

mode_t ModeOfNewFile() {
  const mode_t mask = umask(0);
  (void)umask(mask);
  return kModeNew & ~mask;
}

// The file behind a chain of links; `path` itself when it does not exist yet.
std::string Resolved(const std::string& path) {
  char* const real = realpath(path.c_str(), nullptr);
  std::string resolved = real != nullptr ? real : path;
  std::free(real);
  return resolved;
}

}  // namespace

OutputFile::~OutputFile() {
  if (descriptor_ >= 0) (void)close(descriptor_);  // not committed: nobody is to see what it holds
  if (!temporary_.empty()) (void)unlink(temporary_.c_str());
}

Status OutputFile::Open(const std::string& path) {
  target_ = Resolved(path);
  struct stat status = {};
  const bool exists = stat(target_.c_str(), &status) == 0;
  if (!exists || S_ISREG(status.st_mode)) {
    Status opened = OpenTemporary();
    if (!opened.IsOk()) return opened;
    const mode_t mode = exists ? status.st_mode & kModeMask : ModeOfNewFile();
    if (fchmod(descriptor_, mode) != 0) return Status::Io("cannot set the permissions of " + temporary_, errno);
    return {};
  }
  descriptor_ = open(target_.c_str(), O_WRONLY | O_CLOEXEC);
  return descriptor_ >= 0 ? Status() : Status::Io("cannot open " + path, errno);
}

// "dir/load.txt" => "dir/load.txt.XXXXXX": the same directory, so that the rename stays within one file system.
Status OutputFile::OpenTemporary() {
  std::string name = target_ + ".XXXXXX";
  descriptor_ = mkostemp(name.data(), O_CLOEXEC);
  if (descriptor_ < 0) return Status::Io("cannot create a file beside " + target_, errno);
  temporary_ = std::move(name);
  return {};
}

Status OutputFile::Write(std::string_view bytes) {
  return WriteAll(descriptor_, bytes, temporary_.empty() ? target_ : temporary_);
}

Status OutputFile::Commit() {
  // Without the sync a crash soon after the rename could leave an empty file where a good one stood.
  if (!temporary_.empty() && fsync(descriptor_) != 0) return Status::Io("cannot sync " + temporary_, errno);
  const int descriptor = std::exchange(descriptor_, -1);
  if (close(descriptor) != 0) return Status::Io("cannot close " + target_, errno);
  if (temporary_.empty()) return {};
  if (rename(temporary_.c_str(), target_.c_str()) != 0) return Status::Io("cannot put " + target_ + " in place", errno);
  temporary_.clear();
  return {};
}

}  // namespace qx::ctl
