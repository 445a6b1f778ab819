// Input that a command takes from files or from standard input.
#pragma once

#include <string>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// An argument that is a text, or "@FILE" for the file's content, or "@-" for standard input.
Status ReadArgument(const std::string& argument, std::string& text);

}  // namespace qx::ctl
