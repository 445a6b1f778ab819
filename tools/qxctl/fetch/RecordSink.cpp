#include "tools/qxctl/fetch/RecordSink.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/tools/FilePlace.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/cli/Interrupt.h"
#include "tools/qxctl/cli/WriteAll.h"

namespace qx::ctl {

int RecordSink::Descriptor() const { return file_.IsOpen() ? file_.Number() : STDOUT_FILENO; }

Status RecordSink::OpenFile(const std::string& path, bool force) {
  name_ = path;
  const FileRules rules = {.accept_foreign = force};
  return StatusOfFile("cannot open", OpenChecked(path, O_WRONLY | O_APPEND | O_CREAT, 0666, rules, file_));
}

std::optional<std::uint64_t> RecordSink::Bytes() const {
  struct stat status;
  if (!file_.IsOpen() || file::StatusOf(file_.Number(), status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_size);
}

bool RecordSink::IsTerminal() const { return isatty(Descriptor()) == 1; }

Status RecordSink::Shorten(std::uint64_t bytes) {
  const int error = file::Truncate(file_.Number(), static_cast<std::int64_t>(bytes));
  return error == 0 ? Status() : Status::Io("cannot shorten " + name_, error);
}

Status RecordSink::Write(std::span<const std::string> pieces, std::size_t& taken) {
  taken = 0;
  while (taken < pieces.size()) {
    if (InterruptSignal() != 0) return {ExitCode::kIo, "interrupted"};
    std::string group = pieces[taken];
    std::size_t count = 1;
    for (; taken + count < pieces.size() && group.size() + pieces[taken + count].size() <= PIPE_BUF; ++count) {
      group += pieces[taken + count];
    }
    std::size_t written = 0;
    Status status = WriteGroup(group, written);
    for (; count > 0 && written >= pieces[taken].size(); --count) written -= pieces[taken++].size();
    if (status.IsOk()) continue;
    if (written == 0) return status;
    return {status.Code(), status.Message() + "; " + std::to_string(written) +
                               " bytes of the next record were written, and will be repeated with it"};
  }
  return {};
}

Status RecordSink::WriteGroup(std::string_view bytes, std::size_t& written) const {
  const file::Progress progress = WriteUntilInterrupted(Descriptor(), bytes);
  written += progress.bytes;
  if (progress.error == EINTR) return {ExitCode::kIo, "interrupted"};
  return progress.Failed() ? Status::Io("cannot write " + name_, progress.error) : Status();
}

Status RecordSink::Sync() {
  const int error = file::SyncData(Descriptor());
  if (error == 0 || error == EINVAL || error == EROFS) return {};  // a pipe has nothing to sync
  return Status::Io("cannot sync " + name_, error);
}

}  // namespace qx::ctl
