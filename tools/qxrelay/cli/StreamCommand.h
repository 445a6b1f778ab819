// The commands "qxrelay stream create" and "qxrelay stream show".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::relay {

extern const ctl::Command kStreamCreateCommand;
extern const ctl::Command kStreamShowCommand;

}  // namespace qx::relay
