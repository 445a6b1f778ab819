// Reads the input of a command from files or from standard input.
#pragma once

#include <string>

#include "base/File.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Sets `text` from an argument: "@FILE" means the content of the file, "-" and "@-" mean standard input, and any other
// argument is the text itself. A file or link of another user than root and the process's own is refused unless
// `force`: that user would choose what this process reads.
Status ReadArgument(const std::string& argument, std::string& text, bool force = false);

// Copies standard input to a regular file in memory, for readers that need a path. The path is valid while `file` is
// open. kIo for more than 64 MiB.
Status StandardInputAsFile(file::Descriptor& file, std::string& path);

}  // namespace qx::ctl
