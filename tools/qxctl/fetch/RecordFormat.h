// Writes records as text, JSON lines or CSV.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/qxctl/chart/RecordDocument.h"
#include "tools/qxctl/chart/RecordFields.h"
#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/cli/text/JsonText.h"

namespace qx::ctl {

enum class RecordFormat { kText, kJson, kCsv };

// "text", "json", "csv"
const char* NameOf(RecordFormat format);

struct RecordFormatOptions {
  RecordFormat format = RecordFormat::kText;
  std::string separator;  // of the columns within a record; empty: a record is one column
  TimeRules time;         // of the stamps
  bool csv_safe = false;  // CSV cells that begin like a formula get an apostrophe before them

  [[nodiscard]] FieldRules Fields() const { return {separator, time}; }
};

// The names of the formats in the order of RecordFormat.
inline constexpr std::string_view kRecordFormatNames[] = {"text", "json", "csv"};

// For a command with --format and --separator.
RecordFormatOptions RecordFormatOptionsOf(const Values& values);

// Writes the records of one output.
//
// CSV begins with a header line. It is written with the first record, whose fields determine the number of columns. If
// a record has fewer fields, its last columns are empty; if it has more, the last column has the rest of its text.
class RecordFormatter {
 public:
  // `columns`: the number that the output already has; 0: nothing was written yet.
  RecordFormatter(const RecordFormatOptions& options, std::size_t columns = 0)
      : options_(options), fields_(options.Fields()), columns_(columns) {}

  [[nodiscard]] std::string Format(std::uint64_t index, std::string_view record);
  [[nodiscard]] std::size_t Columns() const { return columns_; }

 private:
  std::string FormatCsv(std::uint64_t index, std::string_view text);
  std::string CsvHeader() const;

  RecordFormatOptions options_;
  FieldRules fields_;
  std::size_t columns_;
};

}  // namespace qx::ctl
