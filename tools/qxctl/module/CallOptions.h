// The options that every command with a call into the module shares.
#pragma once

#include <memory>
#include <string>

#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/TraceDirectory.h"
#include "tools/qxctl/module/ModuleHost.h"
#include "tools/qxctl/module/RequestBlock.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

struct CallOptions {
  std::string module_path;  // empty: FindModule looks for it
  BlockValues block;
};

// Adds --module alone, for commands that make their blocks themselves.
void AddModuleOption(CLI::App& command, CallOptions& options);

// Adds --module, --user, --privilege, --tag, --block-version, --thread-id, --application-id, --function-id, --address
// and --omit. `options` must live until the command has run.
void AddCallOptions(CLI::App& command, CallOptions& options);

// Loads the module that the options name, away from any service's traces.
Status LoadModule(const CallOptions& options, TraceDirectory& traces, std::unique_ptr<ModuleHost>& host);

// "[DEPARTMENT:]NAME"
//   "Operations:AccessPerformanceMgr"  => department "Operations"
//   "AccessPerformanceMgr"             => department ""
Privilege ParsePrivilege(const std::string& text);

}  // namespace qx::ctl
