// The entries of all trace files of a directory, merged in the order of time.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "debug/tools/TraceUnroll.h"
#include "tools/qxctl/cli/text/Json.h"
#include "tools/qxctl/trace/TraceText.h"

namespace qx::view {

// An entry with the name of its file.
struct TraceItem {
  std::string file;
  debug::TraceEntry entry;
};

// True for one entry that was read twice: the same text at the same place of the same file.
[[nodiscard]] bool IsSame(const TraceItem& left, const TraceItem& right);

// About how much memory an entry needs.
[[nodiscard]] std::size_t BytesOf(const TraceItem& item);

// Which entries are shown.
struct TraceWish {
  ctl::TraceSeverity severity = ctl::TraceSeverity::kNone;  // at least
  std::string filter;                                       // in the text, whatever the case of ASCII letters
  std::optional<std::int64_t> from;                         // milliseconds since 1970 in UTC; both ends are part of it
  std::optional<std::int64_t> to;
};

// Decides for one entry after the other. Lines that belong to an entry follow its choice.
//
// Threads: one thread.
class TraceChoice {
 public:
  explicit TraceChoice(TraceWish wish) : wish_(std::move(wish)) {}
  [[nodiscard]] bool Takes(const TraceItem& item);

 private:
  [[nodiscard]] bool Passes(const TraceItem& item) const;

  TraceWish wish_;
  std::map<std::string, bool, std::less<>> last_;  // by file
};

// The newest entries that pass, oldest first, within limits.
struct ChosenTraces {
  int error = 0;  // of the directory; ENOENT: there is no trace file
  std::deque<TraceItem> items;
  std::uint64_t omitted = 0;  // passing entries that are older than these
};
[[nodiscard]] ChosenTraces ReadTraces(const std::string& directory, const TraceWish& wish, std::size_t count_max);

// The entry as in `qxctl trace show --json`, with "severity" and "timeMs".
[[nodiscard]] ctl::Json ToJson(const TraceItem& item);

}  // namespace qx::view
