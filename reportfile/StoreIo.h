// Opens a store's files as the streams that CReportFileBase owns, and checks which files are accepted. Reads and writes
// use base/File.h, on the descriptors of the streams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/File.h"

namespace qx::report {

enum class OpenMode {
  kRead,          // must exist
  kUpdate,        // must exist; read and write
  kCreate,        // created with mode 0644 if it is missing; read and write
  kCreateToRead,  // created with mode 0644 if it is missing; read only
};

// Opens a regular file, close-on-exec. After a failure the descriptor is not open, and errno is set: EINVAL for
// anything but a regular file. Does not wait for the writer of a FIFO. Follows every link. [any thread]
[[nodiscard]] file::Descriptor OpenRegularFile(const std::string& path, OpenMode mode);

// Opens a file of a store like OpenRegularFile, but fails with ELOOP if its path leads through a link that
// base/OwnedLinks.h does not trust. Links above the report directory that the registry names are trusted, because
// somebody who may write the registry chose them. After a transient error (EMFILE, ENFILE, ENOMEM) it tries again,
// three times in all. Throws std::bad_alloc. [any thread]
[[nodiscard]] file::Descriptor OpenStoreFile(const std::string& path, OpenMode mode);

// The two files of a store as streams; null if not open.
struct StoreStreams {
  std::FILE* data = nullptr;
  std::FILE* index = nullptr;
  bool is_new = false;  // both are empty, and have just been given mode 0644
};

// Opens both files for reading. A file that cannot be opened stays null; errno is that of the index file if its open
// failed, otherwise that of the data file. Throws std::bad_alloc, with nothing left open. [any thread]
[[nodiscard]] StoreStreams OpenToRead(const std::string& base_path);

// Opens both files for reading and writing. If one is missing, both are created or emptied; neither is emptied before
// both are open and checked. Takes the advisory lock of the index file if it is free. If any step fails, both are null,
// with the error number of that step in errno. Throws as OpenToRead. [any thread]
[[nodiscard]] StoreStreams OpenToWrite(const std::string& base_path);

// True, with the file's size, for an index file that holds no header yet. [any thread]
[[nodiscard]] bool LacksHeader(std::FILE* index_file, std::int64_t& size);

// Up to `size` bytes at `offset`: file::ReadAt on the stream's descriptor.
[[nodiscard]] inline file::Progress ReadAt(std::FILE* file, std::int64_t offset, void* to, std::size_t size) {
  return file::ReadAt(fileno(file), offset, to, size);
}

// `first` and, directly after it, `second` at `offset`: file::WriteAt on the stream's descriptor. Returns how many
// bytes were written before an error, which is then in errno.
[[nodiscard]] inline std::size_t WriteAt(std::FILE* file, std::int64_t offset, std::string_view first,
                                         std::string_view second = {}) {
  return file::WriteAt(fileno(file), offset, first, second).bytes;
}

}  // namespace qx::report
