// Carries a whole report through the module, chunk by chunk, as a client does.
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
  double module_seconds = 0;  // spent inside the module, the two questions at the end included
};

// Asks from index 0, then from each reply's NextIndex, until the module has no more records.
//
// The writer of a report may append while it is read. The module promises the records that existed at the start, but
// reads them when they are asked for, and the replies do not say whether a record was replaced meanwhile. Two things
// are noticed all the same:
//   - replies that contradict the request or themselves, and
//   - a different first record after the end than at the start: a full ring replaces its oldest record first, so if
//     that one is still there, so are all the others.
// Not noticed: a ring of equal records, where the new first record looks like the old one.
//
// A record of 1 MiB or more fits no chunk and ends a transfer as if the report ended there. A record behind it gives
// that away; such a record at the very end does not show.
//
// Threads: as the worker thread that it borrows.
class Transfer {
 public:
  using Sink = std::function<Status(const ReportReply& reply, const TransferCount& so_far)>;

  // At most `chunk_records` a call, if set.
  Transfer(WorkerThread& worker, std::string report, std::optional<std::int32_t> chunk_records);

  // Hands each reply with records to `sink`, whose failure ends the transfer. kChanged and kFinding are as told above;
  // other codes are the module's or the sink's.
  Status Run(const Sink& sink);

  // The records of the reply that the sink was just given, one by one.
  Status Split(const ReportReply& reply, std::vector<std::string>& records) { return reader_.Split(reply, records); }

  // Whether the module said that there is no more: what the sink got is the report as far as it can be carried.
  bool ReachedEnd() const { return reached_end_; }
  const TransferCount& Count() const { return count_; }

 private:
  Status Ask(std::int32_t start_index, std::optional<std::int32_t> record_count, ReportReply& reply);
  void CountChunk(const ReportReply& reply);
  Status CheckEnd();
  bool RecordStandsBehindEnd();
  bool FirstRecordIsTheSame();

  ReportReader reader_;
  std::optional<std::int32_t> chunk_records_;
  TransferCount count_;
  std::int32_t next_index_ = 0;
  std::string first_record_;
  bool reached_end_ = false;
};

}  // namespace qx::ctl
