// Internal: checks the header of a store and the sizes of its files. Slots and texts are not read.
#pragma once

#include "reportfile/tools/StoreVerify.h"

namespace qx::report {

// Checks the header and the sizes in `scan`, and adds findings and remarks to it. [any thread] Throws std::bad_alloc.
void CheckHeaderAndSizes(StoreScan& scan);

}  // namespace qx::report
