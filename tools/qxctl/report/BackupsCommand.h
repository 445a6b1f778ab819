// The commands "qxctl report backups|verify-backup".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kReportBackupsCommand;
extern const Command kReportVerifyBackupCommand;

}  // namespace qx::ctl
