// The command "qxrelay status".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::relay {

extern const ctl::Command kStatusCommand;

}  // namespace qx::relay
