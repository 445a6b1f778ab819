#include "reportfile/DirectoryCursor.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

namespace qx::report {

int DirectoryCursor::Begin(file::Descriptor top) {
  struct stat status;
  if (const int error = file::StatusOf(top.Number(), status); error != 0) return error;
  way_.assign(1, IdOf(status));
  current_ = std::move(top);
  above_ = file::Descriptor();
  return 0;
}

int DirectoryCursor::Enter(const std::string& name) {
  file::Descriptor below = file::OpenDirectory(name.c_str(), O_NOFOLLOW, current_.Number());
  if (!below.IsOpen()) return errno;
  struct stat status;
  if (const int error = file::StatusOf(below.Number(), status); error != 0) return error;
  way_.push_back(IdOf(status));
  above_ = std::move(current_);
  current_ = std::move(below);
  return 0;
}

// The directory above is still open, so ".." is not looked up in the current directory, whose search may be forbidden.
// It is looked up only in the directory above, which was searched on the way down.
int DirectoryCursor::Leave() {
  way_.pop_back();
  current_ = std::move(above_);
  if (way_.size() < 2) return 0;
  above_ = file::Open("..", O_PATH | O_DIRECTORY, 0, current_.Number());
  if (!above_.IsOpen()) return errno;
  struct stat status;
  if (const int error = file::StatusOf(above_.Number(), status); error != 0) return error;
  return IdOf(status) == way_[way_.size() - 2] ? 0 : ESTALE;
}

}  // namespace qx::report
