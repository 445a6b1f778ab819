// The command "qxctl explain".
#pragma once

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const Command kExplainCommand;

// Offers codes with their meanings to the tab key; error numbers also by name.
extern const OfferSource kCodeOffers;

}  // namespace qx::ctl
