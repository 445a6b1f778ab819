// The commands "qxctl registry set|delete|import".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kRegistrySetCommand;
extern const Command kRegistryDeleteCommand;
extern const Command kRegistryImportCommand;

}  // namespace qx::ctl
