// Reads a trace file: the entries of a log that has wrapped, or of a ring, in the order of time.
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
    kWrap,   // the line that a log's wrap has written, an entry of the facility itself
    kRest,   // further lines of the previous entry, which is returned in parts because it is over 1 MiB
    kPiece,  // lines without a header: the end of an entry whose beginning was overwritten, or, if the file cannot show
             // it, further lines of the previous entry
    kGap,    // no lines: entries of this time were overwritten
  };
  Kind kind = Kind::kEntry;
  TracePart part = TracePart::kNewest;
  std::uint64_t begin = 0;               // offset in the file
  std::uint64_t end = 0;                 // after the last line
  std::string stamp;                     // as it is in the file; only kEntry and kWrap have this and the next four
  std::optional<std::int64_t> stamp_ms;  // that local time as milliseconds since 1970-01-01 00:00; unset: unknown
  std::uint32_t thread = 0;
  std::optional<std::uint64_t> resident_kb;
  std::string module;
  std::size_t header_length = 0;
  std::string header;              // stamp to module column, as in the file
  std::vector<std::string> lines;  // the first after the header; without line feeds
  bool is_cut = false;             // the last line has no line feed: the file ends within the entry
};

// Returns the entries of some ranges one after another.
//
// Threads: none of its own.
// Failure: for any bytes, entries are returned until the ranges end; memory stays within a few MiB.
class TraceEntryReader {
 public:
  // Reads `ranges` of `source`, which must outlive the reader. [owning thread]
  TraceEntryReader(const TraceSource& source, std::vector<TraceRange> ranges);
  ~TraceEntryReader();
  TraceEntryReader(TraceEntryReader&&) noexcept;
  TraceEntryReader& operator=(TraceEntryReader&&) noexcept;

  // The next entry; false at the end. [owning thread]
  bool Next(TraceEntry& entry);

  // The findings of the reading: complete at the end. [owning thread]
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
  TraceLine line_{};  // the one not yet taken
  bool has_line_ = false;
  bool is_entry_open_ = false;  // an entry was ended by its size, not by another one
  bool has_cut_end_ = false;
  std::uint64_t hole_bytes_ = 0;
};

// A trace file as a whole: finds its layout and returns its entries.
class TraceUnroller {
 public:
  // Reads `source`, which must outlive the unroller. [owning thread]
  explicit TraceUnroller(const TraceSource& source);

  // The next entry in the order of time; false at the end. [owning thread]
  bool Next(TraceEntry& entry);

  [[nodiscard]] const TraceLayout& Layout() const noexcept { return layout_; }

  // All findings: complete at the end. [owning thread]
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
