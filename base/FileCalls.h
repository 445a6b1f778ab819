// Declares one function for each of the system's file calls. Only base/File.cpp calls these functions; it adds the
// rules of base/File.h. A test program that has to make a call fail links another implementation of these functions
// (tests/support/FailingFileCalls.cpp), so the module needs no switch for such tests.
//
// Each function makes one call of the system. After a failure it returns -1 with errno; after EINTR it does not repeat
// the call.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

namespace qx::calls {

int OpenAt(int directory, const char* path, int flags, mode_t mode);
// openat2 with RESOLVE_NO_SYMLINKS: ELOOP if there is a symbolic link anywhere in the path.
int OpenWithoutLinksAt(int directory, const char* path, int flags, mode_t mode);
ssize_t ReadLinkAt(int directory, const char* path, char* to, std::size_t size);
int Close(int descriptor);

ssize_t Read(int descriptor, void* to, std::size_t size);
ssize_t ReadAt(int descriptor, void* to, std::size_t size, off_t offset);
ssize_t Write(int descriptor, const void* from, std::size_t size);
ssize_t WriteAt(int descriptor, const void* from, std::size_t size, off_t offset);
ssize_t WriteVectorAt(int descriptor, const iovec* parts, int count, off_t offset);
ssize_t CopyRange(int from, int to, std::size_t size);  // copy_file_range

int Truncate(int descriptor, off_t size);
int Status(int descriptor, struct stat* status);
int StatusAt(int directory, const char* path, struct stat* status, int flags);

int Sync(int descriptor);
int SyncData(int descriptor);
int SyncFileSystem(int descriptor);
void SyncAllFileSystems();

int Rename(const char* from, const char* to);
int RenameAt(int from_directory, const char* from, int to_directory, const char* to, unsigned flags);
int Link(const char* from, const char* to);
int MakeDirectoryAt(int directory, const char* path, mode_t mode);
ssize_t ReadEntries(int directory, void* to, std::size_t size);  // getdents64
int UnlinkAt(int directory, const char* path, int flags);
int Lock(int descriptor, int operation);

}  // namespace qx::calls
