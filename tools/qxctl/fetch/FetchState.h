// The state file of a fetch in several runs; docs/following.md describes its keys.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/File.h"
#include "base/tools/FilePlace.h"
#include "reportfile/tools/ReportFollower.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/fetch/RecordFormat.h"

namespace qx::ctl {

struct FetchState {
  std::string report;
  RecordFormatOptions format;
  std::size_t columns = 0;                    // of the written CSV header
  std::string output;                         // of the file that the records are written to; empty: standard output
  std::optional<std::uint64_t> output_bytes;  // its size after the last delivered record
  report::ReportPosition position;
  std::uint64_t in_flight = 0;  // records of a write that was begun and may not be finished
};

// The open state file. It is locked from Open until destruction, so that two runs do not deliver the same records. Save
// replaces the file as a whole, and locks the new file before it gets the name.
//
// Threads: used by one thread. Owns: the lock, released at destruction.
// Failure: after a failed Save the file has the old state.
class FetchStateFile {
 public:
  FetchStateFile() = default;
  ~FetchStateFile();
  FetchStateFile(const FetchStateFile&) = delete;
  FetchStateFile& operator=(const FetchStateFile&) = delete;

  // Creates the file if it is missing. kRefused if another run has it, if its content is not a state, or, unless
  // `force`, if it belongs to another user: a state determines the size to which the output file is cut.
  Status Open(const std::string& path, bool force = false);

  // The state in the file; unset while the file is empty.
  const std::optional<FetchState>& State() const { return state_; }

  Status Save(const FetchState& state);

 private:
  Status Lock();
  Status OpenAndLock(file::Descriptor& opened, bool& is_named) const;
  Status Read();
  Status Replace(const std::string& text);

  std::string path_;
  bool force_ = false;
  FilePlace place_;
  file::Descriptor file_;
  bool is_fresh_ = true;
  std::optional<FetchState> state_;
};

}  // namespace qx::ctl
