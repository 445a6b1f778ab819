// Writes records one by one, and counts those that were written.
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
  // From now on records are appended to `path`, which is created if it is missing. Without this call they go to
  // standard output. A file of another user, or with several names, is refused unless `force`; a link of another user
  // is always refused.
  Status OpenFile(const std::string& path, bool force = false);

  // Size of the file; unset for standard output and for a file that is not regular.
  std::optional<std::uint64_t> Bytes() const;
  [[nodiscard]] bool IsTerminal() const;
  // Cuts the file to `bytes`.
  Status Shorten(std::uint64_t bytes);

  // Writes the pieces in order. `taken`: the number of pieces that were written whole. Short pieces are written in
  // groups of up to 4096 bytes, which a pipe takes whole or not at all. So a signal under an InterruptGuard never
  // leaves a part of a short piece in a pipe.
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
