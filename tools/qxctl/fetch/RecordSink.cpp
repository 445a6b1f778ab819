#include "tools/qxctl/fetch/RecordSink.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tools/qxctl/cli/Interrupt.h"

namespace qx::ctl {

RecordSink::~RecordSink() {
  if (file_ >= 0) (void)close(file_);  // Sync has reported what could go wrong
}

int RecordSink::Descriptor() const { return file_ >= 0 ? file_ : STDOUT_FILENO; }

Status RecordSink::OpenFile(const std::string& path) {
  name_ = path;
  file_ = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  return file_ >= 0 ? Status() : Status::Io("cannot open " + path, errno);
}

std::optional<std::uint64_t> RecordSink::Bytes() const {
  struct stat status = {};
  if (file_ < 0 || fstat(file_, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_size);
}

Status RecordSink::Shorten(std::uint64_t bytes) {
  return ftruncate(file_, static_cast<off_t>(bytes)) == 0 ? Status() : Status::Io("cannot shorten " + name_, errno);
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
                               " bytes of the next record were written, and will come again with it"};
  }
  return {};
}

Status RecordSink::WriteGroup(std::string_view bytes, std::size_t& written) const {
  while (written < bytes.size()) {
    const ssize_t count = write(Descriptor(), bytes.data() + written, bytes.size() - written);
    const int error = errno;
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
    } else if (error != EINTR) {
      return Status::Io("cannot write " + name_, error);
    } else if (InterruptSignal() != 0) {
      return {ExitCode::kIo, "interrupted"};
    }
  }
  return {};
}

Status RecordSink::Sync() {
  if (fdatasync(Descriptor()) == 0 || errno == EINVAL || errno == EROFS) return {};  // a pipe has nothing to sync
  return Status::Io("cannot sync " + name_, errno);
}

}  // namespace qx::ctl
