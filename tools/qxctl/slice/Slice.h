// Chooses a slice of records: those of a span of time, those that match a pattern, the newest ones; also in reverse
// order.
//
// Threads: one thread.
#pragma once

#include <regex.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/slice/RecordTime.h"

namespace qx::ctl {

// A POSIX extended regular expression, case-sensitive.
class RecordPattern {
 public:
  RecordPattern() = default;
  ~RecordPattern();
  RecordPattern(const RecordPattern&) = delete;
  RecordPattern& operator=(const RecordPattern&) = delete;

  // Called once. kUsage with the reason if the text is no such expression.
  Status Compile(const std::string& text);
  [[nodiscard]] bool Matches(std::string_view text) const;

 private:
  regex_t compiled_ = {};
  bool is_compiled_ = false;
};

// The slice that the options request.
struct Slice {
  std::optional<std::uint64_t> last;
  std::optional<std::int64_t> since_ms;
  std::optional<std::int64_t> until_ms;  // included
  std::shared_ptr<const RecordPattern> pattern;
  bool reverse = false;
  TimeRules time;

  [[nodiscard]] bool HasTimes() const { return since_ms.has_value() || until_ms.has_value(); }
  // Whether a record's own content decides whether it is in the slice.
  [[nodiscard]] bool Filters() const { return HasTimes() || pattern != nullptr; }
  // Whether nothing can be printed before the last record is known.
  [[nodiscard]] bool NeedsAllRecords() const { return last.has_value() || reverse; }
  // Whether it is every record in order.
  [[nodiscard]] bool IsWhole() const { return !Filters() && !NeedsAllRecords(); }
};

// Whether a record of this time is between the limits. A record without a known time is outside all limits.
[[nodiscard]] bool IsInTime(const Slice& slice, std::optional<std::int64_t> time_ms);

// Decides for one record after the other, the oldest first, whether its own content is in the slice. A record without a
// time has that of the record before it.
class SliceFilter {
 public:
  explicit SliceFilter(const Slice& slice) : slice_(slice) {}

  // Takes the time from the beginning of the text.
  bool Takes(std::string_view text);
  // For a record whose time is known in another way.
  bool Takes(std::string_view text, std::optional<std::int64_t> time_ms);

 private:
  const Slice& slice_;
  std::optional<std::int64_t> time_ms_;  // of the newest record that has one
};

// Keeps the items that passed the filter until the last record is known. With `last`, only that many are kept.
template <typename Item>
class SliceBuffer {
 public:
  explicit SliceBuffer(const Slice& slice) : slice_(slice) {}

  void Add(Item item) {
    items_.push_back(std::move(item));
    if (slice_.last && items_.size() > *slice_.last) items_.pop_front();
  }

  // The items in the order in which they are printed; the buffer is then empty.
  std::deque<Item> Take() {
    if (slice_.reverse) std::reverse(items_.begin(), items_.end());
    return std::exchange(items_, {});
  }

 private:
  const Slice& slice_;
  std::deque<Item> items_;
};

}  // namespace qx::ctl
