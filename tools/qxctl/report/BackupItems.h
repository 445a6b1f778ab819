// Functions that several commands for backups use.
#pragma once

#include <string>

#include "reportfile/tools/directory/StoreBackup.h"

namespace qx::ctl {

// "report", "file", ...
[[nodiscard]] const char* NameOfKind(report::BackupItemKind kind);

// The directory in which compressed files are expanded: that of the environment variable TMPDIR, or /var/tmp.
[[nodiscard]] std::string TemporaryDirectory();

}  // namespace qx::ctl
