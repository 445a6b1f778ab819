// The commands "qxctl registry diff|export|lint".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kRegistryDiffCommand;
extern const Command kRegistryExportCommand;
extern const Command kRegistryLintCommand;

}  // namespace qx::ctl
