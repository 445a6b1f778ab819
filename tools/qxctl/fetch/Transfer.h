// Transfers a whole report through the module, chunk by chunk, like a client.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/fetch/ReportReader.h"

namespace qx::ctl {

struct TransferCount {
  std::uint64_t records = 0;
  std::uint64_t chunks = 0;
  std::uint64_t bytes = 0;
  double module_seconds = 0;  // spent inside the module, including the two requests at the end
};

// Requests records from index 0, then from each reply's NextIndex, until the module has no more.
//
// The writer of a report may append while the transfer reads. The module promises the records that existed at the
// start, but it reads them when they are requested, and the replies do not show whether a record was replaced
// meanwhile. A replacement is noticed in two cases:
//   - A reply contradicts the request or itself.
//   - The first record of the report, which is requested again at the end, is not the one that the transfer began with.
//     A full ring replaces its oldest record first: if that one is still there, so are all others. A replacement is not
//     noticed if the new first record equals the old one.
//
// A record of 1 MiB or more does not fit into a chunk and ends a transfer as if the report ended there. Such a record
// is noticed if another record follows it; as the last record of a report it is not.
//
// Threads: one thread, the one that also uses `worker`.
class Transfer {
 public:
  using Sink = std::function<Status(const ReportReply& reply, const TransferCount& so_far)>;

  // `chunk_records`: the largest number of records of a call; unset: as many as fit into a chunk.
  Transfer(WorkerThread& worker, std::string report, std::optional<std::int32_t> chunk_records);

  // Passes each reply with records to `sink`, whose failure ends the transfer. kChanged and kFinding are explained
  // above; other codes are those of the module or of the sink.
  Status Run(const Sink& sink);

  // The records of the reply that was just passed to the sink, one by one.
  Status Split(const ReportReply& reply, std::vector<std::string>& records) { return reader_.Split(reply, records); }

  // Whether the module reported its end: the sink then has every record of the report that fits into a reply.
  bool ReachedEnd() const { return reached_end_; }
  const TransferCount& Count() const { return count_; }

 private:
  Status Ask(std::int32_t start_index, std::optional<std::int32_t> record_count, ReportReply& reply);
  void CountChunk(const ReportReply& reply);
  Status CheckEnd();
  bool HasRecordAfterEnd();
  bool FirstRecordIsTheSame();

  ReportReader reader_;
  std::optional<std::int32_t> chunk_records_;
  TransferCount count_;
  std::int32_t next_index_ = 0;
  std::string first_record_;
  bool reached_end_ = false;
};

}  // namespace qx::ctl
