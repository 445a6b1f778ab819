// The command "qxrelay receive".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::relay {

extern const ctl::Command kReceiveCommand;

}  // namespace qx::relay
