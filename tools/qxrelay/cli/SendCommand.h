// The command "qxrelay send".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::relay {

extern const ctl::Command kSendCommand;

}  // namespace qx::relay
