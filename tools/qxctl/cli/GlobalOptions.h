// Defines the command `qxctl` itself, with the options that every command has.
#pragma once

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

extern const Command kQxctl;

// Sets up the output, and the traces if they are requested.
Status ApplyGlobalOptions(Context& context, const Values& values);

}  // namespace qx::ctl
