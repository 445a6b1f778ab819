#include "tools/qxrelay/status/FlowMetrics.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>

#include "tools/qxctl/chart/RecordFields.h"
#include "tools/qxctl/chart/RecordText.h"
#include "tools/qxctl/cli/text/JsonText.h"
#include "tools/qxctl/store/NewestRecords.h"
#include "tools/qxrelay/config/RelayConfig.h"
#include "tools/qxrelay/status/MetricsText.h"

namespace qx::relay {

namespace {

constexpr double kMsInSecond = 1000;

// A metric that each report has. Its value is unset if it is not known.
struct ReportMetric {
  std::string_view name;
  MetricKind kind;
  std::string_view help;
  std::optional<double> (*value)(const ReportFlow& flow);
};

template <typename Number>
std::optional<double> Known(const std::optional<Number>& number) {
  return number.has_value() ? std::optional(static_cast<double>(*number)) : std::nullopt;
}

std::optional<double> LagSeconds(const ReportFlow& flow) {
  if (!flow.lag_ms.has_value()) return std::nullopt;
  return static_cast<double>(*flow.lag_ms) / kMsInSecond;
}

constexpr ReportMetric kReportMetrics[] = {
    {"qxrelay_report_lag_records", MetricKind::kGauge,
     "Records in the host's ring that are not sent, or not on the collector, yet",
     [](const ReportFlow& flow) { return Known(flow.lag_records); }},
    {"qxrelay_report_lag_seconds", MetricKind::kGauge, "Approximate age of the oldest of these records", LagSeconds},
    {"qxrelay_report_ring_left_seconds", MetricKind::kGauge,
     "Time until the ring overwrites an unsent record, at the rate of the last minute, if nothing is sent",
     [](const ReportFlow& flow) { return flow.overtaken_in_s; }},
    {"qxrelay_report_appended_records_per_second", MetricKind::kGauge,
     "Records that the host's writer appends per second, over the last minute",
     [](const ReportFlow& flow) { return flow.records_per_second; }},
    {"qxrelay_report_in_trouble", MetricKind::kGauge, "1 if the report does not continue",
     [](const ReportFlow& flow) { return std::optional(flow.trouble.empty() ? 0.0 : 1.0); }},
    {"qxrelay_report_missing_records", MetricKind::kGauge, "Missing records that may still come",
     [](const ReportFlow& flow) { return std::optional(static_cast<double>(flow.holes)); }},
    {"qxrelay_report_records_total", MetricKind::kCounter, "Records that were sent, or written on the collector",
     [](const ReportFlow& flow) { return std::optional(static_cast<double>(flow.records)); }},
    {"qxrelay_report_lost_records_total", MetricKind::kCounter, "Records that were counted as lost",
     [](const ReportFlow& flow) { return std::optional(static_cast<double>(flow.gap_records)); }},
    {"qxrelay_report_repeated_records_total", MetricKind::kCounter, "Records that came again and were dropped",
     [](const ReportFlow& flow) { return std::optional(static_cast<double>(flow.repeats)); }},
};

// The descriptions of the counters of services, by their names in ServiceFlow.
constexpr std::pair<std::string_view, std::string_view> kCounterHelp[] = {
    {"records", "Records that were sent, or written on the collector"},
    {"messages", "Messages that were sent, or fetched"},
    {"bytes", "Bytes of sent messages, or of written records"},
    {"gapRecords", "Records that were counted as lost"},
    {"overLimit", "Lost records that are larger than a message may be"},
    {"unreadable", "Lost records that are no longer in the files"},
    {"refused", "Messages that a server, or the receiver, refused"},
    {"conflicts", "Refused messages because the newest one was not the expected one"},
    {"unanswered", "Requests without an answer in time"},
    {"lookUps", "Answered look-ups of a newest message"},
    {"incarnations", "Incarnations that the sender began"},
    {"foreign", "Newest messages that are not from a sender"},
    {"connects", "Connections that were made"},
    {"missing", "Lost records that neither the stream nor the collector has"},
    {"repeats", "Records that came again and were dropped"},
    {"skipped", "Records that were not written because their report is left alone"},
    {"acknowledged", "Messages that were acknowledged"},
    {"leftOut", "Records that were not written because their report would be over a limit"},
    {"redelivered", "Messages that came again"},
    {"readAgain", "Messages before a hole that were read from any copy of the stream"},
    {"syncs", "Syncs of the file system"},
    {"failedSyncs", "Syncs of the file system that failed"},
    {"opens", "Opens of reports"},
    {"pending", "Messages in the stream that the collector has not fetched yet"},
};

// A number in the newest record of a report.
struct FieldSeries {
  const ReportFlow* flow;
  std::string field;
  double value;
};

// The series that are shown, and the number of the others.
struct Series {
  std::vector<const ReportFlow*> reports;
  std::vector<FieldSeries> fields;
  std::size_t count = 0;
  std::size_t left_out = 0;
};

bool IsChosen(const ReportFlow& flow, const MetricsRules& rules) {
  return std::any_of(rules.reports.begin(), rules.reports.end(),
                     [&](const std::string& pattern) { return MatchesPattern(pattern, flow.report); });
}

void ChooseReports(const ServiceFlow& flow, const MetricsRules& rules, Series& series) {
  constexpr std::size_t kEach = std::size(kReportMetrics);
  for (const ReportFlow& report : flow.reports) {
    if (series.count + kEach > rules.series_max || !ctl::IsUtf8(report.report)) {
      series.left_out += kEach;
      continue;
    }
    series.count += kEach;
    series.reports.push_back(&report);
  }
}

void ChooseFields(const ReportFlow& flow, const MetricsRules& rules, Series& series) {
  const std::vector<std::string> records = ctl::NewestRecords(rules.path_of(flow), 1);
  if (records.empty()) return;
  const std::vector<ctl::RecordField> fields = ctl::ParseFields(ctl::TextOfRecord(records.back()).text, {});
  for (const ctl::RecordField& field : fields) {
    if (!field.IsNumber()) continue;
    if (series.count >= rules.series_max || !ctl::IsUtf8(flow.report) || !ctl::IsUtf8(field.name)) {
      ++series.left_out;
      continue;
    }
    ++series.count;
    series.fields.push_back({.flow = &flow, .field = field.name, .value = field.number});
  }
}

void AddService(const ServiceFlow& flow, const MetricsRules& rules, MetricsText& text) {
  text.Family("qxrelay_info", MetricKind::kGauge, "Always 1; the labels show the service, its name and its version");
  text.Sample({{"service", NameOf(flow.kind)}, {"name", flow.name}, {"version", rules.version}}, 1U);
  text.Family("qxrelay_connected", MetricKind::kGauge, "1 if the service is connected to the servers");
  text.Sample({}, flow.is_connected ? 1U : 0U);
  text.Family("qxrelay_in_trouble", MetricKind::kGauge, "1 if nothing continues");
  text.Sample({}, flow.problem.empty() ? 0U : 1U);
  text.Family("qxrelay_findings", MetricKind::kGauge, "Limits that leave something out");
  text.Sample({}, flow.findings.size());
  text.Family("qxrelay_start_time_seconds", MetricKind::kGauge, "Start of the service, in seconds since 1970");
  text.Sample({}, static_cast<double>(flow.started_ms) / kMsInSecond);
  text.Family("qxrelay_state_time_seconds", MetricKind::kGauge, "Time of these figures, in seconds since 1970");
  text.Sample({}, static_cast<double>(flow.time_ms) / kMsInSecond);
  text.Family("qxrelay_reports", MetricKind::kGauge, "Reports that the service knows");
  text.Sample({}, flow.reports.size());
}

std::string HelpOf(std::string_view counter) {
  const auto* const found = std::find_if(std::begin(kCounterHelp), std::end(kCounterHelp),
                                         [&](const auto& row) { return row.first == counter; });
  if (found == std::end(kCounterHelp)) return "The counter " + std::string(counter) + " of the service";
  return std::string(found->second);
}

// The number of pending messages is a gauge, because it rises and falls.
void AddCounters(const ServiceFlow& flow, MetricsText& text) {
  for (const auto& [name, value] : flow.counters) {
    const bool is_gauge = name == "pending";
    const MetricKind kind = is_gauge ? MetricKind::kGauge : MetricKind::kCounter;
    text.Family(is_gauge ? "qxrelay_pending_messages" : CounterName(name), kind, HelpOf(name));
    text.Sample({}, value);
  }
}

void AddReports(const Series& series, MetricsText& text) {
  for (const ReportMetric& metric : kReportMetrics) {
    text.Family(metric.name, metric.kind, metric.help);
    for (const ReportFlow* const flow : series.reports) {
      const std::optional<double> value = metric.value(*flow);
      if (value.has_value()) text.Sample({{"host", flow->host}, {"report", flow->report}}, *value);
    }
  }
}

}  // namespace

std::string CounterName(const std::string& name) {
  std::string metric = "qxrelay_";
  for (const char letter : name) {
    const bool is_capital = letter >= 'A' && letter <= 'Z';
    if (is_capital) metric += '_';
    metric += is_capital ? static_cast<char>(letter - 'A' + 'a') : letter;
  }
  return metric + "_total";
}

std::string MetricsOf(const ServiceFlow& flow, const MetricsRules& rules) {
  Series series;
  ChooseReports(flow, rules, series);
  for (const ReportFlow& report : flow.reports) {
    if (IsChosen(report, rules)) ChooseFields(report, rules, series);
  }
  MetricsText text;
  AddService(flow, rules, text);
  AddCounters(flow, text);
  AddReports(series, text);
  text.Family("qxrelay_report_field", MetricKind::kGauge, "A number in the newest record of the report");
  for (const FieldSeries& one : series.fields) {
    text.Sample({{"host", one.flow->host}, {"report", one.flow->report}, {"field", one.field}}, one.value);
  }
  text.Family(
      "qxrelay_series_left_out", MetricKind::kGauge,
      "Series of reports and their numbers that are not shown: over the limit, or with names that are not UTF-8");
  text.Sample({}, series.left_out);
  return text.Text();
}

}  // namespace qx::relay
