// The command "qxctl setup".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kSetupCommand;

}  // namespace qx::ctl
