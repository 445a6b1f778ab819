#include "tools/qxctl/cli/Input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>

#include "base/File.h"
#include "base/tools/FilePlace.h"
#include "tools/qxctl/cli/FileStatus.h"

namespace qx::ctl {

namespace {

// More than any request needs. The limit keeps a wrong file from filling the memory.
constexpr std::size_t kInputBytesMax = std::size_t{64} << 20;

// Waits for the first writer of a FIFO: without one, a FIFO reads as if it were at its end. Regular files are ready at
// once.
void WaitForWriter(int descriptor) {
  pollfd waited{descriptor, POLLIN, 0};
  (void)poll(&waited, 1, -1);  // the read that follows decides, whatever the result
}

Status ReadToEnd(int descriptor, const std::string& name, std::string& text) {
  const int error = file::ReadWhole(descriptor, text, kInputBytesMax);
  if (error == EFBIG) return {ExitCode::kIo, name + " has more than 64 MiB, which is the limit"};
  return error == 0 ? Status() : Status::Io("cannot read " + name, error);
}

}  // namespace

Status ReadArgument(const std::string& argument, std::string& text, bool force) {
  if (argument == "-") return ReadToEnd(STDIN_FILENO, "standard input", text);
  if (!argument.starts_with('@')) {
    text = argument;
    return {};
  }
  const std::string path = argument.substr(1);
  if (path == "-") return ReadToEnd(STDIN_FILENO, "standard input", text);
  file::Descriptor file;
  const ReplaceResult opened = OpenChecked(path, O_RDONLY, 0, {.accept_foreign = force}, file);
  if (opened.state == ReplaceState::kNotFound) return {ExitCode::kNotFound, "there is no input file " + path};
  if (!opened.IsDone()) return StatusOfFile("cannot open", opened);
  WaitForWriter(file.Number());
  return ReadToEnd(file.Number(), path, text);
}

Status StandardInputAsFile(file::Descriptor& file, std::string& path) {
  std::string text;
  if (Status status = ReadToEnd(STDIN_FILENO, "standard input", text); !status.IsOk()) return status;
  file = file::Descriptor(memfd_create("qxctl", MFD_CLOEXEC));
  const int error = errno;
  if (!file.IsOpen()) return Status::Io("cannot store the standard input in memory", error);
  const file::Progress written = file::Write(file.Number(), text);
  if (written.Failed()) return Status::Io("cannot store the standard input in memory", written.error);
  path = "/proc/self/fd/" + std::to_string(file.Number());
  return {};
}

}  // namespace qx::ctl
