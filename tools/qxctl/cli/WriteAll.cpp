#include "tools/qxctl/cli/WriteAll.h"

#include <unistd.h>

#include "tools/qxctl/cli/Interrupt.h"

namespace qx::ctl {

Status WriteAll(int descriptor, std::string_view bytes, const std::string& name) {
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), bytes.size());
    const int error = errno;
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (error != EINTR || InterruptSignal() != 0) {
      return Status::Io("cannot write " + name, error);
    }
  }
  return {};
}

}  // namespace qx::ctl
