// The commands "qxctl report list|status".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kReportListCommand;
extern const Command kReportStatusCommand;

}  // namespace qx::ctl
