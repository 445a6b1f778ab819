// Checks the fallback of the report directory: if the registry names no directory, reports are in the directory
// "Reports" of the working directory.
#pragma once

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// kRefused if this process is root, the registry names no report directory, and root does not own "./Reports": the user
// who made it would choose what root reads and writes. A missing directory is accepted.
//
// Threads: the only thread; the working directory changes for a moment.
Status CheckFallbackDirectory();

}  // namespace qx::ctl
