// The fields with numbers of the report that the command line names, for the tab key.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const OfferSource kFieldOffers;

}  // namespace qx::ctl
