// The hidden command `_parse -- WORDS`: checks whether the words are a valid command line, and runs nothing. The tests
// check the examples of the command table with it.
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kParseCommand;

}  // namespace qx::ctl
