// Offers, for the tab key, the sections and keys of the profile file that the command line names.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const OfferSource kIniSectionOffers;
extern const OfferSource kIniKeyOffers;

}  // namespace qx::ctl
