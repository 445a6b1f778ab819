// qxctl help [COMMAND], qxctl version
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kHelpCommand;
extern const Command kVersionCommand;

}  // namespace qx::ctl
