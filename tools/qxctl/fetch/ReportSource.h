// Reads a report through the module for a ReportFollower.
#pragma once

#include <optional>
#include <string>

#include "reportfile/tools/ReportFollower.h"
#include "tools/qxctl/fetch/ReportReader.h"

namespace qx::ctl {

struct SourceCount {
  std::uint64_t calls = 0;
  std::uint64_t bytes = 0;  // of records, including those that were only compared
  double module_seconds = 0;
};

// Threads: one thread, the one that also uses `worker`.
class ReportSource : public report::RecordSource {
 public:
  // `chunk_records`: the largest number of records of a call; unset: as many as fit into a chunk.
  ReportSource(WorkerThread& worker, const std::string& report, std::optional<std::int32_t> chunk_records)
      : reader_(worker, report), chunk_records_(chunk_records) {}

  bool Refresh() override;
  bool Read(std::uint32_t start, std::uint32_t count_max, std::vector<std::string>& records) override;

  // The reason of the last failed call.
  const Status& Failure() const { return failure_; }
  const SourceCount& Count() const { return count_; }

 private:
  bool Ask(std::int32_t start, std::int32_t count, ReportReply& reply);
  bool Keep(Status status);

  ReportReader reader_;
  std::optional<std::int32_t> chunk_records_;
  Status failure_;
  SourceCount count_;
};

}  // namespace qx::ctl
