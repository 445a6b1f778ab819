// The command "qxctl fetch".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kFetchCommand;

}  // namespace qx::ctl
