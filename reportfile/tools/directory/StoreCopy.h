// Copies one store in a consistent state while its writer continues.
//
// A copy is the store at the moment of the header in the copy. The index file is copied first. Then slots are copied
// again until the header did not change meanwhile; the copy gets this header. Then the data file is copied. The texts
// of the header's slots must not have been overwritten since. The header that the store has after the copy shows this,
// because a writer writes only from its old position to its new one. If the writer overwrote such a text, the copy is
// made again. Nothing is locked, and the writer is not delayed.
#pragma once

#include <fcntl.h>

#include <string>

namespace qx::report {

enum class StoreCopyState {
  kCopied,
  kNeverStill,  // the writer overwrote what was being copied, in every try; no copy is left
  kGone,        // a file was removed; no copy is left
  kFailed,      // a file cannot be read or written; no copy is left
};

struct StoreCopy {
  StoreCopyState state = StoreCopyState::kCopied;
  bool was_written = false;  // records were appended during the copy; the copy does not have them
  int error = 0;             // kFailed: the error number ...
  bool is_source_error = false;
  std::string file;  // ... and the file
};

// Copies the files of the store at base path `from` to base path `to`. The new files must not exist, and their
// directory must exist. The copies are synced. A store without a writer is copied byte for byte, damaged or not, and
// its holes stay holes. Relative paths begin at the open directories; a file below an open directory is not read
// through a link. [any thread]
[[nodiscard]] StoreCopy CopyStore(const std::string& from, const std::string& to, int from_directory = AT_FDCWD,
                                  int to_directory = AT_FDCWD);

}  // namespace qx::report
