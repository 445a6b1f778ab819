// Parses a command line by the table of commands. Parser.cpp is the only source that uses CLI11.
//
// Options may be anywhere: those of qxctl before or after the words of the command, those of the command after them.
// "--option=value", "--option value", "-ovalue" and "-o value" mean the same; "--" ends the options. "-" and texts that
// look like negative numbers are arguments.
#pragma once

#include <span>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

enum class Request {
  kRun,
  kHelp,
  kVersion,
  kOverview  // no word of a command
};

// The request of a command line.
struct CommandLine {
  Request request = Request::kRun;
  const Command* command = nullptr;  // one of the table; after a failure the one that the words reached
  bool asks_for_json = false;        // --json is among the arguments, whether or not the rest is valid
  Values values;                     // of the command, and of the options that every command has
};

// `commands` begin with qxctl itself, and a group comes before its commands. kUsage with a message that says what is
// wrong.
Status ParseCommandLine(std::span<const Command* const> commands, int argc, const char* const* argv, CommandLine& line);

}  // namespace qx::ctl
