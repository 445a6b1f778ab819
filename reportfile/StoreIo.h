// A store's files: which are accepted, and how they become the streams that the class owns. Reads and writes go through
// base/File.h, on the descriptors of the streams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/File.h"

namespace qx::report {

enum class OpenMode {
  kRead,    // must exist
  kUpdate,  // must exist; read and write
  kCreate,  // created or emptied, mode 0644 whatever the file-creation mask; read and write
};

// Opens a regular file, close-on-exec. Not open, with errno set: EINVAL for anything but a regular file, which is
// neither waited for (a FIFO without a writer) nor emptied.
[[nodiscard]] file::Descriptor OpenRegularFile(const std::string& path, OpenMode mode);

// A stream that owns the descriptor. Null with errno set without memory; the descriptor is closed then.
[[nodiscard]] std::FILE* StreamOf(file::Descriptor descriptor, OpenMode mode);

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
