// Offers, for the tab key, the fields with numbers in the records of the report that the command line names.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const OfferSource kFieldOffers;

}  // namespace qx::ctl
