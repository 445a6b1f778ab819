// Messages that say why a file was not opened or replaced.
#pragma once

#include <string>

#include "base/tools/FilePlace.h"
#include "tools/qxctl/cli/Status.h"

namespace qx::ctl {

// `what`: "cannot open", "cannot create", ... For a file or link of another user it is kRefused. The message says what
// to do: for a file, to use --force, which never follows a link of another user.
[[nodiscard]] Status StatusOfFile(const std::string& what, const ReplaceResult& result);

// Like Status::Io, for opens of reports and backups: the system's text for ELOOP says neither why a link is refused nor
// what to do.
[[nodiscard]] Status StatusOfReportFile(const std::string& what, int error);

}  // namespace qx::ctl
