// A damaged report can be read like a sound one, but its records are wrong. Commands that read or extend a report check
// its header first.
#pragma once

#include <string>

#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Checks header and sizes of the report at `base_path`. If two checks find the same contradiction, prints a warning
// that names "qxctl report verify". True if it did; a report that is missing or cannot be read is not damaged.
[[nodiscard]] bool WarnOfDamage(Output& output, const std::string& base_path);

// Code 1 without a message for a success with a damaged report; any other status as it is.
[[nodiscard]] Status WithDamage(Status status, bool is_damaged);

}  // namespace qx::ctl
