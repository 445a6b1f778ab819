// The command "qxctl trace follow".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kTraceFollowCommand;

}  // namespace qx::ctl
