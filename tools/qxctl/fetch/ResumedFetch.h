// Runs qxctl fetch --resume: a report is fetched in several runs, each of which prints the new records.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/fetch/PollEvents.h"
#include "tools/qxctl/fetch/RecordFormat.h"
#include "tools/qxctl/module/ModuleHost.h"

namespace qx::ctl {

struct ResumeOptions {
  std::string report;
  std::string state;
  std::string output;  // empty: standard output
  RecordFormatOptions format;
  std::optional<std::int32_t> chunk_records;
  bool raw = false;    // a terminal gets every byte as well
  bool force = false;  // files of other users are used
};

struct ResumeResult {
  std::uint64_t records = 0;  // received in this run
  std::uint64_t chunks = 0;
  std::uint64_t bytes = 0;  // the bytes of those records as stored
  double module_seconds = 0;
  std::uint64_t delivered = 0;       // in all runs
  std::uint64_t maybe_repeated = 0;  // records that a killed run may have written already
  PollTally tally;
  std::string message;  // the last finding
};

// Fetches the new records. Findings are printed at once; the status is then kFinding without a message.
Status RunResumedFetch(Context& context, const ResumeOptions& options, WorkerThread& worker, ResumeResult& result);

}  // namespace qx::ctl
