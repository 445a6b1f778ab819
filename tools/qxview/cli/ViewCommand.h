// The command of qxview.
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::view {

extern const ctl::Command kViewCommand;

}  // namespace qx::view
