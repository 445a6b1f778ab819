// Follows the trace files of a directory while pages show them.
//
// From the first request on, the newest entries that are written are kept, so that a page that lost its stream misses
// none of them. Older entries are read from the files when a page requests them. A log of more than kFollowedMax bytes
// is not followed, because following needs a copy of it; its entries are only read from the file.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "debug/tools/TraceFollow.h"
#include "tools/qxview/live/LiveEvent.h"
#include "tools/qxview/live/TraceFiles.h"

namespace qx::view {

struct TraceWatch {
  TraceWish wish;     // without times
  std::string after;  // a cursor; empty: only entries that are written from now on
};

struct TracePage {
  std::string cursor;
  bool is_reset = false;
  std::uint64_t omitted = 0;
  std::optional<TracePlace> oldest = {};  // set if there are older entries before it
  std::vector<TraceItem> items;
};

// The document qxview-traces.
[[nodiscard]] ctl::Json TracesDocument(const TracePage& page);

// Threads: one thread.
// Owns: open files, and at most kKeptMax entries or kKeptBytesMax bytes of them.
class TraceFeed {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kPoll{200};
  static constexpr std::chrono::seconds kSearch{2};  // for new files
  static constexpr std::chrono::seconds kUnused{60};
  static constexpr std::size_t kKeptMax = 4000;
  static constexpr std::size_t kKeptBytesMax = std::size_t{2} << 20;
  static constexpr std::int64_t kFollowedMax = std::int64_t{4} << 20;
  static constexpr std::size_t kEntriesMax = 500;  // of one event

  TraceFeed(std::string directory, Deliver deliver);

  // The newest entries that pass. False if the directory cannot be read; if it has no trace files, there are no
  // entries.
  // [owning thread]
  [[nodiscard]] bool Read(const TraceWish& wish, std::size_t count_max, TracePage& page);
  // The newest of the entries before this place. [owning thread]
  [[nodiscard]] bool ReadBefore(const TracePlace& place, const TraceWish& wish, std::size_t count_max, TracePage& page);
  // The entries after the cursor; the newest entries if the cursor is not known any more. [owning thread]
  [[nodiscard]] TracePage ReadAfter(const TraceWatch& watch);

  void Subscribe(StreamId stream, const TraceWatch& watch);
  void Unsubscribe(StreamId stream);
  [[nodiscard]] LiveNews Changes(const TraceWatch& watch);

  // For Worker::Tick. [owning thread]
  [[nodiscard]] std::optional<std::chrono::milliseconds> Tick();

 private:
  struct Group {
    TraceChoice choice;
    std::vector<StreamId> streams;
  };

  void Poll(bool searches = false);
  void Search();
  void Take(const std::string& file, const debug::TracePoll& poll, std::vector<TraceItem>& items);
  void Keep(std::vector<TraceItem> items);
  void Send(const std::vector<TraceItem>& items);
  [[nodiscard]] std::string CursorText() const;
  [[nodiscard]] std::optional<std::uint64_t> NumberOf(const std::string& cursor) const;

  std::string directory_;
  Deliver deliver_;
  std::string run_;  // a text that no other run of the server has
  bool is_active_ = false;
  Clock::time_point searched_;
  Clock::time_point used_;
  std::map<std::string, std::unique_ptr<debug::TraceFollower>> followers_;  // by file; null: it is not followed
  std::deque<TraceItem> kept_;
  std::size_t kept_bytes_ = 0;
  std::uint64_t next_ = 0;               // number of the entry after the newest one
  std::map<std::string, Group> groups_;  // by level and filter
};

}  // namespace qx::view
