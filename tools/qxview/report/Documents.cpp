#include "tools/qxview/report/Documents.h"

#include <algorithm>

#include "tools/qxctl/chart/RecordDocument.h"
#include "tools/qxctl/chart/RecordFields.h"
#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::view {

namespace {

using ctl::Json;

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

ctl::FieldRules Rules() {
  ctl::FieldRules rules;
  rules.time.now_ms = ctl::NowMs();
  return rules;
}

Json ToJson(const std::optional<Column>& column) {
  return column.has_value() ? Json{column->min, column->max, column->last} : Json();
}

Json ToJson(const ChartRow& row, std::size_t fields) {
  Json values = Json::Array();
  for (std::size_t i = 0; i < fields; ++i) values.Append(ToJson(row.values[i]));
  return {{"timeMs", row.place}, {"values", std::move(values)}};
}

// The text after the digits of a number: "12%" => "%".
std::string UnitOf(std::string_view value) {
  const std::size_t end = value.find_last_of("0123456789.");
  return std::string(value.substr(end == std::string_view::npos ? value.size() : end + 1));
}

Json FieldToJson(const ctl::RecordField& field) {
  Json entry;
  ctl::SetText(entry, "name", field.name);
  ctl::SetText(entry, "unit", UnitOf(field.value));
  entry["newest"] = ctl::ValueToJson(field);
  return entry;
}

}  // namespace

bool Shows(std::string_view filter, std::string_view text) {
  const auto is_same = [](char left, char right) { return Lower(left) == Lower(right); };
  return filter.empty() || std::search(text.begin(), text.end(), filter.begin(), filter.end(), is_same) != text.end();
}

Json RecordsDocument(const std::string& report, const RecordPage& page, std::string_view filter) {
  const ctl::FieldRules rules = Rules();
  Json records = Json::Array();
  std::optional<std::int64_t> time_ms = page.time_before;
  for (const NumberedRecord& record : page.records) {
    const std::string_view text = ctl::TextOfRecord(record.text).text;
    if (const auto stamp = ctl::TimeOfRecord(text, rules.time)) time_ms = stamp;
    if (!Shows(filter, text)) continue;
    Json entry = ctl::RecordToJson(record.number, record.text, rules);
    if (time_ms.has_value()) entry["timeMs"] = *time_ms;
    records.Append(std::move(entry));
  }
  Json document;
  ctl::SetText(document, "report", report);
  document["cursor"] = TextOf(page.cursor);
  document["reset"] = page.is_reset;
  document["lost"] = page.lost;
  document["omitted"] = page.omitted;
  document["records"] = std::move(records);
  return document;
}

std::optional<std::int64_t> TimeAfter(const RecordPage& page) {
  const ctl::FieldRules rules = Rules();
  for (auto record = page.records.rbegin(); record != page.records.rend(); ++record) {
    if (const auto stamp = ctl::TimeOfRecord(record->text, rules.time)) return stamp;
  }
  return page.time_before;
}

Json ChartDocument(const std::string& report, const std::vector<std::string>& fields, const Chart& chart) {
  Json rows = Json::Array();
  for (const ChartRow& row : chart.rows) rows.Append(ToJson(row, fields.size()));
  Json gaps = Json::Array();
  for (const Gap& gap : chart.gaps) gaps.Append({{"from", gap.from}, {"to", gap.to}});
  Json document;
  ctl::SetText(document, "report", report);
  document["cursor"] = TextOf(chart.cursor);
  document["axis"] = chart.has_times ? "time" : "number";
  document["from"] = chart.range.from;
  document["to"] = chart.range.to;
  document["oldestMs"] = chart.all.has_value() ? Json(chart.all->from) : Json();
  document["newestMs"] = chart.all.has_value() ? Json(chart.all->to) : Json();
  document["fields"] = fields;
  document["columns"] = std::move(rows);
  document["gaps"] = std::move(gaps);
  return document;
}

Json FieldsDocument(const std::string& report, const RecordPage& page) {
  const ctl::FieldRules rules = Rules();
  std::vector<std::string> known;
  Json fields = Json::Array();
  for (auto record = page.records.rbegin(); record != page.records.rend(); ++record) {
    for (const ctl::RecordField& field : ctl::ParseFields(ctl::TextOfRecord(record->text).text, rules)) {
      const bool is_new = std::find(known.begin(), known.end(), field.name) == known.end();
      if (!field.IsNumber() || !is_new) continue;
      known.push_back(field.name);
      fields.Append(FieldToJson(field));
    }
  }
  Json document;
  ctl::SetText(document, "report", report);
  document["fields"] = std::move(fields);
  return document;
}

}  // namespace qx::view
