// The commands "qxctl registry ls|get".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kRegistryLsCommand;
extern const Command kRegistryGetCommand;

}  // namespace qx::ctl
