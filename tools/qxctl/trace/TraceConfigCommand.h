// The command "qxctl trace config".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kTraceConfigCommand;

}  // namespace qx::ctl
