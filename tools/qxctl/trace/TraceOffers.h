// The files of the trace directory, for the tab key.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const OfferSource kTraceOffers;

}  // namespace qx::ctl
