// Internal: one pass over the two files of a store. ScanStore (StoreVerify.h) is the whole pass.
#pragma once

#include "reportfile/tools/StoreVerify.h"

namespace qx::report {

class ByteSource;

// Only header and sizes: of the data file nothing is read. [any thread] Throws std::bad_alloc.
[[nodiscard]] StoreScan ScanHeader(ByteSource& index, ByteSource& data);

}  // namespace qx::report
