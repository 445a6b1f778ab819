// Reads all reports of a directory again and again: how many records are written, and what the newest ones say.
//
// Each round reads the header and the sizes of each report, and its newest records only if the header has changed.
// Nothing is locked.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "reportfile/tools/directory/ReportSurvey.h"
#include "tools/qxctl/chart/RecordFields.h"

namespace qx::ctl {

using TopClock = std::chrono::steady_clock;

inline constexpr std::uint32_t kTopValues = 24;  // numbers of a report that are kept

// The values in the newest records of a report.
struct TopValue {
  std::string field;  // empty: no field with a number
  std::string text;   // the value of the field with its unit; without a field the text of the newest record
  std::optional<double> number;
  std::vector<double> numbers;  // of the newest records, the oldest first
};

// One report in one round.
struct TopRow {
  std::string name;
  report::ReportStatus status;    // without processes
  std::uint64_t new_records = 0;  // since the round before
  std::optional<double> rate;     // records a second over the last minute; unset in its first round
  TopValue value;
};

// Threads: one thread.
class TopReports {
 public:
  // `field`: the field that is shown of each report; empty: the first one with a number. `rules`: how fields are found.
  TopReports(std::string directory, std::string field, FieldRules rules);

  // Reads the state of all reports of the directory.
  void Poll(TopClock::time_point now);

  // The results of the last poll, in the order of names.
  [[nodiscard]] const std::vector<TopRow>& Rows() const { return rows_; }
  [[nodiscard]] const report::FoundReports& Found() const { return found_; }
  // The sum of the rates.
  [[nodiscard]] double Rate() const;

 private:
  struct Sample {
    TopClock::time_point time;
    std::uint64_t records;  // since the first round
  };
  // The data of a report that is kept from round to round.
  struct Known {
    std::optional<report::IndexHeader> header;
    std::optional<timespec> newest;
    std::deque<Sample> samples;
    TopValue value;
  };

  TopRow RowOf(const std::string& name, Known& known, TopClock::time_point now) const;
  [[nodiscard]] TopValue ValueOf(const std::string& base_path) const;

  std::string directory_;
  std::string field_;
  FieldRules rules_;
  report::FoundReports found_;
  std::vector<TopRow> rows_;
  std::map<std::string, Known> known_;
};

}  // namespace qx::ctl
