// Chooses trace entries, and writes them as text or JSON.
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
#include "tools/qxctl/slice/Slice.h"

namespace qx::ctl {

// `text` with control bytes and bytes that are not UTF-8 as "\x1B"; a backslash is doubled.
std::string VisibleText(std::string_view text);

// How serious an entry is, by the words ERROR and WARNING in its text: the file does not keep the level of an entry.
enum class TraceSeverity : std::uint8_t { kNone, kWarning, kError };
[[nodiscard]] TraceSeverity SeverityOf(const debug::TraceEntry& entry);

// The entries that the options choose.
struct TraceFilter {
  std::set<std::string, std::less<>> modules;  // empty: all
  std::set<std::uint32_t> threads;             // empty: all
  TraceSeverity severity = TraceSeverity::kNone;
  Slice slice;

  // Whether every entry is printed.
  bool IsOpen() const;
};

// The options as given.
struct TraceFilterOptions {
  std::vector<std::string> modules;
  std::vector<std::string> threads;
  std::string level;
};

// Sets the filter, except its slice, which is set already. kUsage for a thread that is not a hexadecimal number.
Status MakeFilter(const TraceFilterOptions& options, TraceFilter& filter);

// Decides for one entry of a file after the other whether it is printed; the further lines of an entry follow its
// choice. An entry without a time has the time of the one before.
class TraceSelection {
 public:
  explicit TraceSelection(const TraceFilter& filter) : filter_(&filter), slice_(filter.slice) {}
  bool Takes(const debug::TraceEntry& entry);

 private:
  bool Passes(const debug::TraceEntry& entry);

  const TraceFilter* filter_;
  SliceFilter slice_;
  bool took_last_ = true;
};

// Whether an entry begins with a header, so that other lines may belong to it.
[[nodiscard]] bool HasHeader(const debug::TraceEntry& entry);

// The entry as lines of text in the colour of its severity, each with `prefix` before it; without stamp, thread and
// module if `with_header` is false.
std::string EntryToText(const Output& output, const debug::TraceEntry& entry, std::string_view prefix,
                        bool with_header = true);

// The entry as an object; `file` is its first member.
Json EntryToJson(const debug::TraceEntry& entry, const std::string& file);

}  // namespace qx::ctl
