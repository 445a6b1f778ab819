// The commands "qxctl report create|append|cat|info".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kReportCreateCommand;
extern const Command kReportAppendCommand;
extern const Command kReportCatCommand;
extern const Command kReportInfoCommand;

}  // namespace qx::ctl
