// Warns of a damaged report before a command reads or extends it: it can be read like a sound one, but its records are
// wrong.
#pragma once

#include <string>

#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// Checks header and sizes of the report at `base_path`. Returns true and prints a warning that names "qxctl report
// verify" if two checks find the same contradiction. A report that is missing or cannot be read is not damaged.
[[nodiscard]] bool WarnOfDamage(Output& output, const std::string& base_path);

// kFinding without a message if `status` is a success and the report is damaged; else `status`.
[[nodiscard]] Status WithDamage(Status status, bool is_damaged);

}  // namespace qx::ctl
