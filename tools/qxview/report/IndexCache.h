// Keeps the indexes of the reports that pages show, within a limit of memory.
#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <string>

#include "tools/qxview/report/ReportIndex.h"

namespace qx::view {

// Threads: one thread.
// Owns: the indexes. The least recently used ones are dropped first; the most recently used one is never dropped.
class IndexCache {
 public:
  static constexpr std::size_t kBytesMax = std::size_t{20} << 20;
  static constexpr std::chrono::minutes kUnusedMax{5};

  // The index of the report; it is made if it is missing. Valid until the next call. [owning thread]
  [[nodiscard]] ReportIndex& IndexOf(const std::string& base_path);
  // Drops indexes above kBytesMax, and those that were not used for kUnusedMax. [owning thread]
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
