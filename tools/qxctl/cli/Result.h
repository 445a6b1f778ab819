// Prints the result of a command.
#pragma once

#include <functional>
#include <string>

#include "tools/qxctl/cli/Context.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

// For a command with the option --json: prints the document if the option is given, else the text. Returns `status`, or
// the reason why the print failed.
Status ShowResult(Context& context, const Values& values, const std::function<Json()>& document,
                  const std::function<std::string()>& text, const Status& status = {});

}  // namespace qx::ctl
