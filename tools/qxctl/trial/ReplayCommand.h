// The command "qxctl module replay".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kReplayCommand;

}  // namespace qx::ctl
