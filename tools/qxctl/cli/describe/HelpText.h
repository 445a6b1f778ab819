// Writes the output of --help from the command table.
#pragma once

#include <string>

#include "tools/qxctl/cli/CommandTable.h"

namespace qx::ctl {

// The page of one command: its help, its usage line, its arguments, its options by group, its subcommands, examples.
std::string HelpText(Commands commands, const Command& command);

// The output of qxctl without arguments: the commands by heading, with the commands of each group.
std::string OverviewText(Commands commands);

// "qxctl report cat PATH [OPTIONS]"
std::string CallOf(const Command& command);

// The help of a parameter with its remarks: "Records that the ring keeps (required; 1 to 1000)"
std::string HelpWithRemarks(const Parameter& parameter);

}  // namespace qx::ctl
