#include "tools/qxctl/chart/FieldSeries.h"

#include <algorithm>
#include <utility>

#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/cli/text/NearNames.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

constexpr std::uint64_t kLearnedMax = 1000;  // records that are searched for names
constexpr std::size_t kKnownMax = 20;        // names in a message

bool Contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

void AddOnce(std::vector<std::string>& names, const std::string& name) {
  if (names.size() < kKnownMax && !Contains(names, name)) names.push_back(name);
}

}  // namespace

FieldSeries::FieldSeries(const std::vector<std::string>& fields, FieldRules rules) : rules_(std::move(rules)) {
  for (const std::string& field : fields) series_.push_back({field});
}

void FieldSeries::Add(std::uint64_t index, std::optional<std::int64_t> time_ms, std::string_view record) {
  const std::string_view text = TextOfRecord(record).text;
  ++records_;
  bool lacks_number = false;
  for (Series& series : series_) {
    if (const std::optional<double> number = NumberOfField(text, series.field, rules_)) {
      series.values.push_back({index, time_ms, *number});
    } else {
      ++series.skipped;
      lacks_number = true;
    }
  }
  if (lacks_number) LearnFields(text);
}

// Collects names for the message about an unknown field. No record has this field, so some records are enough.
void FieldSeries::LearnFields(std::string_view text) {
  if (learned_++ >= kLearnedMax) return;
  for (const RecordField& field : ParseFields(text, rules_)) AddOnce(field.IsNumber() ? known_ : texts_, field.name);
}

Status FieldSeries::Check(const std::string& report) const {
  for (const Series& series : series_) {
    if (records_ > 0 && series.values.empty()) return Unknown(series.field, report);
  }
  return {};
}

Status FieldSeries::Unknown(const std::string& field, const std::string& report) const {
  const std::string what = "no record of " + Visible(report) + " has a number in the field " + Visible(field);
  const std::string fields = "fields with numbers: " + Visible(Listed(known_, "and"));
  const std::string near = DidYouMean(NearNames(field, known_));
  if (Contains(texts_, field))
    return {ExitCode::kNotFound, what + ", only texts" + (known_.empty() ? "" : "; " + fields)};
  if (!near.empty()) return {ExitCode::kNotFound, what + near + " (" + fields + ")"};
  if (!known_.empty()) return {ExitCode::kNotFound, what + "; " + fields};
  const char* const advice = rules_.separator.empty() ? "; \"--separator\" splits records into columns" : "";
  return {ExitCode::kNotFound, what + ", and none of its other fields has one" + advice};
}

std::uint64_t FieldSeries::CountOf(bool has_time) const {
  std::uint64_t count = 0;
  for (const Series& series : series_) {
    count += static_cast<std::uint64_t>(
        std::count_if(series.values.begin(), series.values.end(),
                      [&](const FieldValue& value) { return value.time_ms.has_value() == has_time; }));
  }
  return count;
}

bool FieldSeries::HasTimes() const {
  if (CountOf(true) == 0 || CountOf(true) < CountOf(false)) return false;
  std::optional<std::int64_t> first;
  for (const Series& series : series_) {
    for (const FieldValue& value : series.values) {
      if (!value.time_ms) continue;
      if (!first) first = value.time_ms;
      if (*first != *value.time_ms) return true;
    }
  }
  return false;
}

ChartData FieldSeries::ToChart(const std::string& report) const {
  ChartData data;
  data.has_times = HasTimes();
  data.time = rules_.time;
  std::string names;
  for (const Series& series : series_) {
    ChartLine& line = data.lines.emplace_back(ChartLine{series.field, {}});
    for (const FieldValue& value : series.values) {
      if (data.has_times && !value.time_ms) continue;
      line.points.push_back({data.has_times ? *value.time_ms : static_cast<std::int64_t>(value.index), value.value});
    }
    std::stable_sort(line.points.begin(), line.points.end(),
                     [](const ChartPoint& one, const ChartPoint& other) { return one.x < other.x; });
    names += (names.empty() ? "" : ", ") + series.field;
  }
  const bool is_one = data.lines.size() == 1;
  data.title = is_one ? report + ", " + names + ": " + SummaryOf(data.lines.front()) : report + ": " + names;
  return data;
}

std::vector<std::string> FieldSeries::Omissions() const {
  std::vector<std::string> texts;
  for (const Series& series : series_) {
    if (series.skipped == 0) continue;
    texts.push_back(std::to_string(series.skipped) + " of " + std::to_string(records_) +
                    " records have no number for " + series.field);
  }
  if (!HasTimes() || CountOf(false) == 0) return texts;
  texts.push_back(std::to_string(CountOf(false)) + " values without a time are not drawn: no stamp precedes them");
  return texts;
}

}  // namespace qx::ctl
