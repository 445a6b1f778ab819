// Where records go one by one, so that it is known which of them have arrived.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/File.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Standard output, or a file that is appended to.
//
// Threads: used by one thread. Owns: the file's descriptor.
class RecordSink {
 public:
  // Appends to `path` from now on, which is created if it is missing. Without this call, records go to standard output.
  // A file or link of another user, and a file with several names, is refused unless `force`.
  Status OpenFile(const std::string& path, bool force = false);

  // Size of the file; unset for standard output and for anything but a regular file.
  std::optional<std::uint64_t> Bytes() const;
  [[nodiscard]] bool IsTerminal() const;
  // Cuts the file to `bytes`.
  Status Shorten(std::uint64_t bytes);

  // Writes the pieces in order. `taken`: how many arrived whole. A pipe takes a group of up to 4096 bytes whole or not
  // at all. So a signal under an InterruptGuard, which ends this, never leaves a short piece half written.
  Status Write(std::span<const std::string> pieces, std::size_t& taken);

  // Syncs what was taken, if it is on a disk.
  Status Sync();

 private:
  Status WriteGroup(std::string_view bytes, std::size_t& written) const;
  int Descriptor() const;

  std::string name_ = "standard output";
  file::Descriptor file_;
};

}  // namespace qx::ctl
