// Reads the entries of a trace file in the order of time, even if the file has wrapped.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "debug/tools/TraceLayout.h"
#include "debug/tools/TraceLine.h"

namespace qx::debug {

// One entry, or the bytes between entries.
struct TraceEntry {
  enum class Kind {
    kEntry,  // a header and its lines
    kWrap,   // the line that a wrap of a log has written
    kRest,   // further lines of the previous entry, which is returned in parts because it is too large
    kPiece,  // lines without a header: the end of an entry whose beginning was overwritten, or, if the file cannot show
             // it, further lines of the previous entry
    kGap,    // no lines: entries of this time were overwritten
  };
  Kind kind = Kind::kEntry;
  TracePart part = TracePart::kNewest;
  std::uint64_t begin = 0;               // offset in the file
  std::uint64_t end = 0;                 // after the last line
  std::string stamp;                     // as in the file; only kEntry and kWrap have this and the next five members
  std::optional<std::int64_t> stamp_ms;  // the stamp as milliseconds since 1970-01-01 00:00 local time; may be unset
  std::uint32_t thread = 0;
  std::optional<std::uint64_t> resident_kb;
  std::string module;
  std::size_t header_length = 0;
  std::string header;              // stamp to module column, as in the file
  std::vector<std::string> lines;  // without line feeds; the first line without the header
  bool is_cut = false;             // the last line has no line feed: the file ends within the entry
};

// Returns the entries of some ranges one after another.
//
// Threads: one thread.
// Failure: whatever the bytes are, entries are returned until the ranges end; the needed memory is at most a few MiB.
class TraceEntryReader {
 public:
  // Reads `ranges` of `source`, which must outlive the reader. [owning thread]
  TraceEntryReader(const TraceSource& source, std::vector<TraceRange> ranges);
  ~TraceEntryReader();
  TraceEntryReader(TraceEntryReader&&) noexcept;
  TraceEntryReader& operator=(TraceEntryReader&&) noexcept;

  // The next entry; false at the end. [owning thread]
  bool Next(TraceEntry& entry);

  // The findings so far; complete after the last entry. [owning thread]
  [[nodiscard]] std::vector<TraceFinding> Findings() const;

 private:
  bool StartNextRange(TraceEntry& entry);
  void FetchLine();
  void StartEntry(TraceEntry& entry);
  void TakeLines(TraceEntry& entry);

  const TraceSource* source_;
  std::vector<TraceRange> ranges_;
  std::size_t next_range_ = 0;
  std::unique_ptr<TraceLineReader> lines_;  // of the current range; null: none
  TraceRange range_{};
  TraceLine line_{};  // the next line
  bool has_line_ = false;
  bool is_entry_open_ = false;  // an entry was ended by its size, not by another one
  bool has_cut_end_ = false;
  std::uint64_t hole_bytes_ = 0;
};

// Finds the layout of a whole trace file, and returns its entries.
class TraceUnroller {
 public:
  // Reads `source`, which must outlive the unroller. [owning thread]
  explicit TraceUnroller(const TraceSource& source);

  // The next entry in the order of time; false at the end. [owning thread]
  bool Next(TraceEntry& entry);

  [[nodiscard]] const TraceLayout& Layout() const noexcept { return layout_; }

  // All findings so far; complete after the last entry. [owning thread]
  [[nodiscard]] std::vector<TraceFinding> Findings() const;

  // Whether the writer has changed the read bytes since the layout was found. [owning thread]
  [[nodiscard]] bool HasChanged() const;

 private:
  const TraceSource* source_;
  TraceLayout layout_;
  std::string mark_;
  TraceEntryReader reader_;
  bool has_entries_ = false;
};

}  // namespace qx::debug
