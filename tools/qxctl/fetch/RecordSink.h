// Writes records one by one and knows how many were written.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/File.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Standard output, or a file to which records are appended.
//
// Threads: used by one thread. Owns: the file's descriptor.
class RecordSink {
 public:
  // From now on appends to `path`, which is created if it is missing. Without this call, records go to standard output.
  // A file of another user, and a file with several names, is refused unless `force`; a link of another user always.
  Status OpenFile(const std::string& path, bool force = false);

  // Size of the file; unset for standard output and for a file that is not regular.
  std::optional<std::uint64_t> Bytes() const;
  [[nodiscard]] bool IsTerminal() const;
  // Cuts the file to `bytes`.
  Status Shorten(std::uint64_t bytes);

  // Writes the pieces in order. `taken`: the number of pieces that were written whole. A pipe takes a group of up to
  // 4096 bytes whole or not at all. So a signal under an InterruptGuard ends the write without a partly written short
  // piece.
  Status Write(std::span<const std::string> pieces, std::size_t& taken);

  // Syncs the written pieces, if they are on a disk.
  Status Sync();

 private:
  Status WriteGroup(std::string_view bytes, std::size_t& written) const;
  int Descriptor() const;

  std::string name_ = "standard output";
  file::Descriptor file_;
};

}  // namespace qx::ctl
