// The hidden command _offers NAME -- CURRENT WORDS for the completion scripts: the values for the word CURRENT after
// the words WORDS. Each is a line; after a tab comes its help.
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kOffersCommand;

}  // namespace qx::ctl
