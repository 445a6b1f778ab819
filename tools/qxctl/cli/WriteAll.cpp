#include "tools/qxctl/cli/WriteAll.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tools/qxctl/cli/Interrupt.h"

namespace qx::ctl {

namespace {

constexpr int kWaitMilliseconds = 100;

// Waits until the descriptor accepts bytes. False if a signal under an InterruptGuard ends the wait: one that
// interrupts it, or one that is newer than `known`. An error of the descriptor gives true: the write reports it.
bool WaitUntilWritable(int descriptor, int known) {
  for (;;) {
    if (InterruptSignal() != known) return false;
    pollfd waited{descriptor, POLLOUT, 0};
    const int ready = poll(&waited, 1, kWaitMilliseconds);  // a signal may arrive just before the wait begins
    const int error = errno;
    if (ready < 0 && error == EINTR && InterruptSignal() != 0) return false;
    if (ready > 0 || (ready < 0 && error != EINTR)) return true;
  }
}

// One write. A signal that interrupts it is no failure: the next wait checks which signal it was.
file::Progress WritePiece(int descriptor, std::string_view piece) {
  file::Progress progress = file::WriteOnce(descriptor, piece);
  if (progress.error == EINTR) progress.error = 0;
  return progress;
}

// Determines how many bytes a descriptor takes without waiting, once it accepts some.
class Piece {
 public:
  explicit Piece(int descriptor) : descriptor_(descriptor) {
    struct stat status;
    const bool is_known = file::StatusOf(descriptor, status) == 0;
    is_regular_ = is_known && S_ISREG(status.st_mode);
    if (is_known && S_ISFIFO(status.st_mode)) pipe_bytes_ = std::max(fcntl(descriptor, F_GETPIPE_SZ), PIPE_BUF);
  }

  // An empty pipe takes as many bytes as it can hold. The free memory of a pipe that has unread bytes is not known,
  // because its pages may be partly filled.
  [[nodiscard]] std::size_t Bytes() const {
    if (is_regular_) return std::string_view::npos;
    int unread = 0;
    const bool is_empty = pipe_bytes_ > PIPE_BUF && ioctl(descriptor_, FIONREAD, &unread) == 0 && unread == 0;
    return static_cast<std::size_t>(is_empty ? pipe_bytes_ : PIPE_BUF);
  }

 private:
  int descriptor_;
  bool is_regular_ = false;
  int pipe_bytes_ = 0;
};

}  // namespace

file::Progress WriteUntilInterrupted(int descriptor, std::string_view bytes) {
  const Piece next(descriptor);
  const int known = InterruptSignal();  // after the first signal a command still prints its status
  file::Progress progress;
  while (progress.bytes < bytes.size() && !progress.Failed()) {
    if (!WaitUntilWritable(descriptor, known)) return {progress.bytes, EINTR};
    const file::Progress piece = WritePiece(descriptor, bytes.substr(progress.bytes, next.Bytes()));
    progress = {progress.bytes + piece.bytes, piece.error};
  }
  // If the reader of standard error is gone, problems are lost and the command continues.
  if (progress.error == EPIPE && descriptor != STDERR_FILENO) RememberBrokenPipe();
  return progress;
}

Status WriteAll(int descriptor, std::string_view bytes, const std::string& name) {
  const file::Progress progress = WriteUntilInterrupted(descriptor, bytes);
  return progress.Failed() ? Status::Io("cannot write " + name, progress.error) : Status();
}

}  // namespace qx::ctl
