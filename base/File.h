// Wraps the system's file calls, and is the only way to them: a class that owns a descriptor, opens, complete reads and
// writes, syncs and renames.
//
// Rules for all functions of this file:
//   - A call is repeated after EINTR; a read or write also after a short count, until it is complete or fails. The
//     exceptions are WriteOnce, ReadSome, ReadSomeAt and CopySome.
//   - A function that returns int returns 0 or the error number. A function that returns a descriptor or bool leaves
//     the error number in errno. Nothing throws, unless it says so.
//   - Files are opened close-on-exec, never as a controlling terminal, and non-blocking: the open of a FIFO without a
//     writer, or of a device, does not wait. For regular files this makes no difference.
//   - Most of these calls are cancellation points, so none is noexcept. The destructor of a descriptor is not a
//     cancellation point.
//
// Not here: rules for backups, links, owners and locks of edits (base/tools/ReplacedFile.h). The store class
// (reportfile/ReportFileBase.h) opens its streams on descriptors from here.
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

// An open descriptor, or none.
//
// Threads: one thread at a time.
// Owns: the descriptor; it is closed at the end of the scope.
// Failure: the destructor cannot report a failure. After a write, call Close: a full disk may be reported only there.
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
  // -1 if no descriptor is open.
  [[nodiscard]] int Number() const { return number_; }
  // Returns the number; from now on the caller owns it.
  [[nodiscard]] int Release() noexcept;
  // Calls close once, even after EINTR: the number is then free, and another thread may already use it for a new file.
  // 0 if no descriptor was open.
  [[nodiscard]] int Close();

 private:
  int number_ = -1;
};

// Opens anything. `flags` are those of open(2); a relative `path` begins at the descriptor `directory`. [any thread]
[[nodiscard]] Descriptor Open(const char* path, int flags, mode_t mode = 0, int directory = AT_FDCWD);

// Opens a regular file; EINVAL for anything else. O_TRUNC is refused with EINVAL as well: a caller checks a file before
// it empties it with Truncate. [any thread]
[[nodiscard]] Descriptor OpenRegular(const char* path, int flags, mode_t mode = 0, int directory = AT_FDCWD);

// Like OpenRegular, but ELOOP if any component of the path is a symbolic link; ENOSYS or EPERM if the kernel or a
// sandbox does not know the call openat2. Programs should use base/OwnedLinks.h. [any thread]
[[nodiscard]] Descriptor OpenRegularWithoutLinks(const char* path, int flags, mode_t mode = 0,
                                                 int directory = AT_FDCWD);

// Opens a directory for reading; ENOTDIR for anything else. `flags` may add O_NOFOLLOW. [any thread]
[[nodiscard]] Descriptor OpenDirectory(const char* path, int flags = 0, int directory = AT_FDCWD);

// How many bytes were read or written, and why not more.
struct Progress {
  std::size_t bytes = 0;
  int error = 0;  // 0: it is complete, or a read reached the end of the file

  [[nodiscard]] bool Failed() const { return error != 0; }
};

// Read and write at the file's own position.
[[nodiscard]] Progress Read(int descriptor, void* to, std::size_t size);
[[nodiscard]] Progress Write(int descriptor, std::string_view bytes);

// Read and write at `offset`; the file's own position does not change.
[[nodiscard]] Progress ReadAt(int descriptor, std::int64_t offset, void* to, std::size_t size);
// Writes `first` and directly after it `second`, with one call unless the system writes only a part.
[[nodiscard]] Progress WriteAt(int descriptor, std::int64_t offset, std::string_view first,
                               std::string_view second = {});

// Reads up to `size` bytes with one call, repeated only after EINTR. 0 bytes mean the end of the file; any other number
// below `size` does not. For searches that often end before the buffer is full. ReadSomeAt reads from `offset`.
[[nodiscard]] Progress ReadSome(int descriptor, void* to, std::size_t size);
[[nodiscard]] Progress ReadSomeAt(int descriptor, std::int64_t offset, void* to, std::size_t size);

// Writes with one call, which is never repeated. If a signal interrupts it, the result is EINTR, or a short count if
// some bytes were written before. For callers that wait for a slow reader and must stop at a signal.
[[nodiscard]] Progress WriteOnce(int descriptor, std::string_view bytes);

// Lets the system copy up to `size` bytes from one file's own position to the other's, in one call, repeated only after
// EINTR. Not possible between every two file systems; 0 bytes do not always mean the end of the file.
[[nodiscard]] Progress CopySome(int from, int to, std::size_t size);

// The target of the link that the descriptor (O_PATH | O_NOFOLLOW) is open on; ENAMETOOLONG if it fills `size` bytes.
[[nodiscard]] Progress ReadLink(int link, char* to, std::size_t size);

// Appends the rest of the file to `bytes`. EFBIG if `bytes` becomes larger than `size_max`, ENOMEM if memory runs out;
// `bytes` then has what was read so far.
[[nodiscard]] int ReadWhole(int descriptor, std::string& bytes, std::size_t size_max);

[[nodiscard]] int Truncate(int descriptor, std::int64_t size);
[[nodiscard]] int StatusOf(int descriptor, struct stat& status);
// The status of the file with this name; `flags` may be AT_SYMLINK_NOFOLLOW.
[[nodiscard]] int StatusOf(const char* path, struct stat& status, int flags = 0, int directory = AT_FDCWD);

// True if both describe the same file.
[[nodiscard]] bool IsSameFile(const struct stat& left, const struct stat& right);
// True if both describe the same file with the same size and time of modification.
[[nodiscard]] bool IsUnchanged(const struct stat& before, const struct stat& now);

// Sync writes data and metadata of the file to the disk. SyncData writes the data and the metadata that a read needs.
// SyncFileSystem writes everything of the file's file system.
[[nodiscard]] int Sync(int descriptor);
[[nodiscard]] int SyncData(int descriptor);
[[nodiscard]] int SyncFileSystem(int descriptor);
// Syncs all file systems. Cannot fail.
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
// Like Rename, but fails with EEXIST if `to` exists. A file system without such a rename gets a check before the rename
// instead.
[[nodiscard]] int RenameWithoutReplacing(const char* from, const char* to, int from_directory = AT_FDCWD,
                                         int to_directory = AT_FDCWD);
// Swaps two names in one step.
[[nodiscard]] int Exchange(const char* left, const char* right);
// Makes a second name `to` for the file `from`; EEXIST if anything has the name `to`.
[[nodiscard]] int Link(const char* from, const char* to);
// Creates a directory; EEXIST if anything has this name.
[[nodiscard]] int MakeDirectory(const char* path, mode_t mode, int directory = AT_FDCWD);
// Appends the names in an open directory, in the system's order and without "." and "..", from its read position to its
// end. ENOMEM if memory runs out. After a failure `names` has the names before it.
[[nodiscard]] int ListNames(int directory, std::vector<std::string>& names);
// Removes a name; `flags` may be AT_REMOVEDIR.
[[nodiscard]] int Remove(const char* path, int flags = 0, int directory = AT_FDCWD);

// Takes the advisory lock of the file, exclusive, without waiting: EWOULDBLOCK if another open file holds it.
[[nodiscard]] int TryLock(int descriptor);

}  // namespace qx::file
