// The commands "qxctl ini list|get".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kIniListCommand;
extern const Command kIniGetCommand;

}  // namespace qx::ctl
