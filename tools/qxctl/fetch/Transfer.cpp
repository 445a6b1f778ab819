#include "tools/qxctl/fetch/Transfer.h"

#include <limits>
#include <utility>

#include "tools/qxctl/cli/Interrupt.h"

namespace qx::ctl {

Transfer::Transfer(WorkerThread& worker, std::string report, std::optional<std::int32_t> chunk_records)
    : reader_(worker, std::move(report)), chunk_records_(chunk_records) {}

Status Transfer::Run(const Sink& sink) {
  for (;;) {
    ReportReply reply;
    if (Status status = Ask(next_index_, chunk_records_, reply); !status.IsOk()) return status;
    if (reply.kind != ReplyKind::kRecords) break;
    if (Status status = reader_.Check(next_index_, reply); !status.IsOk()) return status;
    if (count_.chunks == 0) first_record_ = FirstRecord(reply.records);
    CountChunk(reply);
    if (Status status = sink(reply, count_); !status.IsOk()) return status;
    if (InterruptSignal() != 0) return {ExitCode::kIo, "interrupted"};
  }
  reached_end_ = true;
  return CheckEnd();
}

Status Transfer::Ask(std::int32_t start_index, std::optional<std::int32_t> record_count, ReportReply& reply) {
  Status status = reader_.Ask(start_index, record_count, reply);
  count_.module_seconds = reader_.ModuleSeconds();
  return status;
}

void Transfer::CountChunk(const ReportReply& reply) {
  count_.chunks += 1;
  count_.bytes += reply.records.size();
  count_.records += static_cast<std::uint64_t>(reply.next_index - reply.start_index);
  next_index_ = reply.next_index;
}

// The request for a record after the end comes first, because the request for the first record starts a new transfer.
Status Transfer::CheckEnd() {
  const bool stopped_early = HasRecordAfterEnd();
  if (!FirstRecordIsTheSame()) {
    return {ExitCode::kChanged, "the ring advanced while report \"" + reader_.Report() +
                                    "\" was read, so newer records may " + "have replaced older ones; fetch it again"};
  }
  if (stopped_early) {
    return {ExitCode::kFinding, "record " + std::to_string(next_index_) +
                                    " (counted from 0) has 1 MiB or more, too large for a chunk; neither it nor " +
                                    "what follows it was transferred"};
  }
  return {};
}

bool Transfer::HasRecordAfterEnd() {
  if (next_index_ == std::numeric_limits<std::int32_t>::max()) return false;
  ReportReply reply;
  return Ask(next_index_ + 1, 1, reply).IsOk() && reply.kind == ReplyKind::kRecords;
}

// A record that is cut at a NUL has no line end, so the kept text may continue with the next record. Therefore only the
// prefix is compared.
bool Transfer::FirstRecordIsTheSame() {
  if (count_.chunks == 0) return true;
  ReportReply reply;
  return Ask(0, 1, reply).IsOk() && reply.kind == ReplyKind::kRecords && !reply.records.empty() &&
         first_record_.starts_with(reply.records);
}

}  // namespace qx::ctl
