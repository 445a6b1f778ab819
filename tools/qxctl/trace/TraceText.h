// How qxctl prints trace entries, and which of them.
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

// `text` with what a terminal could act on made visible: control bytes and bytes that are not UTF-8 as "\x1B"; a
// backslash is doubled.
std::string VisibleText(std::string_view text);

// What the options --module, --thread, --since and --until come to.
struct TraceFilter {
  std::set<std::string, std::less<>> modules;  // empty: all
  std::set<std::uint32_t> threads;             // empty: all
  std::optional<std::int64_t> since_ms;
  std::optional<std::int64_t> until_ms;  // the last millisecond that passes

  // Whether every entry passes.
  bool IsOpen() const;
  // Whether an entry with a header passes; an entry whose time is unknown passes no limit of time.
  bool Passes(const debug::TraceEntry& entry) const;
};

// The options as they are given.
struct TraceFilterOptions {
  std::vector<std::string> modules;
  std::vector<std::string> threads;
  std::string since;
  std::string until;
};

// kUsage for a thread that is no hexadecimal number, or a time that is none.
Status MakeFilter(const TraceFilterOptions& options, TraceFilter& filter);

// Whether an entry of a file is printed, entry after entry: what belongs to an entry goes with it.
class TraceSelection {
 public:
  explicit TraceSelection(const TraceFilter& filter) : filter_(&filter) {}
  bool Takes(const debug::TraceEntry& entry);

 private:
  const TraceFilter* filter_;
  bool took_last_ = true;
};

// The entry as lines of text, each begun with `prefix`.
std::string EntryToText(const debug::TraceEntry& entry, std::string_view prefix);

// The entry as an object; `file` is its first member.
Json EntryToJson(const debug::TraceEntry& entry, const std::string& file);

}  // namespace qx::ctl
