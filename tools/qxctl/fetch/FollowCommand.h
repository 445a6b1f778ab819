// The command "qxctl follow".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kFollowCommand;

}  // namespace qx::ctl
