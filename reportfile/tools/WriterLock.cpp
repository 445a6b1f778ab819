#include "reportfile/tools/WriterLock.h"

#include <unistd.h>

#include <cerrno>
#include <optional>
#include <set>

#include "reportfile/StoreFormat.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/WritingProcesses.h"

namespace qx::report {

namespace {

// A process that has one of the files open for writing, other than this one, or 0.
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

}  // namespace

WriterLock::WriterLock(const std::string& base_path)
    : index_(OpenStoreFile(IndexFileName(base_path), OpenMode::kRead)) {
  const bool is_locked = index_.IsOpen() && file::TryLock(index_.Number()) == EWOULDBLOCK;
  process_ = ProcessThatWrites(base_path);
  is_held_ = is_locked || process_ != 0;
}

}  // namespace qx::report
