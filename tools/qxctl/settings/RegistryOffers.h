// Offers keys and values of the registry to the tab key.
#pragma once

#include "tools/qxctl/cli/Offers.h"

namespace qx::ctl {

// The keys one level below the typed path. A key that has subkeys ends with "/".
extern const OfferSource kRegistryKeyOffers;

// The values of the KEY that is given before.
extern const OfferSource kRegistryValueOffers;

}  // namespace qx::ctl
