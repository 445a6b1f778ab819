// Writes files as a whole or not at all: private directories, copies and removals for the store tools.
//
// Everything here reports an error number, 0 for success. A tool writes under a temporary name, syncs, and renames at
// the end; a crash before that leaves the real names unchanged. Files in a directory that other users may write are
// reached only by names in open directories, and never through a symbolic link.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "base/File.h"

namespace qx::report {

class ByteSource;

// "a", "b" => "a/b"   "", "b" => "b" [any thread]
[[nodiscard]] inline std::string PathIn(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + "/" + name;
}

// Opens a regular file for reading. In an open directory a symbolic link at the end of `name` is not followed (ELOOP).
// With AT_FDCWD the links are checked as by OpenStoreFile. [any thread]
[[nodiscard]] file::Descriptor OpenForReading(const std::string& name, int directory);

// Opens the directory that an operator or the registry names. If `path` is a symbolic link, or leads to another link,
// each of these links is followed only if root or the effective user owns it (ELOOP otherwise): a link of another user
// would choose what root reads or replaces. [any thread]
[[nodiscard]] file::Descriptor OpenNamedDirectory(const std::string& path);

// Syncs the file or directory of this name. [any thread]
[[nodiscard]] int SyncName(const std::string& name, int directory = AT_FDCWD);

// Removes everything in the open `directory`, without following links. What cannot be removed is left, and the first
// error number is returned. [any thread]
[[nodiscard]] int RemoveContents(int directory);

// An unused name: `prefix` and six random characters. [any thread]
[[nodiscard]] std::string WithRandomEnd(const std::string& prefix);

// Opens the directories below an open one. Each is opened by its name in the one above it, never through a link.
//
// Threads: one thread.
// Owns: the top and the last requested directory.
class DirectoriesBelow {
 public:
  explicit DirectoriesBelow(file::Descriptor top) : top_(std::move(top)) {}

  [[nodiscard]] bool IsOpen() const { return top_.IsOpen(); }
  [[nodiscard]] int Top() const { return top_.Number(); }
  // The open directory of this path below the top; "" is the top. -1 with errno after a failure. Valid until the next
  // call.
  [[nodiscard]] int At(const std::string& path);
  // Like At, for the directory that contains `path`: "a/b/c" => a/b, "c" => the top.
  [[nodiscard]] int Containing(const std::string& path) { return At(Above(path)); }

  // "a/b/c" => "a/b"   "c" => ""
  [[nodiscard]] static std::string Above(const std::string& path);

 private:
  file::Descriptor top_;
  file::Descriptor last_;
  std::string last_path_;
};

// A file that is being made: removed at the end of the scope unless it was finished.
//
// Threads: one thread. Failure: the first error is kept, and everything after it does nothing.
class NewFile {
 public:
  // Creates `path`, mode 0600; EEXIST if there is something already. A relative path begins at the open `directory`,
  // which has to outlive this object.
  explicit NewFile(std::string path, int directory = AT_FDCWD);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Copies the contents of `source` up to its present end. Holes stay holes. A read error ends the copy as the end of
  // the source does; only the source reports the error. [owning thread]
  void CopyFrom(ByteSource& source);
  // [owning thread]
  void WriteAt(std::int64_t offset, std::string_view bytes);
  // [owning thread]
  [[nodiscard]] std::size_t ReadAt(std::int64_t offset, void* to, std::size_t size) const;
  // Cuts the file to `size`. [owning thread]
  void Shorten(std::int64_t size);
  // Sets the permissions, times and, if this user may, the owner of `status`, syncs the file and closes it. Returns the
  // error number. [owning thread]
  [[nodiscard]] int Finish(const struct stat& status);

  [[nodiscard]] const std::string& Path() const { return path_; }
  [[nodiscard]] int Error() const { return error_; }

 private:
  void TakeOver(const struct stat& status);
  [[nodiscard]] std::int64_t CopyRun(ByteSource& source, std::int64_t begin, std::int64_t end, char* block);

  std::string path_;
  int directory_;
  file::Descriptor file_;
  int error_;
  bool is_made_;
  bool is_finished_ = false;
};

struct CopiedFile {
  int error = 0;
  bool is_source_error = false;  // the error is one of reading, not of writing
  struct stat status = {};       // of the source when the copy began
};

// Copies the regular file `name` of one open directory to `new_name` in another, which must not exist. The new file
// gets the permissions, owner and times of `like`, or those of the source if `like` is null. A symbolic link is not
// followed. [any thread]
[[nodiscard]] CopiedFile CopyRegularFile(const std::string& name, int directory, const std::string& new_name,
                                         int new_directory, const struct stat* like = nullptr);

// A new directory, mode 0700, whose name is the prefix and six random characters; removed with everything in it at the
// end of the scope unless it was renamed. Symbolic links in it are removed, not followed. If the path leads through a
// link of another user, the directory is not made (ELOOP).
//
// Owns: the open directory, and the open directory that contains it.
class PrivateDirectory {
 public:
  explicit PrivateDirectory(const std::string& prefix);
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  // [any thread]
  [[nodiscard]] const std::string& Path() const { return path_; }
  // The open directory. [any thread]
  [[nodiscard]] int Number() const { return directory_.Number(); }
  // The open directory that contains it. [any thread]
  [[nodiscard]] int Above() const { return above_.Number(); }
  // 0, or why it could not be made. [any thread]
  [[nodiscard]] int Error() const { return error_; }
  // Renames it to `name` in the same directory, where there is nothing or an empty directory, and keeps it. Returns the
  // error number. [owning thread]
  [[nodiscard]] int RenameTo(const std::string& name);
  // Syncs the directory that contains it. [owning thread]
  [[nodiscard]] int SyncAbove() const { return SyncName(".", above_.Number()); }

 private:
  std::string path_;
  std::string name_;
  file::Descriptor above_;
  file::Descriptor directory_;
  int error_ = 0;
};

}  // namespace qx::report
