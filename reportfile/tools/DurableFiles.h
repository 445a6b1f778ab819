// Files that appear whole, or not at all: private directories, copies, syncs and renames for the store tools.
//
// Everything here reports an error number, 0 for success. A tool writes under a name that nobody takes for the real
// thing, syncs, and renames at the end; a crash before that leaves the real names as they were.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qx::report {

class ByteSource;

// The directory that holds the last component of `path`: "a/b" => "a", "/a" => "/", "a" => ".". [any thread]
[[nodiscard]] std::string ParentOf(const std::string& path);
// The last component: "a/b" => "b", "a/" => "a". [any thread]
[[nodiscard]] std::string NameOf(const std::string& path);

// "a", "b" => "a/b" [any thread]
[[nodiscard]] inline std::string PathIn(const std::string& directory, const std::string& name) {
  return directory + "/" + name;
}

// Syncs a file or a directory. [any thread]
[[nodiscard]] int SyncPath(const std::string& path);

// Renames, failing with EEXIST when `to` exists. [any thread]
[[nodiscard]] int RenameWithoutReplacing(const std::string& from, const std::string& to);

// Removes the file or directory and everything in it; symbolic links are removed, not followed. What cannot be removed
// is passed over, and the first error number returned. [any thread]
[[nodiscard]] int RemoveTree(const std::string& path);

// A file that is being made: removed at the end of the scope unless it was finished.
//
// Threads: one thread. Failure: the first error stays and makes everything behind it do nothing.
class NewFile {
 public:
  // Creates `path`, mode 0600; EEXIST when there is something already.
  explicit NewFile(std::string path);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Makes the contents that of `source` from its beginning to where it ends now. A read error is the source's affair:
  // it looks like an early end. [owning thread]
  void CopyFrom(ByteSource& source);
  // [owning thread]
  void WriteAt(std::int64_t offset, std::string_view bytes);
  // [owning thread]
  [[nodiscard]] std::size_t ReadAt(std::int64_t offset, void* to, std::size_t size) const;
  // Cuts off what is behind `size`. [owning thread]
  void Shorten(std::int64_t size);
  // Gives it the permissions, times and, as far as this user may, owner of `status`, syncs and closes it. Returns the
  // error number. [owning thread]
  [[nodiscard]] int Finish(const struct stat& status);

  [[nodiscard]] const std::string& Path() const { return path_; }
  [[nodiscard]] int Error() const { return error_; }

 private:
  void TakeOver(const struct stat& status);

  std::string path_;
  int fd_;
  int error_;
  bool is_finished_ = false;
};

struct CopiedFile {
  int error = 0;
  bool is_source_error = false;  // the error is that of reading, not of writing
  struct stat status = {};       // of the source when the copy began
};

// Copies the regular file `from` to `to`, which must not exist, as NewFile::Finish leaves it. Symbolic links are
// followed. [any thread]
[[nodiscard]] CopiedFile CopyRegularFile(const std::string& from, const std::string& to);

// A new directory, mode 0700, whose name is the prefix and six random characters; removed with everything in it at the
// end of the scope unless it was released. Symbolic links in it are removed, not followed.
class PrivateDirectory {
 public:
  explicit PrivateDirectory(const std::string& prefix);
  ~PrivateDirectory();
  PrivateDirectory(const PrivateDirectory&) = delete;
  PrivateDirectory& operator=(const PrivateDirectory&) = delete;

  // [any thread]
  [[nodiscard]] const std::string& Path() const { return path_; }
  // 0, or why there is none. [any thread]
  [[nodiscard]] int Error() const { return error_; }
  // Keeps the directory: it has been renamed. [owning thread]
  void Release() { is_ours_ = false; }

 private:
  std::string path_;
  int error_ = 0;
  bool is_ours_ = false;
};

}  // namespace qx::report
