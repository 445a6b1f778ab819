// Offers the files of the trace directory to the tab key.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const OfferSource kTraceOffers;

}  // namespace qx::ctl
