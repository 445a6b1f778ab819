// Reads stored records in turn: many at once where each of them is one line, else one by one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "reportfile/RecordReader.h"
#include "reportfile/ReportFileBase.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Threads: one thread.
// Owns: the texts that were read at once, at most 256 KiB, and the windows of a RecordReader. Borrows the open store.
// Failure: a Status. Throws std::bad_alloc.
class RecordRun {
 public:
  using Take = std::function<Status(const std::string& record)>;

  // `path`: of the report, for messages.
  RecordRun(CReportFileBase& store, std::string path, Take take)
      : store_(store), reader_(store), path_(std::move(path)), take_(std::move(take)) {}

  // Passes some records to `take`: that of `slot` and those of up to `count` - 1 slots after it. Adds their number to
  // `passed`. Stops at the first failure, of a read or of `take`.
  Status Pass(std::uint32_t slot, std::uint32_t count, std::uint32_t& passed);

 private:
  Status PassLines();
  Status PassSingly(std::uint32_t slot, std::uint32_t count);

  CReportFileBase& store_;
  report::RecordReader reader_;
  std::string path_;
  Take take_;
  std::string text_;
  std::string record_;
};

}  // namespace qx::ctl
