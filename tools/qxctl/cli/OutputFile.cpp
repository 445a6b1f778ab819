#include "tools/qxctl/cli/OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/cli/WriteAll.h"
#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

Status OutputFile::Open(const std::string& path, bool force) {
  path_ = path;
  const ReplaceResult begun = file_.Begin(path, ReplacedFile::ForOutput(force));
  if (begun.state != ReplaceState::kNotRegular) return StatusOfFile("cannot create", begun);
  // O_APPEND matters for a regular file that the shell has opened for the process: "-o /dev/stdout >> records".
  const FileRules rules = {.accept_foreign = force, .only_special = true};
  Status opened = StatusOfFile("cannot open", OpenChecked(path, O_WRONLY | O_APPEND, 0, rules, direct_));
  is_terminal_ = opened.IsOk() && isatty(direct_.Number()) == 1;
  return opened;
}

Status OutputFile::Write(std::string_view bytes) {
  if (is_terminal_ && !keeps_bytes_) return WriteAll(direct_.Number(), ForTerminal(bytes), path_);
  if (direct_.IsOpen()) return WriteAll(direct_.Number(), bytes, path_);
  return StatusOfFile("cannot write", file_.AppendToCopy(bytes));
}

Status OutputFile::Commit() {
  if (!direct_.IsOpen()) return StatusOfFile("cannot replace", file_.Commit(false));
  const int error = direct_.Close();
  return error == 0 ? Status() : Status::Io("cannot close " + path_, error);
}

}  // namespace qx::ctl
