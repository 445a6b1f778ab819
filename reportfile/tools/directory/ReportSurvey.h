// Finds the reports of a directory and the status of each, for all tools that show or check all reports.
//
// The walk includes subdirectories and hidden names. It enters no directory through a symbolic link; a file that is a
// link counts as the file that it leads to, if a reader of the store accepts it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reportfile/tools/StoreVerify.h"

namespace qx::report {

// A subdirectory that cannot be opened or listed.
struct UnlistedDirectory {
  std::string name;  // below the directory
  int error = 0;
};

struct FoundReports {
  int error = 0;                            // of the directory itself; reports that were found before it stay
  std::vector<std::string> names;           // paths below the directory without the endings, sorted: "load", "disk/sda"
  std::vector<UnlistedDirectory> unlisted;  // in the order of names
};

// Finds the reports in `directory` and below it, also those with one missing file. [any thread]
[[nodiscard]] FoundReports FindReports(const std::string& directory);

// Like FindReports, without subdirectories. [any thread]
[[nodiscard]] FoundReports FindReportsIn(const std::string& directory);

// How much of a report is read.
enum class ReportCheck {
  kHeader,   // the header and the sizes (VerifyHeader)
  kRecords,  // the header, the sizes and every record (VerifyStore)
};

struct ReportStatus {
  std::string base_path;
  StoreVerdict verdict;  // of the check
  std::uint32_t records = 0;
  std::optional<std::uint32_t> slots;  // of the ring; unset if the file has no header yet
  std::int64_t bytes = 0;              // of both files
  std::optional<timespec> newest;      // when the index file was last written; unset without a record
  bool is_written = false;             // a process has the report open for writing
  std::vector<int> processes;          // those of the writing processes that are known, sorted

  // True if the report is sound and has no record.
  [[nodiscard]] bool IsEmpty() const { return verdict.state == StoreState::kSound && records == 0; }
};

// The status of each report, in the order of `base_paths`. The processes are searched once for all of them; nothing is
// locked. An ordinary user sees a process of another user only if it holds the lock of the report. [any thread]
[[nodiscard]] std::vector<ReportStatus> StatusOfReports(const std::vector<std::string>& base_paths, ReportCheck check);

}  // namespace qx::report
