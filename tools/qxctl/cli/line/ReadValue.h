// Reads one text of the command line as the value of its parameter.
#pragma once

#include <string_view>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

// Sets the value, or adds to it if the parameter may be repeated. kUsage says what is wrong with the text and what is
// possible; the value is then unchanged.
Status ReadValue(std::string_view text, Value& value);

}  // namespace qx::ctl
