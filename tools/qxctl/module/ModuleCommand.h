// The commands "qxctl module what|reflect|reports|names".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kModuleWhatCommand;
extern const Command kModuleReflectCommand;
extern const Command kModuleReportsCommand;
extern const Command kModuleNamesCommand;

}  // namespace qx::ctl
