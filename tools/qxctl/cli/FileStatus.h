// Writes the messages that say why a file was not opened or replaced.
#pragma once

#include <string>

#include "base/tools/FilePlace.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// The status of an open or a replacement. `what`: "cannot open", "cannot create", ... It is kRefused for a file or link
// of another user. The message then says what to do: for a file, to use --force; for a link, which --force does not
// follow, to name the file itself.
[[nodiscard]] Status StatusOfFile(const std::string& what, const ReplaceResult& result);

// Status::Io for opens of reports and backups. For ELOOP it also says why a link is refused and what to do; the
// system's text says neither.
[[nodiscard]] Status StatusOfReportFile(const std::string& what, int error);

}  // namespace qx::ctl
