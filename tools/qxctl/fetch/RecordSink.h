// Where records go one by one, so that it is known which of them have arrived.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Standard output, or a file that is appended to.
//
// Threads: used by one thread. Owns: the file's descriptor.
class RecordSink {
 public:
  RecordSink() = default;
  ~RecordSink();
  RecordSink(const RecordSink&) = delete;
  RecordSink& operator=(const RecordSink&) = delete;

  // Appends to `path` from now on, which is made if it is missing. Without this call standard output is taken.
  Status OpenFile(const std::string& path);

  // Size of the file; unset for standard output and for what is no regular file.
  std::optional<std::uint64_t> Bytes() const;
  // Cuts the file to `bytes`.
  Status Shorten(std::uint64_t bytes);

  // Writes the pieces in order. `taken`: how many arrived whole. A pipe takes a group of up to 4096 bytes whole or not
  // at all, so of short pieces none is left half written by a signal under an InterruptGuard, which ends this.
  Status Write(std::span<const std::string> pieces, std::size_t& taken);

  // Has the system write to its disk what was taken, where there is one.
  Status Sync();

 private:
  Status WriteGroup(std::string_view bytes, std::size_t& written) const;
  int Descriptor() const;

  std::string name_ = "standard output";
  int file_ = -1;
};

}  // namespace qx::ctl
