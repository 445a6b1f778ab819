// What the commands that change settings (registry, ini) have in common: a dry run unless --apply stands there, the
// careful replacement of the file, and changes shown as lines with "-" and "+".
#pragma once

#include <string>
#include <string_view>

#include "base/tools/ReplacedFile.h"
#include "tools/qxctl/cli/Output.h"
#include "tools/qxctl/cli/Status.h"

namespace CLI {
class App;
}  // namespace CLI

namespace qx::ctl {

struct EditOptions {
  bool apply = false;
  bool force = false;
  bool json = false;
};

// --apply and --json.
void AddEditOptions(CLI::App& command, EditOptions& options);

// What stood in the way, and what to do about it.
Status StatusOfEdit(const ReplaceResult& result);

// Reads the file, and takes it for an edit if this is no dry run.
Status BeginEdit(ReplacedFile& edit, const std::string& path, const EditOptions& options, bool may_be_missing);

// The message behind a dry run, an edit that changed something, or one that had nothing to change.
Status EditDone(const EditOptions& options, bool has_changes);

// "- line" and "+ line", coloured where colour is wanted.
std::string Removed(const Output& output, std::string_view line);
std::string Added(const Output& output, std::string_view line);

}  // namespace qx::ctl
