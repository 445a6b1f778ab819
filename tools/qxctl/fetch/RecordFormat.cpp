#include "tools/qxctl/fetch/RecordFormat.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/slice/SliceOptions.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
constexpr std::string_view kCsvLineEnd = "\r\n";

// A spreadsheet reads a cell that begins like this as a formula.
bool BeginsLikeFormula(std::string_view text) {
  return !text.empty() && std::string_view("=+-@\t\r").find(text.front()) != std::string_view::npos;
}

// RFC 4180: a field with a comma, a quote or a line end is quoted, with its own quotes doubled.
//   a,"b" => "a,""b"""      safe: =1+1 => '=1+1
std::string CsvField(std::string_view text, bool is_safe) {
  if (is_safe && BeginsLikeFormula(text)) return CsvField("'" + std::string(text), false);
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace

const char* NameOf(RecordFormat format) { return kRecordFormatNames[static_cast<std::size_t>(format)].data(); }

RecordFormatOptions RecordFormatOptionsOf(const Values& values) {
  RecordFormatOptions options;
  const auto* const name = std::find(std::begin(kRecordFormatNames), std::end(kRecordFormatNames),
                                     values.Text("--format", NameOf(options.format)));
  options.format = static_cast<RecordFormat>(name - std::begin(kRecordFormatNames));
  const std::string separator = values.Text("--separator");
  options.csv_safe = values.Flag("--csv-safe");
  options.separator = separator == "\\t" ? "\t" : separator;
  options.time = TimeRulesOf(values);
  return options;
}

std::string RecordFormatter::Format(std::uint64_t index, std::string_view record) {
  switch (options_.format) {
    case RecordFormat::kText:
      break;
    case RecordFormat::kJson:
      return JsonLineOf(RecordToJson(index, record, fields_));
    case RecordFormat::kCsv:
      return FormatCsv(index, TextOfRecord(record).text);
  }
  return std::string(record);
}

std::string RecordFormatter::FormatCsv(std::uint64_t index, std::string_view text) {
  std::string line;
  if (columns_ == 0) {
    columns_ = FieldsOf(text, options_.separator, kNoLimit).size();
    line = CsvHeader();
  }
  line += std::to_string(index);
  const std::vector<std::string_view> fields = FieldsOf(text, options_.separator, columns_);
  for (std::size_t i = 0; i < columns_; ++i)
    line.append(",").append(i < fields.size() ? CsvField(fields[i], options_.csv_safe) : "");
  return line.append(kCsvLineEnd);
}

std::string RecordFormatter::CsvHeader() const {
  std::string header = "index";
  if (options_.separator.empty()) return header.append(",text").append(kCsvLineEnd);
  for (std::size_t i = 1; i <= columns_; ++i) header += ",column" + std::to_string(i);
  return header.append(kCsvLineEnd);
}

}  // namespace qx::ctl
