#include "tools/qxctl/cli/Input.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>

namespace qx::ctl {

namespace {

// More than any request needs; it keeps a wrong file name from filling the memory.
constexpr std::size_t kInputBytesMax = std::size_t{64} << 20;

Status ReadToEnd(int descriptor, const std::string& name, std::string& text) {
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Status::Io("cannot read " + name, errno);
    if (count == 0) return {};
    text.append(buffer.data(), static_cast<std::size_t>(count));
    if (text.size() > kInputBytesMax) return {ExitCode::kIo, name + " has more than 64 MiB"};
  }
}

}  // namespace

Status ReadArgument(const std::string& argument, std::string& text) {
  if (!argument.starts_with('@')) {
    text = argument;
    return {};
  }
  const std::string path = argument.substr(1);
  if (path == "-") return ReadToEnd(STDIN_FILENO, "standard input", text);
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    const int error = errno;
    if (error == ENOENT) return {ExitCode::kNotFound, "there is no input file " + path};
    return Status::Io("cannot open " + path, error);
  }
  Status status = ReadToEnd(descriptor, path, text);
  (void)close(descriptor);  // read only, nothing can be lost
  return status;
}

}  // namespace qx::ctl
