#include "tools/qxctl/store/WritablePath.h"

#include <sys/stat.h>

#include <filesystem>

namespace qx::ctl {

namespace {

std::string FirstWritableOn(const std::filesystem::path& path) {
  std::filesystem::path part;
  for (const std::filesystem::path& name : path) {
    part /= name;
    struct stat found;
    if (lstat(part.c_str(), &found) != 0) return "";  // another finding reports a missing file
    const bool is_writable = !S_ISLNK(found.st_mode) && (found.st_mode & S_IWOTH) != 0;
    const bool is_sticky = S_ISDIR(found.st_mode) && (found.st_mode & S_ISVTX) != 0;
    if (is_writable && !is_sticky) return part.string();
  }
  return "";
}

}  // namespace

std::string WritableByOthers(const std::string& path) {
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error).lexically_normal();
  std::string found = FirstWritableOn(absolute);
  if (found.empty()) found = FirstWritableOn(std::filesystem::canonical(path, error));
  return found;
}

}  // namespace qx::ctl
