// The command "qxctl module record".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kRecordCommand;

}  // namespace qx::ctl
