// The choice and the print of trace entries.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "debug/tools/TraceUnroll.h"
#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// `text` with control bytes and bytes that are not UTF-8 as "\x1B"; a backslash is doubled.
std::string VisibleText(std::string_view text);

// The choice of the options --module, --thread, --since and --until.
struct TraceFilter {
  std::set<std::string, std::less<>> modules;  // empty: all
  std::set<std::uint32_t> threads;             // empty: all
  std::optional<std::int64_t> since_ms;
  std::optional<std::int64_t> until_ms;  // the last millisecond that is printed

  // Whether every entry is printed.
  bool IsOpen() const;
  // Whether an entry with a header is printed; with a time limit, an entry of unknown time is not.
  bool Passes(const debug::TraceEntry& entry) const;
};

// The options as given.
struct TraceFilterOptions {
  std::vector<std::string> modules;
  std::vector<std::string> threads;
  std::string since;
  std::string until;
};

// kUsage for a thread that is not a hexadecimal number, or an invalid time.
Status MakeFilter(const TraceFilterOptions& options, TraceFilter& filter);

// Decides for entry after entry of a file whether it is printed; the further lines of an entry follow its choice.
class TraceSelection {
 public:
  explicit TraceSelection(const TraceFilter& filter) : filter_(&filter) {}
  bool Takes(const debug::TraceEntry& entry);

 private:
  const TraceFilter* filter_;
  bool took_last_ = true;
};

// The entry as lines of text, each beginning with `prefix`.
std::string EntryToText(const debug::TraceEntry& entry, std::string_view prefix);

// The entry as an object; `file` is its first member.
Json EntryToJson(const debug::TraceEntry& entry, const std::string& file);

}  // namespace qx::ctl
