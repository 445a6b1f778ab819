#include "tools/qxview/report/IndexCache.h"

#include <algorithm>

namespace qx::view {

ReportIndex& IndexCache::IndexOf(const std::string& base_path) {
  const auto has_path = [&](const Entry& entry) { return entry.base_path == base_path; };
  const auto found = std::find_if(entries_.begin(), entries_.end(), has_path);
  if (found != entries_.end()) {
    entries_.splice(entries_.begin(), entries_, found);
  } else {
    entries_.push_front({.base_path = base_path, .index = ReportIndex(base_path), .last_use = {}});
  }
  entries_.front().last_use = Clock::now();
  return entries_.front().index;
}

void IndexCache::Trim() {
  const Clock::time_point now = Clock::now();
  std::size_t bytes = 0;
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    bytes += entry->index.Bytes();
    const bool is_first = entry == entries_.begin();
    const bool is_kept = is_first || (bytes <= kBytesMax && now - entry->last_use <= kUnusedMax);
    entry = is_kept ? std::next(entry) : entries_.erase(entry);
  }
}

}  // namespace qx::view
