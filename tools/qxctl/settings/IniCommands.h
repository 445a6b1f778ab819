// What the source files of the ini commands share.
#pragma once

#include "tools/qxctl/cli/Commands.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

void AddIniEditCommands(CLI::App& ini, Context& context);  // set, delete, copy

}  // namespace qx::ctl
