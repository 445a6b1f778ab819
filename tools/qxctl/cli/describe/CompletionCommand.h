// The command "qxctl completion SHELL", and two hidden commands for the build and the tests: they print the command
// table and the manual pages.
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kCompletionCommand;
extern const Command kTableCommand;  // _table: the commands as a JSON document
extern const Command kManCommand;    // _man COMMAND: its page; without COMMAND the page on standard input, filled in

}  // namespace qx::ctl
