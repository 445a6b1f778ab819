#include "base/tools/FilePlace.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <utility>

namespace qx {

namespace {

constexpr int kLinksMax = 40;  // as many as the kernel follows

ReplaceResult FailedAt(const std::string& file, int error) {
  const bool is_missing = error == ENOENT || error == ENOTDIR;
  return is_missing ? ReplaceResult{ReplaceState::kNotFound, file, error}
                    : ReplaceResult{ReplaceState::kFailed, file, error};
}

// Takes the first name off a path.
//   "a//b/c" => "a", "b/c"    "a/" => "a", "."    "a" => "a", ""
std::string TakeName(std::string& path) {
  const std::size_t slash = path.find('/');
  std::string name = path.substr(0, slash);
  const std::size_t next = slash == std::string::npos ? slash : path.find_first_not_of('/', slash);
  const bool ends_in_slash = slash != std::string::npos && next == std::string::npos;
  path = ends_in_slash ? "." : next == std::string::npos ? "" : path.substr(next);
  return name;
}

// The path that the link at `path` leads to.
//   "l", "out/load.csv" => "out/load.csv"    "a/l", "load.csv" => "a/load.csv"    "a/l", "/load.csv" => "/load.csv"
std::string Joined(const std::string& path, const std::string& target) {
  if (target.starts_with('/')) return target;
  return path.substr(0, path.rfind('/') + 1) + target;
}

int ReadLink(int link, std::string& target) {
  std::array<char, PATH_MAX> text;
  const ssize_t size = readlinkat(link, "", text.data(), text.size());
  if (size < 0) return errno;
  target.assign(text.data(), static_cast<std::size_t>(size));
  return 0;
}

// True for a link of /proc to an open file or a process: the text of such a link is not a path.
bool IsOfProc(int descriptor) {
  struct statfs status;
  return fstatfs(descriptor, &status) == 0 && status.f_type == PROC_SUPER_MAGIC;
}

// Searches along one path. Each step opens the next name without following it, and then decides by the status of what
// was opened.
class Search {
 public:
  Search(const std::string& path, LinkRule links, FilePlace& place) : path_(path), links_(links), place_(place) {}

  ReplaceResult Run() {
    place_ = {};
    place_.path = path_;
    if (path_.empty()) return FailedAt(path_, ENOENT);
    if (ReplaceResult begun = BeginAt(path_); !begun.IsDone()) return begun;
    while (!is_found_) {
      if (ReplaceResult step = Step(); !step.IsDone()) return step;
    }
    return {};
  }

 private:
  // Sets the directory in which `path` begins, and the rest of the path.
  ReplaceResult BeginAt(const std::string& path) {
    rest_ = path;
    if (!path.starts_with('/') && place_.directory.IsOpen()) return {};
    place_.directory = file::Open(path.starts_with('/') ? "/" : ".", O_PATH | O_DIRECTORY);
    if (!place_.directory.IsOpen()) {
      const int error = errno;
      return FailedAt(path_, error);
    }
    const std::size_t begin = rest_.find_first_not_of('/');
    rest_ = begin == std::string::npos ? "." : rest_.substr(begin);
    return {};
  }

  ReplaceResult Step() {
    place_.name = TakeName(rest_);
    const bool is_last = rest_.empty();
    file::Descriptor next = file::Open(place_.name.c_str(), O_PATH | O_NOFOLLOW, 0, place_.directory.Number());
    const int open_error = errno;
    if (!next.IsOpen()) {
      is_found_ = is_last && open_error == ENOENT;
      return is_found_ ? ReplaceResult() : FailedAt(path_, open_error);
    }
    struct stat status = {};
    if (const int error = file::StatusOf(next.Number(), status); error != 0) return FailedAt(path_, error);
    if (S_ISLNK(status.st_mode)) return Follow(next, status, is_last);
    is_found_ = is_last;
    if (!is_last) place_.directory = std::move(next);
    return {};
  }

  ReplaceResult Follow(const file::Descriptor& link, const struct stat& status, bool is_last) {
    if (ReplaceResult checked = CheckLink(status, is_last); !checked.IsDone()) return checked;
    if (++links_followed_ > kLinksMax) return FailedAt(path_, ELOOP);
    if (IsOfProc(link.Number())) return FollowKernelLink(is_last);
    std::string target;
    if (const int error = ReadLink(link.Number(), target); error != 0) return FailedAt(path_, error);
    if (is_last) place_.path = Joined(place_.path, target);
    return BeginAt(is_last ? target : target + "/" + rest_);
  }

  ReplaceResult CheckLink(const struct stat& status, bool is_last) const {
    if (links_ == LinkRule::kAny) return {};
    if (!IsTrustedOwner(status.st_uid)) return {ReplaceState::kForeignLink, LinkName(), 0, status.st_uid};
    const bool is_refused = is_last && links_ == LinkRule::kTrustedDirectories;
    return is_refused ? ReplaceResult{ReplaceState::kLink, path_} : ReplaceResult();
  }

  // "l.csv" for the path "l.csv", "current (in out/current/load.csv)" for a directory on the way.
  std::string LinkName() const { return path_.ends_with(place_.name) ? path_ : place_.name + " (in " + path_ + ")"; }

  ReplaceResult FollowKernelLink(bool is_last) {
    place_.is_kernel_link = is_last;
    is_found_ = is_last;
    place_.path = path_;
    if (is_last) return {};
    file::Descriptor next = file::Open(place_.name.c_str(), O_PATH, 0, place_.directory.Number());
    const int error = errno;
    if (!next.IsOpen()) return FailedAt(path_, error);
    place_.directory = std::move(next);
    return {};
  }

  const std::string& path_;
  LinkRule links_;
  FilePlace& place_;
  std::string rest_;
  int links_followed_ = 0;
  bool is_found_ = false;
};

// True for files whose owner decides what a reader gets. A terminal does not count: its owner is the user who logged
// in, even if root works there.
bool HasOwner(const struct stat& status) { return S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode); }

int SetBlocking(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  return flags >= 0 && fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) == 0 ? 0 : errno;
}

ReplaceResult CheckOpened(const FilePlace& place, const struct stat& status, FileUse use, const FileRules& rules) {
  const bool is_named_file = S_ISREG(status.st_mode) && !place.is_kernel_link;
  if (rules.only_special && is_named_file) return {ReplaceState::kChanged, place.path};
  if (rules.accept_foreign) return {};
  if (ReplaceResult checked = CheckOwner(place, status, use); !checked.IsDone()) return checked;
  const bool has_one_name = use == FileUse::kRead || !is_named_file || status.st_nlink <= 1;
  return has_one_name ? ReplaceResult() : ReplaceResult{ReplaceState::kSeveralNames, place.path};
}

}  // namespace

bool IsTrustedOwner(uid_t owner) { return owner == 0 || owner == geteuid(); }

ReplaceResult FindPlace(const std::string& path, LinkRule links, FilePlace& place) {
  return Search(path, links, place).Run();
}

ReplaceResult OpenPlace(const FilePlace& place, int flags, mode_t mode, file::Descriptor& opened, struct stat& status) {
  const int no_link = place.is_kernel_link ? 0 : O_NOFOLLOW;
  file::Descriptor file = file::Open(place.name.c_str(), flags | no_link, mode, place.directory.Number());
  const int open_error = errno;
  if (!file.IsOpen() && open_error == ELOOP) return {ReplaceState::kChanged, place.path};
  if (!file.IsOpen()) return FailedAt(place.path, open_error);
  if (const int error = file::StatusOf(file.Number(), status); error != 0) return FailedAt(place.path, error);
  opened = std::move(file);
  return {};
}

ReplaceResult CheckOwner(const FilePlace& place, const struct stat& status, FileUse use) {
  if (place.is_kernel_link || !HasOwner(status) || status.st_uid == geteuid()) return {};
  if (use == FileUse::kRead && IsTrustedOwner(status.st_uid)) return {};
  return {ReplaceState::kForeignOwner, place.path, 0, status.st_uid};
}

ReplaceResult OpenChecked(const std::string& path, int flags, mode_t mode, const FileRules& rules,
                          file::Descriptor& opened) {
  FilePlace place;
  if (ReplaceResult found = FindPlace(path, rules.links, place); !found.IsDone()) return found;
  file::Descriptor file;
  struct stat status = {};
  if (ReplaceResult open = OpenPlace(place, flags, mode, file, status); !open.IsDone()) return open;
  const FileUse use = (flags & O_ACCMODE) == O_RDONLY ? FileUse::kRead : FileUse::kWrite;
  if (ReplaceResult checked = CheckOpened(place, status, use, rules); !checked.IsDone()) return checked;
  if (!S_ISREG(status.st_mode)) {
    if (const int error = SetBlocking(file.Number()); error != 0) return FailedAt(path, error);
  }
  opened = std::move(file);
  return {};
}

}  // namespace qx
