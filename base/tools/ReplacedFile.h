// Replaces a whole file with care, for tools that edit what services read: the new content is made beside the file and
// takes its place in one step, and only if the file is still the one that was read.
//
//   registry                       the file
//   registry.edit                  the new content while it is made; locked, so that two edits do not meet
//   registry.20261121-101500.bak   what stood there before
//
// A process that is killed leaves the file as it was, or replaced, and perhaps a "registry.edit", which the next edit
// takes over. The module does not use any of this.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

namespace qx {

enum class ReplaceState {
  kDone,
  kNotFound,    // there is no such file
  kNotRegular,  // it is a directory, a device, ...
  kLink,        // it is a symbolic link
  kBusy,        // another edit of the file is at work
  kChanged,     // the file is not the one any more that was read
  kFailed,      // a call failed
};

struct ReplaceResult {
  ReplaceState state = ReplaceState::kDone;
  std::string file = {};  // the file that stood in the way
  int error = 0;          // kFailed: the error number

  [[nodiscard]] bool IsDone() const { return state == ReplaceState::kDone; }
};

// A file as it was read.
struct FileImage {
  std::string bytes;
  struct stat status = {};
  bool exists = false;
};

// Larger files are no configuration: reading one fails with EFBIG.
inline constexpr std::size_t kFileImageBytesMax = std::size_t{64} << 20;

// Reads the regular file at `path`; links are followed. `image` is untouched on failure. [any thread]
[[nodiscard]] ReplaceResult ReadFileImage(const std::string& path, FileImage& image);

// One edit of one file.
//
// Threads: one thread.
// Owns: the file beside it until Commit, and the backup until the edit is in place; both are removed otherwise.
// Failure: after any failure the file is as it was, unless IsInPlace() says that only the last sync failed. A file
// beside it that cannot be locked is left, because it may be another's.
class ReplacedFile {
 public:
  struct Options {
    bool follow_link = false;     // edit what a symbolic link leads to, instead of refusing
    bool may_be_missing = false;  // a file that is not there counts as an empty one
    bool only_look = false;       // read it alone: nothing is locked, and nothing can be written
  };

  ReplacedFile() = default;
  ~ReplacedFile();
  ReplacedFile(const ReplacedFile&) = delete;
  ReplacedFile& operator=(const ReplacedFile&) = delete;

  // Locks and reads the file. Once for each object. [owning thread]
  [[nodiscard]] ReplaceResult Begin(const std::string& path, Options options);

  // The file as Begin read it. [owning thread]
  [[nodiscard]] const FileImage& Image() const { return image_; }
  // Where the new content is made, empty at first. Whoever writes there by name must not replace it. [owning thread]
  [[nodiscard]] const std::string& CopyPath() const { return copy_path_; }
  // Makes the new content `bytes`. [owning thread]
  [[nodiscard]] ReplaceResult WriteCopy(std::string_view bytes);

  // Gives the copy mode and owner of the file (0644 if there was none), syncs it, and puts it in place, after a backup
  // of mode, owner and time of the file if `with_backup`. [owning thread]
  [[nodiscard]] ReplaceResult Commit(bool with_backup);

  [[nodiscard]] bool IsInPlace() const { return is_in_place_; }
  // Empty when there is no backup. [owning thread]
  [[nodiscard]] const std::string& BackupPath() const { return backup_path_; }

 private:
  [[nodiscard]] ReplaceResult FindTarget(const std::string& path, Options options);
  [[nodiscard]] ReplaceResult LockCopy();
  [[nodiscard]] ReplaceResult CheckUnchanged() const;
  [[nodiscard]] ReplaceResult WriteBackup();
  [[nodiscard]] ReplaceResult PutInPlace();

  std::string path_;  // links resolved
  std::string copy_path_;
  std::string backup_path_;
  FileImage image_;
  int copy_ = -1;
  bool is_in_place_ = false;
};

}  // namespace qx
