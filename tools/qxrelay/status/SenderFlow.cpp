#include "tools/qxrelay/status/SenderFlow.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "base/File.h"
#include "reportfile/ReportFileBase.h"
#include "reportfile/tools/DurableFiles.h"
#include "tools/qxrelay/send/StoreNumbers.h"

namespace qx::relay {

namespace {

constexpr std::int64_t kMsInSecond = 1000;
// Two writes within one tick of the file system's clock have the same time. So a file that is younger than this is read
// again.
constexpr std::int64_t kSettledMs = 3000;

}  // namespace

std::vector<std::pair<std::string, std::uint64_t>> CountersOf(const SenderCounters& counters) {
  return {{"records", counters.records},
          {"messages", counters.messages},
          {"bytes", counters.bytes},
          {"gapRecords", counters.gap_records},
          {"overLimit", counters.over_limit},
          {"unreadable", counters.unreadable},
          {"refused", counters.refused},
          {"conflicts", counters.conflicts},
          {"unanswered", counters.unanswered},
          {"lookUps", counters.look_ups},
          {"incarnations", counters.incarnations},
          {"foreign", counters.foreign},
          {"connects", counters.connects}};
}

SenderFlow::SenderFlow(std::string host, std::string directory)
    : host_(std::move(host)), directory_(std::move(directory)) {}

std::vector<ReportFlow> SenderFlow::Take(const std::vector<SentReport>& sent, std::int64_t now, std::int64_t wall_ms) {
  std::vector<ReportFlow> flows;
  flows.reserve(sent.size());
  for (const SentReport& one : sent) flows.push_back(FlowOf(one, now, wall_ms));
  std::sort(flows.begin(), flows.end(),
            [](const ReportFlow& left, const ReportFlow& right) { return left.report < right.report; });
  return flows;
}

void SenderFlow::AddCount(const std::string& report, std::int64_t time, std::uint64_t end) {
  rings_[report].gauge.Add(time, end);
}

bool SenderFlow::ReadRing(const std::string& report, std::int64_t wall_ms, Ring& ring) const {
  const std::string path = report::PathIn(directory_, report);
  struct stat status = {};
  if (file::StatusOf(report::IndexFileName(path).c_str(), status) != 0) return false;
  if (ring.is_settled && file::IsUnchanged(ring.status, status)) return ring.is_read;
  CReportFileBase store;
  ring.is_read = store.OpenRead(path.c_str()) && report::HasPlausibleRing(store.header());
  if (ring.is_read) ring.header = store.header();
  ring.status = status;
  ring.is_settled = wall_ms - std::int64_t{status.st_mtim.tv_sec} * kMsInSecond >= kSettledMs;
  return ring.is_read;
}

ReportFlow SenderFlow::FlowOf(const SentReport& sent, std::int64_t now, std::int64_t wall_ms) {
  ReportFlow flow;
  flow.host = host_;
  flow.report = sent.report;
  flow.trouble = sent.trouble;
  flow.records = sent.counters.records;
  flow.gap_records = sent.counters.gap_records;
  Ring& ring = rings_[sent.report];
  if (!ReadRing(sent.report, wall_ms, ring)) return flow;
  const report::IndexHeader& header = ring.header;
  if (header.highestIndex != 0) flow.ring_slots = header.maxRecord;
  const std::optional<RecordRange> range = sent.is_placed ? RangeNear(header, sent.next) : std::nullopt;
  if (!range.has_value() || range->end < sent.next) return flow;  // another store, which the sender has not noticed yet
  ring.gauge.Add(now, range->end);
  flow.lag_records = range->end - sent.next;
  flow.lag_ms = ring.gauge.LagMs(now, sent.next);
  flow.records_per_second = ring.gauge.Rate(now);
  SetOvertaken(flow);
  return flow;
}

}  // namespace qx::relay
