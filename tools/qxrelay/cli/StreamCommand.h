// qxrelay stream create
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::relay {

extern const ctl::Command kStreamCreateCommand;

}  // namespace qx::relay
