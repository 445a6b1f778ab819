// The commands "qxctl ini set|delete|copy".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kIniSetCommand;
extern const Command kIniDeleteCommand;
extern const Command kIniCopyCommand;

}  // namespace qx::ctl
