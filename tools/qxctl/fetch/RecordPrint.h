// Prints records in a format, or as a chart of one of their fields.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "tools/qxctl/chart/FieldSeries.h"
#include "tools/qxctl/fetch/RecordFormat.h"
#include "tools/qxctl/slice/Slice.h"

namespace qx::ctl {

struct RecordPrintOptions {
  RecordFormatOptions format;
  std::string plot;  // empty: no chart
  std::string svg;   // empty: only in the terminal
  bool force = false;
  bool raw = false;  // a terminal gets every byte as well
};

// Returns what is wrong with a separator of fields, or an empty text.
std::string_view CheckSeparator(std::string_view separator);

inline constexpr Parameter kRecordPrintParameters[] = {
    {.name = "--format",
     .kind = ValueKind::kText,
     .value = "FORMAT",
     .help = "How records are written: text (as stored), json (a line each), csv",
     .choices = kRecordFormatNames,
     .ignores_case = true},
    {.name = "--fields",
     .kind = ValueKind::kText,
     .value = "SEPARATOR",
     .help = "Split a record's text into columns at this separator (\\t: a tab)",
     .check = CheckSeparator},
    {.name = "--csv-safe",
     .help = "Put an apostrophe in front of CSV cells that a spreadsheet would take for a formula"},
    {.name = "--plot",
     .kind = ValueKind::kText,
     .value = "FIELD",
     .help = "Draw this field of the records (a key, or a column with --fields)"},
    {.name = "--svg",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help = "Write the chart to this file as well; - for standard output instead",
     .needs = "--plot"},
    {.name = "--raw", .help = "Show control characters of records on a terminal as they are"},
    {.name = "--force", .help = "Also write to files of other users; a file keeps its owner"},
};

// From a command with kRecordPrintParameters.
RecordPrintOptions RecordPrintOptionsOf(const Values& values);

// kUsage for --fields without an option that uses it.
[[nodiscard]] Status CheckRecordPrintOptions(const RecordPrintOptions& options);

// Threads: used by one thread.
class RecordPrinter {
 public:
  RecordPrinter(Output& output, const RecordPrintOptions& options);

  // The number of the next record, whether or not it is printed.
  [[nodiscard]] std::uint64_t Number() { return index_++; }

  // Whether records are printed as they are stored, so that nothing has to split them.
  bool IsPlain() const { return options_.format.format == RecordFormat::kText && !series_; }
  bool DrawsChart() const { return series_.has_value(); }

  // The record with this number in its output form; it is added to the chart.
  [[nodiscard]] std::string Take(std::uint64_t index, std::string_view record);

  // Draws the chart, if one is requested, and prints how many records had no number.
  Status Finish(const std::string& report);

 private:
  Output& output_;
  RecordPrintOptions options_;
  RecordFormatter formatter_;
  std::optional<FieldSeries> series_;
  std::uint64_t index_ = 0;
};

// Prints the records of a slice of one report.
//
// Threads: used by one thread. Borrows the slice and the printer.
class SlicedRecords {
 public:
  using Print = std::function<Status(const std::string& text)>;

  SlicedRecords(const Slice& slice, RecordPrinter& printer, Print print)
      : slice_(slice), filter_(slice), held_(slice), printer_(printer), print_(std::move(print)) {}

  // The next record, the oldest first.
  Status Add(std::string_view record);
  // Prints what was held back.
  Status Finish();

  // How many were printed.
  std::uint64_t Count() const { return count_; }

 private:
  struct Numbered {
    std::uint64_t index;
    std::string record;
  };

  Status PrintOne(std::uint64_t index, std::string_view record);

  const Slice& slice_;
  SliceFilter filter_;
  SliceBuffer<Numbered> held_;
  RecordPrinter& printer_;
  Print print_;
  std::uint64_t count_ = 0;
};

}  // namespace qx::ctl
