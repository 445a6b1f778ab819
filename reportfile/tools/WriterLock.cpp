#include "reportfile/tools/WriterLock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <set>

#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/WritingProcesses.h"

namespace qx::report {

namespace {

// Another process that has one of the files open for writing, or 0. Reads the list of open files of every process of
// the machine.
int ProcessThatWrites(const std::string& base_path) {
  std::set<FileKey> files;
  for (const std::string& path : {IndexFileName(base_path), DataFileName(base_path)}) {
    if (const std::optional<FileKey> key = KeyOf(path)) files.insert(*key);
  }
  if (files.empty()) return 0;
  for (const WritingProcess& found : FindWritingProcesses(files)) {
    if (found.process != getpid()) return found.process;
  }
  return 0;
}

// The process that took the lock of the open file; empty if the system's list of locks does not show it, or if this
// process has ended: then another process that inherited the open file holds the lock.
std::optional<int> ProcessWithTheLock(int file) {
  struct stat status = {};
  if (file::StatusOf(file, status) != 0) return std::nullopt;
  for (const WritingProcess& found : FindLockingProcesses({FileKey(status.st_dev, status.st_ino)})) {
    const bool has_ended = kill(found.process, 0) != 0 && errno == ESRCH;
    if (!has_ended) return found.process;
  }
  return std::nullopt;
}

}  // namespace

WriterLock::WriterLock(const std::string& base_path, WriterSearch search)
    : index_(OpenStoreFile(IndexFileName(base_path), OpenMode::kRead)) {
  const int lock_error = index_.IsOpen() ? file::TryLock(index_.Number()) : 0;
  const bool is_locked = lock_error == EWOULDBLOCK;
  has_no_locks_ = lock_error != 0 && !is_locked;
  const std::optional<int> holder = is_locked ? ProcessWithTheLock(index_.Number()) : std::nullopt;
  // A free lock does not mean that nobody writes: older agents do not take it.
  if (holder.has_value()) {
    process_ = *holder != getpid() ? *holder : 0;
  } else if (search == WriterSearch::kEveryProcess) {
    process_ = ProcessThatWrites(base_path);
  }
  is_held_ = is_locked || process_ != 0;
}

}  // namespace qx::report
