// Internal: checks the header of a store and the sizes of its files, without a read of slots and texts.
#pragma once

#include "reportfile/tools/StoreVerify.h"

namespace qx::report {

// Adds findings and remarks to `scan`, which has the header and the sizes. [any thread] Throws std::bad_alloc.
void CheckHeaderAndSizes(StoreScan& scan);

}  // namespace qx::report
