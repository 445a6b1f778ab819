// Checks whether another process writes a report: for programs that append to a report, or replace it, next to agents.
//
// A writer holds the advisory lock of the index file while it has the report open (CReportFileBase::Open), and the
// system's list of locks names it. Agents that were built before the lock existed do not take it. So if the lock is
// free, or the list does not show who holds it, the open files of all processes of this machine are checked.
#pragma once

#include <string>

#include "base/File.h"

namespace qx::report {

// What counts as a writer.
enum class WriterSearch {
  kEveryProcess,  // who holds the lock, and who has the files open: agents from before the lock do not take it
  kLock,          // who holds the lock: for a directory in which every writer takes it
};

// Takes the lock of the report at `base_path` for its own lifetime, if nobody writes the report. CReportFileBase::Open
// then continues without taking the lock.
//
// Threads: one thread. Owns: the index file, opened for reading; nothing is changed. Failure: what cannot be opened
// counts as free; the open that follows reports it. Throws std::bad_alloc.
class WriterLock {
 public:
  explicit WriterLock(const std::string& base_path, WriterSearch search = WriterSearch::kEveryProcess);

  // True if another process, or another object of this one, has the report open for writing.
  [[nodiscard]] bool IsHeldByAnother() const { return is_held_; }
  // The process that has the report open; 0 if it is not known, because only root sees the files of other users'
  // processes.
  [[nodiscard]] int Process() const { return process_; }

 private:
  file::Descriptor index_;
  bool is_held_ = false;
  int process_ = 0;
};

}  // namespace qx::report
