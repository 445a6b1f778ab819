// The command "qxctl doctor".
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kDoctorCommand;

}  // namespace qx::ctl
