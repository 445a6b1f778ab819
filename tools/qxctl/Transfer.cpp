#include "tools/qxctl/Transfer.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "tools/qxctl/Interrupt.h"

namespace qx::ctl {

namespace {

// What a record ends with: its line feed, or the byte 0xFF that a reader stops at. Only a record cut at a NUL has none.
constexpr bool EndsRecord(char byte) { return byte == '\n' || byte == '\xFF'; }

// "a\r\nb\r\n" => "a\r\n"
std::string_view FirstRecord(std::string_view records) {
  const auto end = std::find_if(records.begin(), records.end(), EndsRecord);
  return end == records.end() ? records : records.substr(0, static_cast<std::size_t>(end - records.begin()) + 1);
}

}  // namespace

Transfer::Transfer(WorkerThread& worker, std::string report, std::optional<std::int32_t> chunk_records)
    : worker_(worker), report_(std::move(report)), chunk_records_(chunk_records) {}

Status Transfer::Run(const Sink& sink) {
  for (;;) {
    ReportReply reply;
    if (Status status = Ask(next_index_, chunk_records_, reply); !status.IsOk()) return status;
    if (reply.kind != ReplyKind::kRecords) break;
    if (Status status = CheckChunk(reply); !status.IsOk()) return status;
    if (count_.chunks == 0) first_record_ = FirstRecord(reply.records);
    CountChunk(reply);
    if (Status status = sink(reply.records, count_); !status.IsOk()) return status;
    if (InterruptSignal() != 0) return {ExitCode::kIo, "interrupted"};
  }
  reached_end_ = true;
  return CheckEnd();
}

Status Transfer::Ask(std::int32_t start_index, std::optional<std::int32_t> record_count, ReportReply& reply) {
  const std::string request = RequestText({report_, start_index, record_count});
  const CallResult call = worker_.Call(RequestFunction::kGetReports, request);
  count_.module_seconds += call.seconds;
  reply = ParseReply(call);
  return StatusOfReports(call, reply);
}

// Each record that the reply counts ends at most one line; more line ends than records cannot be.
Status Transfer::CheckChunk(const ReportReply& reply) const {
  const std::int64_t records = std::int64_t{reply.next_index} - reply.start_index;
  const auto line_ends = std::count_if(reply.records.begin(), reply.records.end(), EndsRecord);
  const bool is_consistent = reply.start_index == next_index_ && records > 0 && line_ends <= records;
  if (is_consistent) return {};
  return {ExitCode::kChanged, "the reply to index " + std::to_string(next_index_) + " says records " +
                                  std::to_string(reply.start_index) + " to " + std::to_string(reply.next_index) +
                                  " and holds " + std::to_string(line_ends) + "; fetch the report again"};
}

void Transfer::CountChunk(const ReportReply& reply) {
  count_.chunks += 1;
  count_.bytes += reply.records.size();
  count_.records += static_cast<std::uint64_t>(reply.next_index - reply.start_index);
  next_index_ = reply.next_index;
}

// The look behind the end goes first: asking for the first record starts a new transfer.
Status Transfer::CheckEnd() {
  const bool stopped_early = RecordStandsBehindEnd();
  if (!FirstRecordIsTheSame()) {
    return {ExitCode::kChanged, "the ring advanced while report \"" + report_ + "\" was read, so newer records may " +
                                    "stand in the place of older ones; fetch it again"};
  }
  if (stopped_early) {
    return {ExitCode::kFinding, "record " + std::to_string(next_index_) +
                                    " (counted from 0) has 1 MiB or more, which no chunk can carry; neither it nor " +
                                    "what follows it was transferred"};
  }
  return {};
}

bool Transfer::RecordStandsBehindEnd() {
  if (next_index_ == std::numeric_limits<std::int32_t>::max()) return false;
  ReportReply reply;
  return Ask(next_index_ + 1, 1, reply).IsOk() && reply.kind == ReplyKind::kRecords;
}

// A record cut at a NUL comes without a line end, and what was kept then runs on into the next one: hence the prefix.
bool Transfer::FirstRecordIsTheSame() {
  if (count_.chunks == 0) return true;
  ReportReply reply;
  return Ask(0, 1, reply).IsOk() && reply.kind == ReplyKind::kRecords && !reply.records.empty() &&
         first_record_.starts_with(reply.records);
}

}  // namespace qx::ctl
