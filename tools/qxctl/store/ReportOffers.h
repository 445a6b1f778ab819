// The reports of the report directory, for the tab key.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const OfferSource kReportOffers;

}  // namespace qx::ctl
