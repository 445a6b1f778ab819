// Reads the lines of a trace file, and the header with which an entry begins.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "debug/tools/TraceSource.h"

namespace qx::debug {

// A line, or a part of a line that is longer than 64 KiB.
struct TraceLine {
  std::uint64_t begin;    // offset of its first byte
  std::uint64_t end;      // offset after its line feed
  std::string_view text;  // without the line feed; valid until the next line is read
  bool has_end;           // false: no line feed follows, because the bytes or this part end here
  bool is_rest;           // a later part of a long line
};

// Splits a range of a source into lines, through one window of bounded size. NUL bytes at the beginning of a line are
// skipped, because no trace text has a NUL: they are a hole, which a log gets if another program shortens the file
// while it is written.
class TraceLineReader {
 public:
  // Reads [begin, end) of `source`, which must outlive the reader. [owning thread]
  TraceLineReader(const TraceSource& source, std::uint64_t begin, std::uint64_t end);

  // False at the end of the range or of its readable part. [owning thread]
  bool Next(TraceLine& line);

  // How many bytes of holes have been skipped so far. [owning thread]
  [[nodiscard]] std::uint64_t HoleBytes() const noexcept { return hole_bytes_; }

 private:
  std::string_view Available() const;
  void Refill();
  void SkipHole();

  const TraceSource* source_;
  std::uint64_t at_;
  std::uint64_t end_;
  std::uint64_t window_begin_;
  std::size_t window_bytes_ = 0;
  std::uint64_t hole_bytes_ = 0;
  bool is_within_line_ = false;
  std::vector<char> window_;
};

// The fields of an entry's header.
struct TraceHeader {
  std::string_view stamp;                    // as it is in the file
  std::optional<std::int64_t> stamp_ms;      // the stamp as milliseconds since 1970-01-01 00:00 local time; or unset
  std::uint32_t thread;                      // the low 32 bits of the thread's id
  std::optional<std::uint64_t> resident_kb;  // only with memory traces
  std::string_view module;                   // without the blanks that fill its column
  std::size_t length;                        // of the whole header; the text follows
};

// The header that `line` begins with; unset if it does not begin with one.
//   "2026-01-31 10:20:30.123 [0A1B2C3D] QxTrace       text"                => module "QxTrace"
//   "2026-01-31 10:20:30.123 [0A1B2C3D]    51234 KB !QxTrace       text"   => the same and 51234
//   "2026-01-31 10:20:30.123 [0A1B2C3D] ALongModuleName text"              => module "ALongModuleName"
std::optional<TraceHeader> ParseTraceHeader(std::string_view line);

// "2026-01-31 10:20:30.123" => milliseconds, as in TraceHeader; unset for anything else.
std::optional<std::int64_t> ParseTraceStamp(std::string_view stamp);

// The number of `digits`; unset if there are no digits, other characters, or more than 64 bits.
std::optional<std::uint64_t> ParseDecimal(std::string_view digits);

}  // namespace qx::debug
