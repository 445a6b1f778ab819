// Functions that several commands for backups use.
#pragma once

#include <memory>

#include "reportfile/tools/DurableFiles.h"
#include "reportfile/tools/directory/StoreBackup.h"

namespace qx::ctl {

// "report", "file", ...
[[nodiscard]] const char* NameOfKind(report::BackupItemKind kind);

// Makes the private directory in which compressed files are expanded, in the directory that the environment variable
// TMPDIR names, or in /var/tmp. From then on a signal that ends the command removes it.
[[nodiscard]] std::unique_ptr<report::PrivateDirectory> MakeExpandedDirectory();

}  // namespace qx::ctl
