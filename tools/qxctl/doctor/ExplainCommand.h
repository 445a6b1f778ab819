// qxctl explain
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kExplainCommand;

}  // namespace qx::ctl
