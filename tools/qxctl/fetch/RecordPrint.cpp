#include "tools/qxctl/fetch/RecordPrint.h"

#include <algorithm>

#include "tools/qxctl/chart/Chart.h"
#include "tools/qxctl/chart/Scale.h"
#include "tools/qxctl/cli/OutputFile.h"

namespace qx::ctl {

namespace {

// "load, cpu: 120 values, lowest 0.1, highest 9.5"
std::string TitleOf(const std::string& report, const FieldSeries& series) {
  const std::vector<double>& values = series.Values();
  std::string title = report + ", " + series.Field() + ": " + std::to_string(values.size()) +
                      (values.size() == 1 ? " value" : " values");
  if (values.empty()) return title;
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  return title + ", lowest " + AxisNumber(*low) + ", highest " + AxisNumber(*high);
}

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

RecordPrintOptions RecordPrintOptionsOf(const Values& values) {
  return {.format = RecordFormatOptionsOf(values),
          .plot = values.Text("--plot"),
          .svg = values.Text("--svg"),
          .force = values.Flag("--force"),
          .raw = values.Flag("--raw")};
}

Status CheckRecordPrintOptions(const RecordPrintOptions& options) {
  const bool is_csv = options.format.format == RecordFormat::kCsv;
  if (options.format.csv_safe && !is_csv)
    return {ExitCode::kUsage, "--csv-safe changes --format csv; give that as well"};
  const bool has_use = is_csv || !options.plot.empty();
  if (options.format.separator.empty() || has_use) return {};
  return {ExitCode::kUsage, "--fields makes the columns of --format csv or of --plot; give one of these as well"};
}

RecordPrinter::RecordPrinter(Output& output, const RecordPrintOptions& options)
    : output_(output), options_(options), formatter_(options.format) {
  if (!options.plot.empty()) series_.emplace(options.plot, options.format.separator);
  if (options.raw) output.ShowRaw();
}

std::string RecordPrinter::Take(std::uint64_t index, std::string_view record) {
  if (series_) series_->Add(record);
  return formatter_.Format(index, record);
}

Status SlicedRecords::Add(std::string_view record) {
  const std::uint64_t index = printer_.Number();
  if (!filter_.Takes(TextOfRecord(record).text)) return {};
  if (!slice_.HoldsBack()) return PrintOne(index, record);
  held_.Add({index, std::string(record)});
  return {};
}

Status SlicedRecords::Finish() {
  for (const Numbered& each : held_.Take()) {
    if (Status status = PrintOne(each.index, each.record); !status.IsOk()) return status;
  }
  return {};
}

Status SlicedRecords::PrintOne(std::uint64_t index, std::string_view record) {
  ++count_;
  return print_(printer_.Take(index, record));
}

Status RecordPrinter::Finish(const std::string& report) {
  if (!series_) return {};
  const std::string title = TitleOf(report, *series_);
  if (options_.svg == "-") return output_.Data(SvgChart(title, series_->Field(), series_->Values()));
  if (Status status = output_.Data(TextChart(title, series_->Values(), ChartShapeHere(), output_)); !status.IsOk()) {
    return status;
  }
  if (series_->Skipped() > 0) {
    output_.Note("qxctl: " + std::to_string(series_->Skipped()) + " of " +
                 std::to_string(series_->Skipped() + series_->Values().size()) + " records have no number for " +
                 series_->Field());
  }
  if (options_.svg.empty()) return {};
  return WriteSvg(options_.svg, SvgChart(title, series_->Field(), series_->Values()), options_.force);
}

}  // namespace qx::ctl
