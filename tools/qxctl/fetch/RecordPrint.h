// How a command prints records: in a format, or as a chart of one of their fields.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/qxctl/fetch/FieldSeries.h"
#include "tools/qxctl/fetch/RecordFormat.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace qx::ctl {

struct RecordPrintOptions {
  RecordFormatOptions format;
  std::string plot;  // empty: no chart
  std::string svg;   // empty: only in the terminal
};

// Adds --format, --fields, --plot and --svg. `options` must live until the command has run.
CLI::Option* AddRecordPrintOptions(CLI::App& command, RecordPrintOptions& options);

// kUsage for --fields without anything that uses it.
[[nodiscard]] Status CheckRecordPrintOptions(const RecordPrintOptions& options);

// Threads: used by one thread.
class RecordPrinter {
 public:
  RecordPrinter(Output& output, const RecordPrintOptions& options);

  // Whether records go out as they are stored, so that nobody has to take them apart.
  bool IsPlain() const { return options_.format.format == RecordFormat::kText && !series_; }
  bool DrawsChart() const { return series_.has_value(); }

  // The next record as it is to be written; it counts for the chart.
  [[nodiscard]] std::string Take(std::string_view record);

  // Draws the chart, if one is wanted, and says how many records had no number.
  Status Finish(const std::string& report);

 private:
  Output& output_;
  RecordPrintOptions options_;
  RecordFormatter formatter_;
  std::optional<FieldSeries> series_;
  std::uint64_t index_ = 0;
};

}  // namespace qx::ctl
