// qxctl _reports: the reports of the report directory, for the completion scripts.
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kReportNamesCommand;

}  // namespace qx::ctl
