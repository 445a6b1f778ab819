// The commands "qxrelay host add|rename|retire".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::relay {

extern const ctl::Command kHostAddCommand;
extern const ctl::Command kHostRenameCommand;
extern const ctl::Command kHostRetireCommand;

}  // namespace qx::relay
