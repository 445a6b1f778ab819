#include "tools/qxctl/top/TopTable.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "tools/qxctl/chart/Sparkline.h"
#include "tools/qxctl/chart/TimeAxis.h"
#include "tools/qxctl/cli/text/Duration.h"
#include "tools/qxctl/cli/text/Table.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/store/ReportStates.h"

namespace qx::ctl {

namespace {

constexpr std::size_t kValueWidth = 60;
constexpr std::size_t kSparkColumn = 4;
constexpr double kSecondsOfMinute = 60;

// The text with control bytes escaped, cut to the width of a column. No character is cut in two.
std::string Shortened(std::string_view text, std::size_t width) {
  std::string shown = ForTerminal(Visible(text.substr(0, 4 * width)));
  if (WidthOf(shown) <= width) return shown;
  std::size_t end = 0;
  for (std::size_t characters = 0; end < shown.size(); ++end) {
    const bool begins_character = (static_cast<unsigned char>(shown[end]) & 0xC0) != 0x80;
    if (begins_character && characters++ == width - 3) break;
  }
  return shown.substr(0, end) + "...";
}

// "cpu 31%", or the text of a record without numbers.
std::string ValueText(const Output& output, const TopRow& row) {
  if (NeedsAttention(row.status)) return output.Paint(Style::kBad, StateOf(row.status));
  if (row.status.IsEmpty()) return "empty";
  const TopValue& value = row.value;
  if (value.field.empty()) return value.text.empty() ? "-" : Shortened(value.text, kValueWidth);
  return value.number ? Shortened(value.field + " " + value.text, kValueWidth) : "-";
}

std::string AgeText(const TopRow& row) {
  const auto age = AgeOf(row.status);
  return age ? DurationText(*age) : "-";
}

std::string RecordsText(const TopRow& row) {
  return row.status.slots ? std::to_string(row.status.records) + " of " + std::to_string(*row.status.slots) : "0";
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// "12 reports in /srv/reports, 34.5/s, 2026-01-31 10:20:30"
std::string Summary(const TopReports& reports, const TopView& view) {
  const std::size_t count = reports.Rows().size();
  const bool has_rate =
      std::any_of(reports.Rows().begin(), reports.Rows().end(), [](const TopRow& row) { return row.rate.has_value(); });
  const std::string rate = has_rate ? ", " + RateText(reports.Rate()) : "";
  std::string text = std::to_string(count) + (count == 1 ? " report in " : " reports in ") + Visible(view.directory) +
                     rate + ", " + TimeText(NowMs(), view.time);
  if (reports.Found().error != 0) text += std::string("; cannot list it: ") + std::strerror(reports.Found().error);
  if (!reports.Found().unlisted.empty()) {
    const report::UnlistedDirectory& first = reports.Found().unlisted.front();
    text += "; cannot list " + Visible(first.name) + ": " + std::strerror(first.error);
  }
  return ForTerminal(text);
}

}  // namespace

std::string RateText(const std::optional<double>& rate) {
  if (!rate) return "-";
  if (*rate == 0) return "0";
  char text[32];
  const bool is_slow = *rate < 1;
  std::snprintf(text, sizeof text,
                is_slow       ? "%.2g/min"
                : *rate < 100 ? "%.3g/s"
                              : "%.0f/s",
                is_slow ? *rate * kSecondsOfMinute : *rate);
  return text;
}

std::vector<std::string> TopLines(const TopReports& reports, const TopView& view, const Output& output) {
  std::vector<TableRow> rows = {{"report", "records", "rate", "newest", "last values", "value"}};
  for (const TopRow& row : reports.Rows()) {
    const std::string line = Sparkline(row.value.numbers, kTopValues, view.unicode);
    rows.push_back({ForTerminal(Visible(row.name)), RecordsText(row), RateText(row.rate), AgeText(row),
                    NeedsAttention(row.status) ? "" : line, ValueText(output, row)});
  }
  const auto paint = [&](std::size_t row, std::size_t column, const std::string& cell) {
    return row > 0 && column == kSparkColumn ? output.Paint(Style::kLine1, cell) : cell;
  };
  std::vector<std::string> lines = LinesOf(TableText(rows, {.paint = paint}));
  lines.insert(lines.begin(), Summary(reports, view));
  return lines;
}

Json ToJson(const TopRow& row) {
  Json entry;
  SetText(entry, "report", row.name);
  entry["state"] = StateOf(row.status);
  entry["trouble"] = TroubleOf(row.status);
  entry["records"] = row.status.records;
  entry["slots"] = nullptr;
  if (row.status.slots) entry["slots"] = *row.status.slots;
  entry["newRecords"] = row.new_records;
  entry["recordsPerSecond"] = nullptr;
  if (row.rate) entry["recordsPerSecond"] = *row.rate;
  entry["ageSeconds"] = nullptr;
  if (const auto age = AgeOf(row.status)) entry["ageSeconds"] = *age;
  entry["field"] = nullptr;
  if (!row.value.field.empty()) SetText(entry, "field", row.value.field);
  SetText(entry, "value", row.value.text);
  entry["number"] = nullptr;
  if (row.value.number) entry["number"] = *row.value.number;
  Json numbers = Json::Array();
  for (const double number : row.value.numbers) numbers.Append(number);
  entry["numbers"] = numbers;
  return entry;
}

Json ToJson(const TopReports& reports, const TopView& view, std::uint64_t round) {
  Json rows = Json::Array();
  for (const TopRow& row : reports.Rows()) rows.Append(ToJson(row));
  Json document;
  SetText(document, "reportDirectory", view.directory);
  document["round"] = round;
  document["timeMs"] = NowMs();
  document["reports"] = rows;
  document["allReports"] = reports.Found().error == 0 && reports.Found().unlisted.empty();
  return document;
}

}  // namespace qx::ctl
