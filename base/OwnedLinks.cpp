#include "base/OwnedLinks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace qx::file {

namespace {

// The kernel follows the same number of links in one path. A name that is exchanged again and again counts each time.
constexpr int kLinksMax = 40;

// The part of a path that the walk has not reached yet. The text is at the end of the buffer, so that the target of a
// link can be added in front of it.
class PathRest {
 public:
  [[nodiscard]] bool IsEmpty() const { return begin_ == PATH_MAX; }

  // "c/d" and "/a/b" => "/a/b/c/d". ENAMETOOLONG if the result is longer than a path may be.
  [[nodiscard]] int Prepend(std::string_view front) {
    const std::size_t slash = IsEmpty() ? 0 : 1;
    if (front.size() + slash > begin_) return ENAMETOOLONG;
    if (slash != 0) text_[--begin_] = '/';
    begin_ -= front.size();
    std::char_traits<char>::move(text_ + begin_, front.data(), front.size());  // `front` may be a part of the buffer
    return 0;
  }

  // Takes off the first name: "/a/b" => "a", and "b" is left. Valid until the next Prepend.
  const char* TakeName() {
    while (text_[begin_] == '/') ++begin_;
    char* const name = text_ + begin_;
    while (!IsEmpty() && text_[begin_] != '/') ++begin_;
    while (!IsEmpty() && text_[begin_] == '/') text_[begin_++] = '\0';
    return name;
  }

 private:
  char text_[PATH_MAX + 1] = {};
  std::size_t begin_ = PATH_MAX;
};

// Walks along a path, from descriptor to descriptor.
//
// Threads: one thread. Failure: the walk ends with the error number in errno.
class Walk {
 public:
  Walk(TrustedLinks trusted, int start) : trusted_(trusted), start_(start) {}

  Descriptor Open(const char* path, int flags, mode_t mode) {
    if (!GoTo(path)) return {};
    for (;;) {
      const char* const name = rest_.TakeName();
      struct stat status = {};
      Descriptor node = file::Open(name, O_PATH | O_NOFOLLOW, 0, At());
      const int error = node.IsOpen() ? StatusOf(node.Number(), status) : errno;
      const bool is_created = error == ENOENT && rest_.IsEmpty() && (flags & O_CREAT) != 0;
      if (error != 0 && !is_created) return Failed(error);

      if (error == 0 && S_ISLNK(status.st_mode)) {
        if (!Follow(node.Number(), status.st_uid)) return {};
      } else if (!rest_.IsEmpty()) {
        directory_ = std::move(node);
      } else {
        if (!IsOwnerOfLinks(status.st_uid)) return Failed(ELOOP);  // before the open, which a device would notice
        Descriptor file = OpenRegular(name, flags | O_NOFOLLOW, mode, At());
        if (file.IsOpen()) return Checked(std::move(file));
        if (errno != ELOOP || !GoTo(name)) return {};  // ELOOP: the name has become a link meanwhile
      }
    }
  }

 private:
  static Descriptor Failed(int error) {
    errno = error;
    return {};
  }

  [[nodiscard]] int At() const { return directory_.IsOpen() ? directory_.Number() : start_; }

  // Puts `path` in front of the rest. If it is absolute, continues at the root directory.
  [[nodiscard]] bool GoTo(std::string_view path) {
    const int error = path.empty() ? ENOENT : ++paths_ > kLinksMax + 1 ? ELOOP : rest_.Prepend(path);
    if (error != 0) {
      errno = error;
      return false;
    }
    if (path.front() != '/') return true;
    directory_ = file::Open("/", O_PATH | O_DIRECTORY);
    return directory_.IsOpen();
  }

  [[nodiscard]] bool Follow(int link, uid_t owner) {
    if (!Trusts(owner)) {
      errno = ELOOP;
      return false;
    }
    char target[PATH_MAX];
    const Progress progress = ReadLink(link, target, sizeof target);
    return !progress.Failed() && GoTo({target, progress.bytes});
  }

  // A stranger is any user but root and the effective user. A stranger's link is trusted only if this stranger also
  // owns the file; so a path with links of two strangers is never trusted.
  [[nodiscard]] bool Trusts(uid_t owner) {
    if (owner == 0 || owner == geteuid()) return true;
    if (trusted_ == TrustedLinks::kToWrite || (has_stranger_ && owner != stranger_)) return false;
    has_stranger_ = true;
    stranger_ = owner;
    return true;
  }

  [[nodiscard]] bool IsOwnerOfLinks(uid_t owner) const { return !has_stranger_ || owner == stranger_; }

  [[nodiscard]] Descriptor Checked(Descriptor file) const {
    struct stat status;
    if (!has_stranger_) return file;
    if (const int error = StatusOf(file.Number(), status)) return Failed(error);
    return IsOwnerOfLinks(status.st_uid) ? std::move(file) : Failed(ELOOP);
  }

  const TrustedLinks trusted_;
  const int start_;
  PathRest rest_;
  Descriptor directory_;  // not open: at the start
  int paths_ = 0;
  bool has_stranger_ = false;
  uid_t stranger_ = 0;  // the owner of the links of neither root nor the effective user
};

// True if the path has a link, or if the kernel or a sandbox does not know the call or cannot decide.
bool NeedsWalk(int error) { return error == ELOOP || error == ENOSYS || error == EPERM || error == EAGAIN; }

}  // namespace

Descriptor OpenThroughOwnedLinks(const char* path, int flags, mode_t mode, TrustedLinks trusted, int directory) {
  Descriptor file = OpenRegularWithoutLinks(path, flags, mode, directory);
  if (file.IsOpen() || !NeedsWalk(errno)) return file;
  return Walk(trusted, directory).Open(path, flags, mode);
}

}  // namespace qx::file
