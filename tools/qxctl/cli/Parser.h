// Parses the command line with the table of commands. Parser.cpp is the only source that uses the argument parser.
#pragma once

#include <span>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

enum class Request { kRun, kHelp, kVersion };

// The content of a command line.
struct CommandLine {
  Request request = Request::kRun;
  const Command* command = nullptr;  // a command of the table
  Values values;                     // the values of the command, and of the options that every command has
};

// `commands` begin with qxctl itself, and a group comes before its commands. A wrong command line is kUsage, with the
// reason.
Status ParseCommandLine(std::span<const Command* const> commands, int argc, const char* const* argv, CommandLine& line);

}  // namespace qx::ctl
