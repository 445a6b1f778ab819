// The command "qxrelay check".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::relay {

extern const ctl::Command kCheckCommand;

}  // namespace qx::relay
