// Reads the entries of all trace files of a directory, merged in the order of time.
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
  std::int64_t order_ms = 0;  // the time for the order: that of the entry, or of the one before it in its file
};

// True for one entry that was read twice: it has the same text at the same place of the same file.
[[nodiscard]] bool IsSame(const TraceItem& left, const TraceItem& right);

// The approximate memory that an entry needs.
[[nodiscard]] std::size_t BytesOf(const TraceItem& item);

// The entries that are shown.
struct TraceWish {
  ctl::TraceSeverity severity = ctl::TraceSeverity::kNone;  // at least
  std::string filter;                                       // in the text, whatever the case of ASCII letters
  std::optional<std::int64_t> from;                         // milliseconds since 1970 in UTC; both ends are part of it
  std::optional<std::int64_t> to;
};

// Decides for one entry after the other whether it is shown. Lines that belong to an entry are shown with it.
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

// The place of an entry in the merged order.
struct TracePlace {
  std::int64_t order_ms = 0;
  std::uint64_t begin = 0;  // in its file
  std::uint64_t file = 0;   // the hash of its name

  friend bool operator==(const TracePlace&, const TracePlace&) = default;
};
// "1769854830100.4096.e5ad9b1904074ddb"
[[nodiscard]] std::string TextOf(const TracePlace& place);
// The place of such a text; unset for any other text.
[[nodiscard]] std::optional<TracePlace> TracePlaceOf(std::string_view text);

// The newest entries that pass, the oldest of them first, within limits.
struct ChosenTraces {
  int error = 0;  // of the directory; ENOENT: there is no trace file
  std::deque<TraceItem> items;
  std::uint64_t omitted = 0;              // entries that pass, but are older than these
  std::optional<TracePlace> oldest = {};  // of these entries, if older ones are omitted
};
// Reads the newest entries; with `before`, only entries before this place. If the entry of the place was overwritten
// meanwhile, all entries up to its millisecond are read, so entries of this millisecond may come twice.
[[nodiscard]] ChosenTraces ReadTraces(const std::string& directory, const TraceWish& wish, std::size_t count_max,
                                      const std::optional<TracePlace>& before = std::nullopt);

// The entry as in `qxctl trace show --json`, with "severity" and "timeMs".
[[nodiscard]] ctl::Json ToJson(const TraceItem& item);

}  // namespace qx::view
