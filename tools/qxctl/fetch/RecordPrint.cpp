#include "tools/qxctl/fetch/RecordPrint.h"

#include <algorithm>
#include <utility>

#include "tools/qxctl/chart/Chart.h"
#include "tools/qxctl/chart/FieldTable.h"
#include "tools/qxctl/cli/OutputFile.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

Status WriteSvg(const std::string& path, const std::string& svg, bool force) {
  OutputFile file;
  if (Status status = file.Open(path, force); !status.IsOk()) return status;
  if (Status status = file.Write(svg); !status.IsOk()) return status;
  return file.Commit();
}

}  // namespace

std::string_view CheckSeparator(std::string_view separator) {
  return separator.empty() ? "a separator has at least one character" : std::string_view();
}

std::string_view CheckField(std::string_view field) {
  return field.empty() ? "a field has a name of at least one character" : std::string_view();
}

RecordPrintOptions RecordPrintOptionsOf(const Values& values) {
  RecordPrintOptions options;
  options.format = RecordFormatOptionsOf(values);
  options.svg = values.Text("--svg");
  options.shows_fields = values.Flag("--fields");
  options.force = values.Flag("--force");
  options.raw = values.Flag("--raw");
  for (const std::string& field : values.Texts("--plot")) {
    const bool is_new = std::find(options.plot.begin(), options.plot.end(), field) == options.plot.end();
    if (is_new) options.plot.push_back(field);
  }
  return options;
}

Status CheckRecordPrintOptions(const RecordPrintOptions& options, bool prints_json) {
  const bool is_csv = options.format.format == RecordFormat::kCsv;
  if (options.format.csv_safe && !is_csv)
    return {ExitCode::kUsage, "--csv-safe changes --format csv; give that as well"};
  if (options.plot.size() > kChartLinesMax) {
    return {ExitCode::kUsage,
            "--plot: a chart has at most " + std::to_string(kChartLinesMax) + " fields; give no more"};
  }
  const bool has_use =
      prints_json || options.format.format != RecordFormat::kText || !options.plot.empty() || options.shows_fields;
  if (options.format.separator.empty() || has_use) return {};
  return {ExitCode::kUsage,
          "--separator makes columns for --format csv, --format json, --plot and --fields; give one of these as well"};
}

RecordPrinter::RecordPrinter(Output& output, const RecordPrintOptions& options)
    : output_(output), options_(options), formatter_(options.format) {
  if (!options.plot.empty()) series_.emplace(options.plot, options.format.Fields());
  if (options.raw) output.ShowRaw();
}

std::optional<std::int64_t> RecordPrinter::TimeOf(std::string_view record) {
  if (!series_) return std::nullopt;
  if (const auto time_ms = TimeOfRecord(TextOfRecord(record).text, options_.format.time)) time_ms_ = time_ms;
  return time_ms_;
}

std::string RecordPrinter::Take(std::uint64_t index, std::optional<std::int64_t> time_ms, std::string_view record) {
  if (series_) series_->Add(index, time_ms, record);
  const bool is_newest = options_.shows_fields && (!newest_ || index >= newest_index_);
  if (is_newest) {
    newest_ = TextOfRecord(record).text;
    newest_index_ = index;
  }
  return formatter_.Format(index, record);
}

Status RecordPrinter::ShowFields(const std::string& report, bool has_heading) {
  if (!options_.shows_fields) return {};
  has_shown_fields_ = true;
  const std::optional<std::string> newest = std::exchange(newest_, std::nullopt);
  if (!newest) {
    output_.Note("qxctl: " + Visible(report) + " has no record whose fields could be shown");
    return {};
  }
  const std::string table = FieldTable(*newest, options_.format.Fields());
  if (table.empty()) {
    return {ExitCode::kFinding, "the newest record of " + Visible(report) +
                                    " has no fields; \"--separator\" splits the records into columns"};
  }
  return output_.Data((has_heading ? Visible(report) + ":\n" : "") + table);
}

Status SlicedRecords::Add(std::string_view record) {
  const std::uint64_t index = printer_.Number();
  const std::optional<std::int64_t> time_ms = printer_.TimeOf(record);
  if (!filter_.Takes(TextOfRecord(record).text)) return {};
  if (!slice_.NeedsAllRecords()) return PrintOne(index, time_ms, record);
  held_.Add({index, time_ms, std::string(record)});
  return {};
}

Status SlicedRecords::Finish() {
  for (const Numbered& each : held_.Take()) {
    if (Status status = PrintOne(each.index, each.time_ms, each.record); !status.IsOk()) return status;
  }
  return {};
}

Status SlicedRecords::PrintOne(std::uint64_t index, std::optional<std::int64_t> time_ms, std::string_view record) {
  ++count_;
  return print_(printer_.Take(index, time_ms, record));
}

Status RecordPrinter::Finish(const std::string& report) {
  if (!has_shown_fields_) {
    if (Status status = ShowFields(report, false); !status.IsOk()) return status;
  }
  if (!series_) return {};
  if (Status status = series_->Check(report); !status.IsOk()) return status;
  const ChartData chart = series_->ToChart(report);
  if (options_.svg == "-") return output_.Data(SvgChart(chart));
  if (Status status = output_.Data(TextChart(chart, ChartShapeHere(), output_)); !status.IsOk()) return status;
  for (const std::string& omission : series_->Omissions()) output_.Note("qxctl: " + omission);
  return options_.svg.empty() ? Status() : WriteSvg(options_.svg, SvgChart(chart), options_.force);
}

}  // namespace qx::ctl
