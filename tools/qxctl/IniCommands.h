// What the source files of the ini commands share.
#pragma once

#include "tools/qxctl/Commands.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

void AddIniEditCommands(CLI::App& ini, Context& context);  // set, delete, copy

}  // namespace qx::ctl
