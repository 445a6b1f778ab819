// Input that a command takes from files or from standard input.
#pragma once

#include <string>

#include "base/File.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// An argument that is a text, or "@FILE" for the file's content, or "-" or "@-" for standard input. A file or link of
// another user than root and the process's own is refused unless `force`: that user would choose what this process
// reads.
Status ReadArgument(const std::string& argument, std::string& text, bool force = false);

// Standard input as a regular file in memory, for readers that need a path. It is valid while `file` is open. kIo for
// more than 64 MiB.
Status StandardInputAsFile(file::Descriptor& file, std::string& path);

}  // namespace qx::ctl
