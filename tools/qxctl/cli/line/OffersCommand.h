// The hidden command `_offers NAME -- CURRENT WORDS` for the completion scripts. It prints what the source NAME offers
// for the word CURRENT after the words WORDS: a line for each value, with its help after a tab.
#pragma once

#include "tools/qxctl/cli/Command.h"

namespace qx::ctl {

extern const Command kOffersCommand;

}  // namespace qx::ctl
