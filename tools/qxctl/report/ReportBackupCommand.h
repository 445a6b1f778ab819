// The commands "qxctl report backup|restore".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kReportBackupCommand;
extern const Command kReportRestoreCommand;

}  // namespace qx::ctl
