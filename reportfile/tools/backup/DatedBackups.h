// Makes backups of a report directory in one directory, lists them, and removes old ones. The name of a backup is the
// time at which it was made.
//
//   backups/2026-01-31T10-00-00Z/backup.sha256   the checksum of each file
//   backups/2026-01-31T10-00-00Z/left-out        one line for each item that the backup lacks, if there are such items
//   backups/2026-01-31T10-00-00Z/reports/        the report directory; if it is compressed, reports.zst/
//
// A backup is made under a temporary name, synced and renamed. Before it is removed, it is renamed again. So a
// directory with a time as its name is a whole backup, whatever crashed. One process at a time works on the directory
// of backups.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "reportfile/tools/directory/StoreBackup.h"

namespace qx::report {

inline constexpr const char* kChecksumFile = "backup.sha256";
inline constexpr const char* kLeftOutFile = "left-out";
inline constexpr const char* kPlainFolder = "reports";
inline constexpr const char* kCompressedFolder = "reports.zst";

// The files backup.sha256 and left-out are not read if they are larger than this. A million names need a tenth of it.
inline constexpr std::size_t kBackupTextBytesMax = std::size_t{1} << 30;

struct DatedBackupOptions {
  bool is_compressed = false;
  std::size_t keep = 0;  // the number of backups that are kept; 0: all
  std::time_t now = 0;
};

struct DatedBackup {
  BackupResult copy;
  bool is_busy = false;              // nothing was done, because another process works on the directory
  std::string name;                  // of the new backup in the directory; empty: nothing was made
  std::vector<std::string> removed;  // the backups that were removed, oldest first
  int removal_error = 0;             // an old backup could not be removed: the error number ...
  std::string removal_name;          // ... and its name
};

// Makes a backup in `backups`, which is an existing directory, then removes the oldest ones. If an item could not be
// copied, no backup is removed. A backup of another user is never removed, and does not count. [any thread]
[[nodiscard]] DatedBackup MakeDatedBackup(const std::string& report_directory, const std::string& backups,
                                          const DatedBackupOptions& options);

enum class ListedState {
  kWhole,       // every file of the list of checksums exists; only VerifyBackup also reads the files
  kIncomplete,  // every file exists, but items were left out when the backup was made
  kDamaged,     // files or the list of checksums are missing, or the list is damaged
  kUnfinished,  // the rest of a backup whose process was killed while it made or removed the backup
};

struct ListedBackup {
  std::string name;
  ListedState state = ListedState::kWhole;
  bool is_compressed = false;
  std::uint64_t reports = 0;
  std::uint64_t left_out = 0;
  std::uint64_t bytes = 0;  // of the stored files
};

struct BackupList {
  int error = 0;                      // of opening or listing the directory
  std::vector<ListedBackup> backups;  // oldest first
};

// Reads names, sizes and lists of checksums, but no contents of reports. [any thread]
[[nodiscard]] BackupList ListBackups(const std::string& backups);

// "2026-01-31T10-00-00Z", and "2026-01-31T10-00-00Z-2" for the second one of a second
[[nodiscard]] bool IsBackupName(std::string_view name);

}  // namespace qx::report
