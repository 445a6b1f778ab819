// qxctl module faults
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kFaultsCommand;

}  // namespace qx::ctl
