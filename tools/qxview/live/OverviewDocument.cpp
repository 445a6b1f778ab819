#include "tools/qxview/live/OverviewDocument.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/cli/text/Text.h"
#include "tools/qxctl/doctor/DoctorDocument.h"
#include "tools/qxctl/store/ReportStates.h"
#include "tools/qxctl/top/TopTable.h"

namespace qx::view {

namespace {

using ctl::Json;
using ctl::Severity;
using ctl::TopRow;
using report::StoreState;

constexpr double kWrapSoonSeconds = 600;
constexpr std::string_view kWrapsSoon = "QX621";

struct JudgedRow {
  const TopRow* row = nullptr;
  Severity severity = Severity::kOk;
  std::vector<std::string_view> findings;
  std::optional<std::int64_t> silence;
};

std::string_view DamageCode(const TopRow& row) {
  const auto& findings = row.status.verdict.scan.findings;
  return !findings.empty() && findings.front().rule == "file.missing" ? "QX304" : "QX305";
}

Severity SeverityOfCode(std::string_view code) {
  return code == kWrapsSoon ? Severity::kWarning : ctl::SeverityOf(code);
}

JudgedRow Judged(const TopRow& row, std::int64_t stale_seconds) {
  JudgedRow judged = {.row = &row, .findings = {}, .silence = SilenceOf(row, stale_seconds)};
  const StoreState state = row.status.verdict.state;
  if (state == StoreState::kDamaged) judged.findings.push_back(DamageCode(row));
  if (state == StoreState::kUnreadable) judged.findings.emplace_back("QX303");
  if (judged.silence.has_value()) judged.findings.emplace_back("QX308");
  if (SecondsToWrap(row).value_or(kWrapSoonSeconds) < kWrapSoonSeconds) judged.findings.push_back(kWrapsSoon);
  for (const std::string_view code : judged.findings) {
    judged.severity = std::max(judged.severity, SeverityOfCode(code));
  }
  return judged;
}

// Worst first. Equally bad rows are ordered by the time of their silence, longest first, and then by name.
bool IsWorse(const JudgedRow& left, const JudgedRow& right) {
  if (left.severity != right.severity) return left.severity > right.severity;
  if (left.silence != right.silence) return left.silence.value_or(-1) > right.silence.value_or(-1);
  return left.row->name < right.row->name;
}

std::vector<JudgedRow> JudgedRows(const ctl::TopReports& reports, const OverviewView& view) {
  std::vector<JudgedRow> rows;
  for (const TopRow& row : reports.Rows()) {
    if (view.only.empty() || row.name == view.only) rows.push_back(Judged(row, view.stale_seconds));
  }
  std::sort(rows.begin(), rows.end(), IsWorse);
  return rows;
}

Json ToJson(const JudgedRow& judged) {
  Json entry = ctl::ToJson(*judged.row);
  entry["silentSeconds"] = judged.silence.has_value() ? Json(*judged.silence) : Json();
  const std::optional<double> wrap = SecondsToWrap(*judged.row);
  entry["secondsToWrap"] = wrap.has_value() ? Json(std::round(*wrap)) : Json();
  entry["severity"] = ctl::NameOf(judged.severity);
  Json codes = Json::Array();
  for (const std::string_view code : judged.findings) codes.Append(code);
  entry["findings"] = std::move(codes);
  return entry;
}

}  // namespace

std::optional<std::int64_t> SilenceOf(const TopRow& row, std::int64_t stale_seconds) {
  const std::optional<std::int64_t> age = ctl::AgeOf(row.status);
  return age.has_value() && *age > stale_seconds ? age : std::nullopt;
}

std::optional<double> SecondsToWrap(const TopRow& row) {
  const bool has_rate = row.rate.has_value() && *row.rate > 0 && row.status.slots.has_value();
  if (!has_rate) return std::nullopt;
  const std::uint32_t slots = *row.status.slots;
  const std::uint32_t free = slots - std::min(slots, row.status.records);
  return static_cast<double>(free > 0 ? free : slots) / *row.rate;
}

Json OverviewDocument(const ctl::TopReports& reports, const OverviewView& view) {
  Json rows = Json::Array();
  for (const JudgedRow& row : JudgedRows(reports, view)) rows.Append(ToJson(row));
  Json document;
  document["cursor"] = view.cursor;
  document["timeMs"] = view.time_ms;
  ctl::SetText(document, "reportDirectory", view.directory);
  document["allReports"] = reports.Found().error == 0 && reports.Found().unlisted.empty();
  document["reports"] = std::move(rows);
  return document;
}

std::string OverviewContent(const ctl::TopReports& reports, const OverviewView& view) {
  Json rows = Json::Array();
  for (const JudgedRow& judged : JudgedRows(reports, view)) {
    Json row = ToJson(judged);
    for (const std::string_view key :
         {"ageSeconds", "silentSeconds", "secondsToWrap", "recordsPerSecond", "newRecords"}) {
      row[key] = nullptr;
    }
    rows.Append(std::move(row));
  }
  rows.Append(static_cast<std::uint64_t>(reports.Found().unlisted.size()));
  return ctl::JsonLine(rows);
}

}  // namespace qx::view
