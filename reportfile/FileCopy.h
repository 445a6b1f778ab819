// Internal: copies one regular file to a new or an existing file.
#pragma once

#include <sys/stat.h>

namespace qx::report {

// The identity of a file, whatever its name: hard links and symbolic links name the same one.
struct FileId {
  dev_t device = 0;
  ino_t number = 0;
  bool operator==(const FileId&) const = default;
};

inline FileId IdOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

// What `stat` says about a file, as far as a copy needs it.
struct FileKind {
  FileId id;
  mode_t mode = 0;

  [[nodiscard]] bool IsDirectory() const { return S_ISDIR(mode); }
  [[nodiscard]] bool IsRegular() const { return S_ISREG(mode); }
};

inline FileKind KindOf(const struct stat& status) { return {.id = IdOf(status), .mode = status.st_mode}; }

// Copies the contents of `source`, which is of `kind`, into `target`. A new file gets permission bits (less the
// file-creation mask) and, where the system allows it, owner and group of the source; an existing one keeps its own. If
// the target is the source itself, nothing happens. Returns 0 or the error number:
//   EEXIST  the target exists and `overwrite` is false; it was not touched
//   EINVAL  source or target is of another kind, such as a FIFO, which was not waited for; or the source is a directory
// After any other error the target may contain a part of the contents.
[[nodiscard]] int CopyFile(const char* source, const FileKind& kind, const char* target, bool overwrite);

}  // namespace qx::report
