// The one seam to the system's file calls: a descriptor owner, opens, whole reads and writes, syncs and renames.
//
// What every call here has in common:
//   - It is repeated after EINTR, and a read or write after a short count, until it is complete or fails. WriteOnce is
//     the exception.
//   - A function that returns int returns 0 or the error number. A function that returns a descriptor or bool leaves
//     the error number in errno. Nothing throws, unless it says so.
//   - Files are opened close-on-exec, never as a controlling terminal, and non-blocking: the open of a FIFO without a
//     writer, or of a device, does not wait. Regular files do not notice.
//   - Most of these calls are cancellation points, so none is noexcept. The destructor of a descriptor is not a
//     cancellation point.
//
// Policies (backups, links, owners, locks of edits) are in base/tools/ReplacedFile.h. The streams that the store class
// owns by contract are opened on descriptors from here.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qx::file {

// Owns a descriptor, or none.
//
// Threads: one thread at a time.
// Owns: the descriptor; it is closed at the end of the scope.
// Failure: the destructor cannot report one. After a write, call Close: a full disk may show only there.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor();  // keeps errno, and is no cancellation point
  Descriptor(Descriptor&& other) noexcept : number_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  [[nodiscard]] bool IsOpen() const { return number_ >= 0; }
  // -1 if none is open.
  [[nodiscard]] int Number() const { return number_; }
  // The caller owns the number from here on.
  [[nodiscard]] int Release() noexcept;
  // Calls close once, even after EINTR: the number is then free, and may already be another thread's file. 0 if none
  // was open.
  [[nodiscard]] int Close();

 private:
  int number_ = -1;
};

// Opens anything. `flags` are those of open(2); a relative `path` begins at the descriptor `directory`. [any thread]
[[nodiscard]] Descriptor Open(const char* path, int flags, mode_t mode = 0, int directory = AT_FDCWD);

// Opens a regular file; EINVAL for anything else. O_TRUNC is refused with EINVAL as well: a caller checks a file before
// it empties it with Truncate. [any thread]
[[nodiscard]] Descriptor OpenRegular(const char* path, int flags, mode_t mode = 0, int directory = AT_FDCWD);

// Like OpenRegular, but ELOOP if any component of the path is a symbolic link; ENOSYS or EPERM where the kernel or a
// sandbox does not know that open. Programs use base/OwnedLinks.h. [any thread]
[[nodiscard]] Descriptor OpenRegularWithoutLinks(const char* path, int flags, mode_t mode = 0,
                                                 int directory = AT_FDCWD);

// Opens a directory for reading; ENOTDIR for anything else. `flags` may add O_NOFOLLOW. [any thread]
[[nodiscard]] Descriptor OpenDirectory(const char* path, int flags = 0, int directory = AT_FDCWD);

// How far a read or write came, and why it ended there.
struct Progress {
  std::size_t bytes = 0;
  int error = 0;  // 0: it is complete, or a read reached the end of the file

  [[nodiscard]] bool Failed() const { return error != 0; }
};

// Read and write at the file's own position.
[[nodiscard]] Progress Read(int descriptor, void* to, std::size_t size);
[[nodiscard]] Progress Write(int descriptor, std::string_view bytes);

// Read and write at `offset`; the file's own position stays.
[[nodiscard]] Progress ReadAt(int descriptor, std::int64_t offset, void* to, std::size_t size);
// Writes `first` and directly after it `second`: in one call, unless the system takes less than it was given.
[[nodiscard]] Progress WriteAt(int descriptor, std::int64_t offset, std::string_view first,
                               std::string_view second = {});

// One read of up to `size` bytes, repeated only after EINTR. Fewer bytes do not mean the end of the file; 0 bytes do.
// For searches that often end before the buffer is full. ReadSomeAt reads from `offset`.
[[nodiscard]] Progress ReadSome(int descriptor, void* to, std::size_t size);
[[nodiscard]] Progress ReadSomeAt(int descriptor, std::int64_t offset, void* to, std::size_t size);

// One write, never repeated. If a signal interrupts it, it returns EINTR, or a short count if some bytes were written
// before. For callers that a signal must stop while a slow reader keeps them waiting.
[[nodiscard]] Progress WriteOnce(int descriptor, std::string_view bytes);

// Lets the system copy up to `size` bytes from one file's own position to the other's, in one call, repeated only after
// EINTR. Not every pair of file systems can; 0 bytes are not always the end of the file.
[[nodiscard]] Progress CopySome(int from, int to, std::size_t size);

// The target of the link that the descriptor (O_PATH | O_NOFOLLOW) is open on; ENAMETOOLONG if it fills `size` bytes.
[[nodiscard]] Progress ReadLink(int link, char* to, std::size_t size);

// Appends what is left of the file to `bytes`. EFBIG if `bytes` would exceed `size_max`, ENOMEM without memory; what
// was read until then is in `bytes`.
[[nodiscard]] int ReadWhole(int descriptor, std::string& bytes, std::size_t size_max);

[[nodiscard]] int Truncate(int descriptor, std::int64_t size);
[[nodiscard]] int StatusOf(int descriptor, struct stat& status);
// The status of the file with this name; `flags` may be AT_SYMLINK_NOFOLLOW.
[[nodiscard]] int StatusOf(const char* path, struct stat& status, int flags = 0, int directory = AT_FDCWD);

// True if both describe one file, whatever its names.
[[nodiscard]] bool IsSameFile(const struct stat& left, const struct stat& right);
// True if both describe one file and nobody wrote to it in between, as far as size and time show.
[[nodiscard]] bool IsUnchanged(const struct stat& before, const struct stat& now);

// Sync: data and metadata. SyncData: data and what is needed to read it. SyncFileSystem: everything of the file system
// that the file is on.
[[nodiscard]] int Sync(int descriptor);
[[nodiscard]] int SyncData(int descriptor);
[[nodiscard]] int SyncFileSystem(int descriptor);
// Syncs everything of every file system. It cannot fail.
void SyncAllFileSystems();
// Opens the directory, syncs it and closes it.
[[nodiscard]] int SyncDirectory(const char* path, int directory = AT_FDCWD);

// "a/b" => "a"   "/a" => "/"   "a" => "."   "a/b/" => "a"   "" => "."
// [any thread] Throws std::bad_alloc.
[[nodiscard]] std::string DirectoryOf(std::string_view path);
// "a/b" => "b"   "a/b/" => "b"   "/" => ""   "" => ""
// [any thread] Throws std::bad_alloc.
[[nodiscard]] std::string NameOf(std::string_view path);

// Renames `from`, replacing `to`.
[[nodiscard]] int Rename(const char* from, const char* to);
[[nodiscard]] int Rename(int from_directory, const char* from, int to_directory, const char* to);
// EEXIST if there is a `to`. On a file system that cannot guarantee this, the check is made before the rename.
[[nodiscard]] int RenameWithoutReplacing(const char* from, const char* to, int from_directory = AT_FDCWD,
                                         int to_directory = AT_FDCWD);
// Swaps two names in one step.
[[nodiscard]] int Exchange(const char* left, const char* right);
// Gives a file a second name; EEXIST if there is anything of that name.
[[nodiscard]] int Link(const char* from, const char* to);
// Creates a directory; EEXIST if there is anything of that name.
[[nodiscard]] int MakeDirectory(const char* path, mode_t mode, int directory = AT_FDCWD);
// Appends the names in an open directory, in the system's order and without "." and "..", from its position to its end.
// ENOMEM without memory. After a failure `names` contains those that came before it.
[[nodiscard]] int ListNames(int directory, std::vector<std::string>& names);
// Removes a name; `flags` may be AT_REMOVEDIR.
[[nodiscard]] int Remove(const char* path, int flags = 0, int directory = AT_FDCWD);

// Takes the advisory lock of the file, exclusive, without waiting: EWOULDBLOCK if another open file holds it.
[[nodiscard]] int TryLock(int descriptor);

}  // namespace qx::file
