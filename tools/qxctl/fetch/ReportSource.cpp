#include "tools/qxctl/fetch/ReportSource.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace qx::ctl {

namespace {

constexpr std::uint32_t kIndexMax = std::numeric_limits<std::int32_t>::max();

}  // namespace

// A request for 0 records from index 0 opens the store again and returns no records.
bool ReportSource::Refresh() {
  ReportReply reply;
  return Ask(0, 0, reply);
}

bool ReportSource::Read(std::uint32_t start, std::uint32_t count_max, std::vector<std::string>& records) {
  records.clear();
  if (start >= kIndexMax) return true;
  std::uint32_t count = std::min(count_max, kIndexMax - start);
  if (chunk_records_) count = std::min(count, static_cast<std::uint32_t>(*chunk_records_));
  const auto first = static_cast<std::int32_t>(start);
  ReportReply reply;
  if (!Ask(first, static_cast<std::int32_t>(count), reply)) return false;
  if (reply.kind != ReplyKind::kRecords) return true;
  count_.bytes += reply.records.size();
  return Keep(reader_.Check(first, reply)) && Keep(reader_.Split(reply, records));
}

bool ReportSource::Ask(std::int32_t start, std::int32_t count, ReportReply& reply) {
  ++count_.calls;
  const bool is_answered = Keep(reader_.Ask(start, count, reply));
  count_.module_seconds = reader_.ModuleSeconds();
  return is_answered;
}

bool ReportSource::Keep(Status status) {
  if (status.IsOk()) return true;
  failure_ = std::move(status);
  return false;
}

}  // namespace qx::ctl
