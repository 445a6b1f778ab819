// Runs a program with commands, from the command line to the exit code.
#pragma once

#include <span>
#include <string_view>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Offers.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

struct Program {
  std::string_view name;
  std::string_view version;
  std::span<const Command* const> commands;
  std::span<const OfferSource* const> offer_sources = {};
  // Applies the options that all commands have; null if there is no such option.
  Status (*prepare)(Context& context, const Values& values) = nullptr;
};

// Parses the whole command line, then applies the common options, then runs the command. Every run ends with one exit
// code (Status.h). Data goes to standard output, messages go to standard error. [owning thread]
[[nodiscard]] ExitCode RunProgram(const Program& program, int argc, char** argv);

}  // namespace qx::ctl
