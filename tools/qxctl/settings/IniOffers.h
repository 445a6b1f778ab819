// Sections and keys of the profile file that the command line names, for the tab key.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

extern const OfferSource kIniSectionOffers;
extern const OfferSource kIniKeyOffers;

}  // namespace qx::ctl
