// The command "qxctl module load-test".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kLoadTestCommand;

}  // namespace qx::ctl
