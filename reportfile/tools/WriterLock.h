// Checks whether another process writes a report, for programs that append to or replace reports of agents.
//
// A writer holds the advisory lock of the index file while it has the report open (CReportFileBase::Open), and the
// system's list of locks names the writer. Agents that were built before the lock existed do not take it. So if the
// lock is free, or the list does not show its holder, the open files of all processes of this machine are checked.
#pragma once

#include <string>

#include "base/File.h"

namespace qx::report {

// What counts as a writer.
enum class WriterSearch {
  kEveryProcess,  // the holder of the lock, or a process that has a file open for writing
  kLock,          // only the holder of the lock: for a directory in which every writer takes the lock
};

// Takes the lock of the report at `base_path`, if the lock is free, and holds it as long as this object exists.
// Meanwhile CReportFileBase::Open works without the lock.
//
// Threads: one thread. Owns: the index file, opened for reading; nothing is changed. Failure: a report that cannot be
// opened counts as free; the caller's own open reports the error. Throws std::bad_alloc.
class WriterLock {
 public:
  explicit WriterLock(const std::string& base_path, WriterSearch search = WriterSearch::kEveryProcess);

  // True if another process, or another object of this process, has the report open for writing.
  [[nodiscard]] bool IsHeldByAnother() const { return is_held_; }
  // True if the file system has no locks, or its server does not answer. Then two writers that search at the same time
  // may miss each other: search again after the open.
  [[nodiscard]] bool HasNoLocks() const { return has_no_locks_; }
  // The process that has the report open; 0 if it is not known, because only root sees the files of other users'
  // processes.
  [[nodiscard]] int Process() const { return process_; }

 private:
  file::Descriptor index_;
  bool is_held_ = false;
  bool has_no_locks_ = false;
  int process_ = 0;
};

}  // namespace qx::report
