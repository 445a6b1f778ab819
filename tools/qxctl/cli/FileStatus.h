// Messages that say why a file was not opened or replaced.
#pragma once

#include <string>

#include "base/tools/FilePlace.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// `what`: "cannot open", "cannot create", ... For a file or link of another user the code is kRefused, and the message
// names --force.
[[nodiscard]] Status StatusOfFile(const std::string& what, const ReplaceResult& result);

}  // namespace qx::ctl
