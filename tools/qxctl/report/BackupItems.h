// What the commands of backups share.
#pragma once

#include <string>

#include "reportfile/tools/directory/StoreBackup.h"

namespace qx::ctl {

// "report", "file", ...
[[nodiscard]] const char* NameOfKind(report::BackupItemKind kind);

// Where compressed files are expanded: the environment variable TMPDIR, or /var/tmp.
[[nodiscard]] std::string TemporaryDirectory();

}  // namespace qx::ctl
