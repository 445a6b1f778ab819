// The indexes of the reports that somebody looks at, within a limit of memory.
#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <string>

#include "tools/qxview/report/ReportIndex.h"

namespace qx::view {

// Threads: one thread.
// Owns: the indexes; the ones not used for longest are dropped first. One that is used now is never dropped.
class IndexCache {
 public:
  static constexpr std::size_t kBytesMax = std::size_t{20} << 20;
  static constexpr std::chrono::minutes kUnusedMax{5};

  // The index of the report, a new one for a report without one. Valid until the next call. [owning thread]
  [[nodiscard]] ReportIndex& IndexOf(const std::string& base_path);
  // Drops what is too much, or too old. [owning thread]
  void Trim();

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    std::string base_path;
    ReportIndex index;
    Clock::time_point last_use;
  };

  std::list<Entry> entries_;  // the one used last is the first
};

}  // namespace qx::view
