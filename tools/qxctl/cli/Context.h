// What every command gets in addition to its values.
#pragma once

#include <span>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/TraceDirectory.h"

namespace qx::ctl {

struct Context {
  Output output;
  TraceDirectory traces;
  std::span<const Command* const> commands = {};  // all commands, for those that describe qxctl itself
};

}  // namespace qx::ctl
