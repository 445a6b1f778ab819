// Collects the numbers in some fields of each record for a chart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/qxctl/chart/ChartData.h"
#include "tools/qxctl/chart/RecordFields.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Threads: used by one thread.
class FieldSeries {
 public:
  // `fields`: at least one name; with a separator also numbers of columns, from 1 on.
  FieldSeries(const std::vector<std::string>& fields, FieldRules rules);

  // `time_ms`: the time of the record or, if it has no stamp, of the newest record before it that has one.
  void Add(std::uint64_t index, std::optional<std::int64_t> time_ms, std::string_view record);

  // kNotFound if there are records, but one of the fields has a number in none of them; the message lists the fields
  // with numbers. `report` is its name in the message.
  [[nodiscard]] Status Check(const std::string& report) const;

  // x is the time if at least half of the numbers have a time, and not all times are equal; numbers without a time are
  // then left out. Otherwise x is the number of the record.
  [[nodiscard]] ChartData ToChart(const std::string& report) const;

  // One sentence for each kind of values that the chart of ToChart does not show.
  [[nodiscard]] std::vector<std::string> Omissions() const;

 private:
  struct FieldValue {
    std::uint64_t index;
    std::optional<std::int64_t> time_ms;
    double value;
  };
  struct Series {
    std::string field;
    std::vector<FieldValue> values = {};
    std::uint64_t skipped = 0;  // records without a number in this field
  };

  void LearnFields(std::string_view text);
  [[nodiscard]] bool HasTimes() const;
  [[nodiscard]] std::uint64_t CountOf(bool has_time) const;
  [[nodiscard]] Status Unknown(const std::string& field, const std::string& report) const;

  FieldRules rules_;
  std::vector<Series> series_;
  std::uint64_t records_ = 0;
  std::vector<std::string> known_;  // the fields with numbers, in the order of the records
  std::vector<std::string> texts_;  // those that have only texts
  std::uint64_t learned_ = 0;       // the number of records that were searched for them
};

}  // namespace qx::ctl
