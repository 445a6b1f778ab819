// Internal: checks the header of a store in one pass. ScanStore (StoreVerify.h) is the pass over everything.
#pragma once

#include "reportfile/tools/StoreVerify.h"

namespace qx::report {

class ByteSource;

// Checks only the header and the sizes of the files; no text is read. [any thread] Throws std::bad_alloc.
[[nodiscard]] StoreScan ScanHeader(ByteSource& index, ByteSource& data);

}  // namespace qx::report
