#include "tools/qxctl/cli/Input.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "base/File.h"
#include "base/tools/FilePlace.h"
#include "tools/qxctl/cli/FileStatus.h"

namespace qx::ctl {

namespace {

// More than any request needs; it keeps a wrong file name from filling the memory.
constexpr std::size_t kInputBytesMax = std::size_t{64} << 20;

// A FIFO that nobody has opened for writing yet looks like one that has ended; the wait ends with the first writer.
// Regular files are ready at once.
void WaitForWriter(int descriptor) {
  pollfd waited{descriptor, POLLIN, 0};
  (void)poll(&waited, 1, -1);  // whatever it says, the read decides
}

Status ReadToEnd(int descriptor, const std::string& name, std::string& text) {
  const int error = file::ReadWhole(descriptor, text, kInputBytesMax);
  if (error == EFBIG) return {ExitCode::kIo, name + " has more than 64 MiB"};
  return error == 0 ? Status() : Status::Io("cannot read " + name, error);
}

}  // namespace

Status ReadArgument(const std::string& argument, std::string& text, bool force) {
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

}  // namespace qx::ctl
