#include "tools/qxrelay/status/ReceiverFlow.h"

#include <algorithm>
#include <tuple>

namespace qx::relay {

std::vector<ReportFlow> ReceiverFlow::Take(const std::vector<CollectedReport>& reports, std::int64_t now,
                                           std::int64_t wall_ms) {
  std::vector<ReportFlow> flows;
  flows.reserve(reports.size());
  for (const CollectedReport& report : reports) flows.push_back(FlowOf(report, now, wall_ms));
  std::sort(flows.begin(), flows.end(), [](const ReportFlow& left, const ReportFlow& right) {
    return std::tie(left.host, left.report) < std::tie(right.host, right.report);
  });
  return flows;
}

ReportFlow ReceiverFlow::FlowOf(const CollectedReport& report, std::int64_t now, std::int64_t wall_ms) {
  ReportFlow flow;
  flow.host = report.host;
  flow.report = report.report;
  flow.trouble = report.trouble;
  flow.records = report.counters.records;
  flow.gap_records = report.counters.gap_records;
  flow.repeats = report.counters.repeats;
  const bool has_hole = report.state == CollectedState::kWaits && report.waiting_first > report.next;
  if (has_hole) flow.holes = report.waiting_first - report.next;
  if (report.store_next == 0 || !report.is_placed) return flow;
  FlowGauge& gauge = gauges_[{report.host, report.report}];
  gauge.Add(now, report.store_next);
  flow.lag_records = report.store_next > report.next ? report.store_next - report.next : 0;
  flow.lag_ms = *flow.lag_records > 0 ? std::max<std::int64_t>(0, wall_ms - report.sent_ms) : 0;
  flow.records_per_second = gauge.Rate(now);
  if (report.ring_slots != 0) flow.ring_slots = report.ring_slots;
  SetOvertaken(flow);
  return flow;
}

std::vector<std::pair<std::string, std::uint64_t>> CountersOf(const ReceiverCounters& counters,
                                                              const std::vector<CollectedReport>& reports) {
  CollectedCounters sum;
  for (const CollectedReport& report : reports) {
    sum.records += report.counters.records;
    sum.bytes += report.counters.bytes;
    sum.gap_records += report.counters.gap_records;
    sum.missing += report.counters.missing;
    sum.repeats += report.counters.repeats;
    sum.skipped += report.counters.skipped;
  }
  return {{"records", sum.records},
          {"messages", counters.messages},
          {"bytes", sum.bytes},
          {"gapRecords", sum.gap_records},
          {"missing", sum.missing},
          {"repeats", sum.repeats},
          {"skipped", sum.skipped},
          {"acknowledged", counters.acknowledged},
          {"refused", counters.refused},
          {"leftOut", counters.left_out},
          {"redelivered", counters.redelivered},
          {"readAgain", counters.read_again},
          {"syncs", counters.syncs},
          {"failedSyncs", counters.failed_syncs},
          {"connects", counters.connects},
          {"opens", counters.opens},
          {"pending", counters.pending}};
}

}  // namespace qx::relay
