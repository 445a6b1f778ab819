// qxctl completion bash|zsh, and the output for the build and the tests: the table and the manual page.
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kCompletionCommand;
extern const Command kTableCommand;  // _table: the commands as a JSON document
extern const Command kManCommand;    // _man: the page on standard input, with its sections filled in

}  // namespace qx::ctl
