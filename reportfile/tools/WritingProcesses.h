// Internal: finds the processes that have a file open for writing.
#pragma once

#include <sys/types.h>

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qx::report {

// Device and inode: two paths with the same key lead to the same file.
using FileKey = std::pair<dev_t, ino_t>;

// The key of the file at the path; empty if there is no file. [any thread]
[[nodiscard]] std::optional<FileKey> KeyOf(const std::string& path);

struct WritingProcess {
  FileKey file;
  int process;
};

// Reads PID/fd and PID/fdinfo of every process below `processes`, which is /proc or has the same form. What cannot be
// read counts as not open: only root sees the files of other users' processes. [any thread]
[[nodiscard]] std::vector<WritingProcess> FindWritingProcesses(const std::set<FileKey>& files,
                                                               const std::string& processes = "/proc");

// The processes that hold an exclusive lock (flock) of one of the files. `locks` is /proc/locks or a file of the same
// form. Every user sees the locks of all processes. Locks are not found on a file system whose device numbers in that
// file differ from those of `stat`. [any thread]
[[nodiscard]] std::vector<WritingProcess> FindLockingProcesses(const std::set<FileKey>& files,
                                                               const std::string& locks = "/proc/locks");

}  // namespace qx::report
