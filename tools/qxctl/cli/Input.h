// Input that a command takes from files or from standard input.
#pragma once

#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// An argument that is a text, or "@FILE" for the file's content, or "-" or "@-" for standard input. A file or link of
// another user than root and the process's own is refused unless `force`: that user would choose what this process
// reads.
Status ReadArgument(const std::string& argument, std::string& text, bool force = false);

}  // namespace qx::ctl
