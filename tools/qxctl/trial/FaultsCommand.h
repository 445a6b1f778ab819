// The command "qxctl module faults".
#pragma once

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const Command kFaultsCommand;

// Offers groups and cases to the tab key.
extern const OfferSource kFaultOffers;

}  // namespace qx::ctl
