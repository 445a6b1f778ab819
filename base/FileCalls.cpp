#include "base/FileCalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

namespace qx::calls {

int OpenAt(int directory, const char* path, int flags, mode_t mode) { return ::openat(directory, path, flags, mode); }
int OpenWithoutLinksAt(int directory, const char* path, int flags, mode_t mode) {
  open_how how = {};
  how.flags = static_cast<unsigned>(flags);
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how));
}
ssize_t ReadLinkAt(int directory, const char* path, char* to, std::size_t size) {
  return ::readlinkat(directory, path, to, size);
}
int Close(int descriptor) { return ::close(descriptor); }

ssize_t Read(int descriptor, void* to, std::size_t size) { return ::read(descriptor, to, size); }
ssize_t ReadAt(int descriptor, void* to, std::size_t size, off_t offset) {
  return ::pread(descriptor, to, size, offset);
}
ssize_t Write(int descriptor, const void* from, std::size_t size) { return ::write(descriptor, from, size); }
ssize_t WriteAt(int descriptor, const void* from, std::size_t size, off_t offset) {
  return ::pwrite(descriptor, from, size, offset);
}
ssize_t WriteVectorAt(int descriptor, const iovec* parts, int count, off_t offset) {
  return ::pwritev(descriptor, parts, count, offset);
}
ssize_t CopyRange(int from, int to, std::size_t size) { return ::copy_file_range(from, nullptr, to, nullptr, size, 0); }

int Truncate(int descriptor, off_t size) { return ::ftruncate(descriptor, size); }
int Status(int descriptor, struct stat* status) { return ::fstat(descriptor, status); }
int StatusAt(int directory, const char* path, struct stat* status, int flags) {
  return ::fstatat(directory, path, status, flags);
}

int Sync(int descriptor) { return ::fsync(descriptor); }
int SyncData(int descriptor) { return ::fdatasync(descriptor); }
int SyncFileSystem(int descriptor) { return ::syncfs(descriptor); }
void SyncAllFileSystems() { ::sync(); }

int Rename(const char* from, const char* to) { return ::rename(from, to); }
int RenameAt(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) {
  return ::renameat2(from_directory, from, to_directory, to, flags);
}
int Link(const char* from, const char* to) { return ::link(from, to); }
int MakeDirectoryAt(int directory, const char* path, mode_t mode) { return ::mkdirat(directory, path, mode); }
ssize_t ReadEntries(int directory, void* to, std::size_t size) { return ::getdents64(directory, to, size); }
int UnlinkAt(int directory, const char* path, int flags) { return ::unlinkat(directory, path, flags); }
int Lock(int descriptor, int operation) { return ::flock(descriptor, operation); }

}  // namespace qx::calls
