// The command "qxctl trace show".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kTraceShowCommand;

}  // namespace qx::ctl
