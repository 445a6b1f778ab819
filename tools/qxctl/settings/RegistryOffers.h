// Keys and values of the registry, for the tab key.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

// The keys one level below what is typed. One that has keys below it ends with "/".
extern const OfferSource kRegistryKeyOffers;

// The values of the KEY before.
extern const OfferSource kRegistryValueOffers;

}  // namespace qx::ctl
