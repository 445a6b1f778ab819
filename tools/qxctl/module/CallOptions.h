// The options that all commands with a call into the module have.
#pragma once

#include <memory>
#include <string>

#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/TraceDirectory.h"
#include "tools/qxctl/cli/Values.h"
#include "tools/qxctl/module/ModuleHost.h"
#include "tools/qxctl/module/RequestBlock.h"

namespace qx::ctl {

struct CallOptions {
  std::string module_path;  // empty: FindModule finds it
  BlockValues block;
};

// Returns what is wrong with the tag of a block, or an empty text.
std::string_view CheckTag(std::string_view tag);

inline constexpr std::string_view kOmittableElements[] = {"1", "2", "3", "5", "14", "15", "61", "65"};

// Only --module, for commands that make their own blocks.
inline constexpr Parameter kModuleParameters[] = {
    {.name = "--module",
     .kind = ValueKind::kFile,
     .value = "FILE",
     .help = "The module (default: QX_MODULE; otherwise the first one in qxctl's folder, in ../lib, in the suite's "
             "folder)"},
};

// The contents of the request block.
inline constexpr Parameter kBlockParameters[] = {
    {.name = "--user",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Attach security validation data with this user id",
     .group = "Caller"},
    {.name = "--privilege",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Attach security validation data with this privilege, [DEPARTMENT:]NAME; may be repeated",
     .group = "Caller",
     .is_repeatable = true},
    {.name = "--tag",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Tag of the block (\"KRX\" is valid)",
     .group = "Request block",
     .check = CheckTag},
    {.name = "--block-version",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Version of the block; 30400 is 3.4.0",
     .group = "Request block",
     .limits = kUint32Limits},
    {.name = "--thread-id",
     .kind = ValueKind::kInteger,
     .value = "NUMBER",
     .help = "Thread id in the block (0 is refused)",
     .group = "Request block",
     .limits = kUint32Limits},
    {.name = "--application-id",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Name of the calling application",
     .group = "Request block"},
    {.name = "--function-id",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Function name in the block (default: the called function)",
     .group = "Request block"},
    {.name = "--address",
     .kind = ValueKind::kText,
     .value = "TEXT",
     .help = "Address of the requestor",
     .group = "Request block"},
    {.name = "--omit",
     .kind = ValueKind::kInteger,
     .value = "INDEX,...",
     .help = "Leave out the elements with these indices: 1, 2, 3, 5, 14, 15, 61, 65",
     .group = "Request block",
     .choices = kOmittableElements,
     .is_repeatable = true,
     .is_list = true},
};

// For a command with kModuleParameters and kBlockParameters.
CallOptions CallOptionsOf(const Values& values);

// Loads the module that the options name. Before, TraceDirectory makes sure that its traces do not change files of a
// service.
Status LoadModule(const CallOptions& options, TraceDirectory& traces, std::unique_ptr<ModuleHost>& host);

// Parses "[DEPARTMENT:]NAME".
//   "Operations:AccessPerformanceMgr"  => department "Operations"
//   "AccessPerformanceMgr"             => department ""
Privilege ParsePrivilege(const std::string& text);

}  // namespace qx::ctl
