// The commands "qxctl help [COMMAND]" and "qxctl version".
#pragma once

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const Command kHelpCommand;
extern const Command kVersionCommand;

// The next words of a command, for the tab key.
extern const OfferSource kCommandOffers;

}  // namespace qx::ctl
