// Offers the reports of the report directory to the tab key.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const OfferSource kReportOffers;

}  // namespace qx::ctl
