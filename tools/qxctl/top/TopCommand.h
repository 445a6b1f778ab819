// The command "qxctl top".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kTopCommand;

}  // namespace qx::ctl
