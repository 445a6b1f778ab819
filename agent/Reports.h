// Writes the reports of the agent. Each report is opened for its first record, and closed when its device no longer
// exists.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "agent/Samples.h"
#include "sdk/Writer.h"

namespace qx::agent {

// Threads: one thread.
// Owns: the open reports.
// Failure: a report that fails is closed, and opened again for its next record.
class Reports {
 public:
  // `directory` is the path of the agent's directory; a new report has space for `slots` records.
  Reports(std::string directory, std::uint32_t slots) : directory_(std::move(directory)), slots_(slots) {}

  // Appends a record to the report of this name, which may contain "/". [owning thread]
  [[nodiscard]] Error Append(const std::string& name, const std::string& text);

  // Closes the reports without a record in these samples, because their devices no longer exist. [owning thread]
  void CloseOthers(const std::vector<Sample>& samples);

 private:
  std::string directory_;
  std::uint32_t slots_;
  std::map<std::string, Writer> writers_;
};

}  // namespace qx::agent
