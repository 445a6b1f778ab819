// Checks whether a command may open the two files of a report.
//
// A store is opened for writing only if both files exist and may be written: the store itself would start over and
// empty the remaining one. Two writers overwrite each other's records, so a report that has a writer is refused.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "reportfile/ReportFileBase.h"
#include "reportfile/tools/WriterLock.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Size of a regular file. Unset with errno if it does not exist or is not a regular file.
[[nodiscard]] std::optional<std::int64_t> FileSize(const std::string& path);

// Bytes that a step has to read, for its progress. A file that cannot be read counts as 0.
[[nodiscard]] std::uint64_t BytesOfReport(const std::string& base_path);
[[nodiscard]] std::uint64_t BytesBelow(const std::string& directory);

// kNotFound unless both files of the report at `base_path` are regular files to which this user has `access_mode`
// (R_OK, R_OK | W_OK).
[[nodiscard]] Status CheckStoreFiles(const std::string& base_path, int access_mode);

// Opens an existing report for reading.
[[nodiscard]] Status OpenStoreForReading(const std::string& base_path, CReportFileBase& store);

// kRefused if `lock`, taken for the report at `base_path`, is held by another writer.
[[nodiscard]] Status CheckNotWritten(const std::string& base_path, const report::WriterLock& lock);

}  // namespace qx::ctl
