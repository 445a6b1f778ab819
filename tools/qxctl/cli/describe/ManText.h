// Writes the manual pages from the command table, in the language of scdoc: qxctl(1), the overview, and a page for each
// command, such as qxctl-report-cat(1).
#pragma once

#include <string>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

// Two sections of qxctl(1): OPTIONS with the options of every command, and COMMANDS with the page of each command.
std::string ManSections(Commands commands);

// The whole page of a command or of a group of commands. Each option has a line, and so has each example.
std::string ManPage(Commands commands, const Command& command);

}  // namespace qx::ctl
