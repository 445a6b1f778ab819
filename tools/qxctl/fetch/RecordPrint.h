// Prints records in a format, or as a chart of some of their fields, or prints the fields of the newest record.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/qxctl/chart/FieldSeries.h"
#include "tools/qxctl/fetch/RecordFormat.h"
#include "tools/qxctl/slice/Slice.h"

namespace qx::ctl {

struct RecordPrintOptions {
  RecordFormatOptions format;
  std::vector<std::string> plot;  // empty: no chart
  std::string svg;                // empty: only in the terminal
  bool shows_fields = false;      // of the newest record, instead of records
  bool force = false;
  bool raw = false;  // a terminal gets every byte as well
};

// Returns what is wrong with a separator of columns, or with the name of a field, or an empty text.
std::string_view CheckSeparator(std::string_view separator);
std::string_view CheckField(std::string_view field);

inline constexpr Parameter kRecordPrintParameters[] = {
    {.name = "--format",
     .kind = ValueKind::kText,
     .value = "FORMAT",
     .help = "How records are written: text (as stored), json (a line each), csv",
     .choices = kRecordFormatNames,
     .ignores_case = true},
    {.name = "--separator",
     .kind = ValueKind::kText,
     .value = "SEPARATOR",
     .help = "Split a record's text into columns at this separator (\\t: a tab)",
     .check = CheckSeparator},
    {.name = "--fields",
     .help = "Instead of records, show the fields of the newest one: name, type and value",
     .excludes = {"--format", "--plot"}},
    {.name = "--csv-safe", .help = "Put an apostrophe before CSV cells that a spreadsheet would read as a formula"},
    {.name = "--plot",
     .kind = ValueKind::kField,
     .value = "FIELD",
     .help = "Draw these fields of the records (names, or columns with --separator) as a chart",
     .check = CheckField,
     .is_repeatable = true,
     .is_list = true},
    {.name = "--svg",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help = "Also write the chart to this file as SVG; - writes only the SVG, to standard output",
     .needs = "--plot"},
    {.name = "--raw", .help = "Show control characters of records on a terminal as they are"},
    {.name = "--force", .help = "Also write to files of other users; a file keeps its owner"},
};

// For a command with kRecordPrintParameters.
RecordPrintOptions RecordPrintOptionsOf(const Values& values);

// kUsage for --separator without an option that uses it, and for too many fields in a chart. `prints_json`: records are
// printed as JSON, whatever the format is.
[[nodiscard]] Status CheckRecordPrintOptions(const RecordPrintOptions& options, bool prints_json = false);

// Threads: used by one thread.
class RecordPrinter {
 public:
  RecordPrinter(Output& output, const RecordPrintOptions& options);

  // Returns the number of the next record and counts it, whether or not it is printed.
  [[nodiscard]] std::uint64_t Number() { return index_++; }

  // Whether records are printed as they are stored, so that nothing has to split them.
  bool IsPlain() const { return options_.format.format == RecordFormat::kText && !ReplacesRecords(); }
  bool DrawsChart() const { return series_.has_value(); }
  // Whether standard output gets something else than the records.
  bool ReplacesRecords() const { return DrawsChart() || options_.shows_fields; }

  // The time of the record in a chart: that of its stamp, or of the newest stamp before it. Call it for each record in
  // order, printed or not.
  [[nodiscard]] std::optional<std::int64_t> TimeOf(std::string_view record);

  // The record with this number in its output form; it is added to the chart.
  [[nodiscard]] std::string Take(std::uint64_t index, std::optional<std::int64_t> time_ms, std::string_view record);

  // Shows the fields of the newest record of a report, if that is requested. kFinding if it has none.
  Status ShowFields(const std::string& report, bool has_heading);

  // Draws the chart, if one is requested, and prints how many records had no number; or shows the fields. kNotFound if
  // no record has a requested field.
  Status Finish(const std::string& report);

 private:
  Output& output_;
  RecordPrintOptions options_;
  RecordFormatter formatter_;
  std::optional<FieldSeries> series_;
  std::optional<std::int64_t> time_ms_;  // of the newest stamp
  std::optional<std::string> newest_;    // the text of the newest record, if its fields are shown
  std::uint64_t newest_index_ = 0;
  bool has_shown_fields_ = false;
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
  // Prints the records that could not be printed before the last one was known.
  Status Finish();

  // The number of records that were printed.
  std::uint64_t Count() const { return count_; }

 private:
  struct Numbered {
    std::uint64_t index;
    std::optional<std::int64_t> time_ms;
    std::string record;
  };

  Status PrintOne(std::uint64_t index, std::optional<std::int64_t> time_ms, std::string_view record);

  const Slice& slice_;
  SliceFilter filter_;
  SliceBuffer<Numbered> held_;
  RecordPrinter& printer_;
  Print print_;
  std::uint64_t count_ = 0;
};

}  // namespace qx::ctl
