// Follows the reports that pages show: one follower for each report, however many pages show it.
//
// A report is checked every kPoll. Its new records are read once and turned into one document for each filter.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxview/live/LiveEvent.h"
#include "tools/qxview/report/RecordTail.h"

namespace qx::view {

struct ReportWatch {
  std::string report;     // its name
  std::string base_path;  // of its files
  std::string filter;
  std::optional<Cursor> after;
};

// Threads: one thread.
// Owns: an open file for each report that is followed.
class LiveReports {
 public:
  static constexpr std::chrono::milliseconds kPoll{200};
  static constexpr std::uint32_t kRecordsMax = 500;  // of one document

  explicit LiveReports(Deliver deliver) : deliver_(std::move(deliver)) {}

  // Sends the records after the cursor at once, and from then on new records. [owning thread]
  void Subscribe(StreamId stream, const ReportWatch& watch);
  void Unsubscribe(StreamId stream);

  // The records after the cursor. Without a cursor there are no events, only the cursor of the report's end. [owning
  // thread]
  [[nodiscard]] static LiveNews Changes(const ReportWatch& watch);

  // Sends new records; for Worker::Tick. [owning thread]
  [[nodiscard]] std::optional<std::chrono::milliseconds> Tick();

 private:
  struct Follower {
    std::string report;
    RecordTail tail;
    std::optional<Cursor> cursor;         // after what all streams got; unset: the report could not be read yet
    std::optional<std::int64_t> time_ms;  // of the last record that has a time
    std::map<std::string, std::vector<StreamId>> streams;  // by filter
  };

  void Poll(Follower& follower);

  Deliver deliver_;
  std::map<std::string, Follower> followers_;  // by base path
};

}  // namespace qx::view
