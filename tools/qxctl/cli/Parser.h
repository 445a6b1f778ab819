// The command line against the table of commands. Parser.cpp is the only source that knows the argument parser.
#pragma once

#include <span>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

enum class Request { kRun, kHelp, kVersion };

// What a command line asks for.
struct CommandLine {
  Request request = Request::kRun;
  const Command* command = nullptr;  // one of the table
  Values values;                     // of the command, and of the options that every command has
};

// `commands` begin with qxctl itself, and a group comes before its commands. kUsage says what is wrong.
Status ParseCommandLine(std::span<const Command* const> commands, int argc, const char* const* argv, CommandLine& line);

}  // namespace qx::ctl
