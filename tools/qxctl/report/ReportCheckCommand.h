// The commands "qxctl report verify|salvage".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kReportVerifyCommand;
extern const Command kReportSalvageCommand;

}  // namespace qx::ctl
