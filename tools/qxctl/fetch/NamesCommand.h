// The command "qxctl names".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kNamesCommand;

}  // namespace qx::ctl
