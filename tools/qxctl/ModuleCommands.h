// The commands below "qxctl module" that are more than one call; each has a source file of its own.
#pragma once

#include "tools/qxctl/Commands.h"

namespace qx::ctl {

void AddModuleLoadTest(CLI::App& module, Context& context);  // module load-test

}  // namespace qx::ctl
