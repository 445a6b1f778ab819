// The common part of the commands that change settings (registry, ini): the dry run without --apply, the replacement of
// the file, and the changes as lines with "-" and "+".
#pragma once

#include <string>
#include <string_view>

#include "base/tools/ReplacedFile.h"
#include "tools/qxctl/cli/Command.h"
#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Status.h"
#include "tools/qxctl/cli/Values.h"

namespace qx::ctl {

struct EditOptions {
  bool apply = false;
  bool force = false;
};

inline constexpr Parameter kEditParameters[] = {
    {.name = "--apply", .help = "Change the file; without it only what would change is printed"},
    {.name = "--json", .help = "Print as JSON"},
};

// For a command with kEditParameters and --force.
EditOptions EditOptionsOf(const Values& values);

// Why the edit failed, and what to do about it.
Status StatusOfEdit(const ReplaceResult& result);

// Reads the file, and locks it for an edit unless this is a dry run.
Status BeginEdit(ReplacedFile& edit, const std::string& path, const EditOptions& options, bool may_be_missing);

// The message after a dry run, after an edit that changed something, or after one that had nothing to change.
Status EditDone(const EditOptions& options, bool has_changes);

// "- line" and "+ line", coloured if colour is on.
std::string Removed(const Output& output, std::string_view line);
std::string Added(const Output& output, std::string_view line);

}  // namespace qx::ctl
