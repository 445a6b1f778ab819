// Writing to a descriptor so that nothing is lost unnoticed.
#pragma once

#include <string>
#include <string_view>

#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Writes every byte, continuing after short writes. `name` is what the message calls the file. A signal under an
// InterruptGuard ends it.
Status WriteAll(int descriptor, std::string_view bytes, const std::string& name);

}  // namespace qx::ctl
