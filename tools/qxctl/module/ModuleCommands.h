// The commands below "qxctl module" that are more than one call; each has a source file of its own.
#pragma once

#include "tools/qxctl/cli/Commands.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

void AddModuleLoadTest(CLI::App& module, Context& context);  // module load-test
void AddModuleRecord(CLI::App& module, Context& context);    // module record
void AddModuleReplay(CLI::App& module, Context& context);    // module replay
void AddModuleFaults(CLI::App& module, Context& context);    // module faults

}  // namespace qx::ctl
