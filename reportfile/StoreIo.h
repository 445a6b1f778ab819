// Regular files and positioned, complete reads and writes: what the store needs of the system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace qx::report {

enum class OpenMode {
  kRead,    // must exist
  kUpdate,  // must exist; read and write
  kCreate,  // created or emptied, mode 0644 whatever the file-creation mask; read and write
};

// Opens a regular file, close-on-exec. Null with errno set; EINVAL for anything but a regular file, which is never
// waited for (a FIFO without a writer) nor emptied.
[[nodiscard]] std::FILE* OpenRegularFile(const std::string& path, OpenMode mode);

// Reads up to `size` bytes at `offset`. Returns how many came before the end of the file or an error.
[[nodiscard]] std::size_t ReadAt(std::FILE* file, std::int64_t offset, void* to, std::size_t size);

// Writes `first` and, right behind it, `second` at `offset`, in one call unless the system takes less than it was
// given. Returns how many bytes were written before an error, which is then in errno.
[[nodiscard]] std::size_t WriteAt(std::FILE* file, std::int64_t offset, std::string_view first,
                                  std::string_view second = {});

}  // namespace qx::report
