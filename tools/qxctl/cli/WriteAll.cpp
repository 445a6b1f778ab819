#include "tools/qxctl/cli/WriteAll.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tools/qxctl/cli/Interrupt.h"

namespace qx::ctl {

namespace {

constexpr int kWaitMilliseconds = 100;

// Waits until the descriptor accepts bytes. False if a signal under an InterruptGuard ends the wait: one that
// interrupts it, or one that is newer than `known`. The write reports what is wrong with the descriptor.
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

std::size_t PieceBytes(int descriptor) {
  struct stat status;
  const bool is_regular = file::StatusOf(descriptor, status) == 0 && S_ISREG(status.st_mode);
  return is_regular ? std::string_view::npos : PIPE_BUF;
}

}  // namespace

file::Progress WriteUntilInterrupted(int descriptor, std::string_view bytes) {
  const std::size_t piece_bytes = PieceBytes(descriptor);
  const int known = InterruptSignal();  // after the first signal a command still prints its status
  file::Progress progress;
  while (progress.bytes < bytes.size() && !progress.Failed()) {
    if (!WaitUntilWritable(descriptor, known)) return {progress.bytes, EINTR};
    const file::Progress piece = WritePiece(descriptor, bytes.substr(progress.bytes, piece_bytes));
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
