// The command line against the table of commands. Parser.cpp is the only source that uses CLI11.
//
// Options may be anywhere: those of qxctl before or after the words of the command, those of the command after them.
// "--option=value", "--option value", "-ovalue" and "-o value" mean the same; "--" ends the options. "-" and what looks
// like a negative number are arguments.
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

// What a command line asks for.
struct CommandLine {
  Request request = Request::kRun;
  const Command* command = nullptr;  // one of the table; after a failure the one that the words reached
  bool asks_for_json = false;        // --json is among the arguments, whether or not the rest is valid
  Values values;                     // of the command, and of the options that every command has
};

// `commands` begin with qxctl itself, and a group comes before its commands. kUsage says what is wrong.
Status ParseCommandLine(std::span<const Command* const> commands, int argc, const char* const* argv, CommandLine& line);

}  // namespace qx::ctl
