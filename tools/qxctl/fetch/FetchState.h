// The state file of a fetch that is done in several runs; docs/following.md describes its keys.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "reportfile/tools/ReportFollower.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/fetch/RecordFormat.h"

namespace qx::ctl {

struct FetchState {
  std::string report;
  RecordFormatOptions format;
  std::size_t columns = 0;                    // of the CSV header that was written
  std::string output;                         // the file that the records go to; empty: standard output
  std::optional<std::uint64_t> output_bytes;  // its size behind the last delivered record
  report::ReportPosition position;
  std::uint64_t in_flight = 0;  // records whose writing was begun and, as far as is known, not finished
};

// The file is locked from Open on, so that two runs do not deliver the same records; it is replaced as a whole, and the
// lock goes over to the new one.
//
// Threads: used by one thread. Owns: the lock, released at destruction.
// Failure: a Save that failed leaves the old state in place.
class FetchStateFile {
 public:
  FetchStateFile() = default;
  ~FetchStateFile();
  FetchStateFile(const FetchStateFile&) = delete;
  FetchStateFile& operator=(const FetchStateFile&) = delete;

  // Makes the file if it is missing. kRefused when another run has it, or when it holds something else than a state.
  Status Open(const std::string& path);

  // What it holds; unset when it is fresh.
  const std::optional<FetchState>& State() const { return state_; }

  Status Save(const FetchState& state);

 private:
  Status Lock();
  Status Read();
  Status Replace(const std::string& text);

  std::string path_;
  int descriptor_ = -1;
  bool is_fresh_ = true;
  std::optional<FetchState> state_;
};

}  // namespace qx::ctl
