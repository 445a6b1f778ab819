#include "tools/qxctl/cli/FileStatus.h"

#include "tools/qxctl/cli/text/Text.h"

namespace qx::ctl {

namespace {

Status Refused(const ReplaceResult& result, const std::string& reason) {
  return {ExitCode::kRefused, Visible(result.file) + reason};
}

std::string UserOf(const ReplaceResult& result) { return " another user (uid " + std::to_string(result.owner) + ")"; }

Status FailedCall(const std::string& what, const ReplaceResult& result) {
  const std::string file = Visible(result.file);
  if (result.error == ENXIO)
    return {ExitCode::kIo, what + " " + file + ": nobody reads this pipe; start its reader first"};
  const Status status = Status::Io(what + " " + file, result.error);
  return result.error == EISDIR ? Status(status.Code(), status.Message() + "; name a file in it") : status;
}

}  // namespace

Status StatusOfFile(const std::string& what, const ReplaceResult& result) {
  switch (result.state) {
    case ReplaceState::kDone:
      return {};
    case ReplaceState::kNotFound:
      return Status::Io(what + " " + Visible(result.file), ENOENT);
    case ReplaceState::kNotRegular:
      return Refused(result, " is not a regular file; name another file");
    case ReplaceState::kLink:
      return Refused(result, " is a symbolic link; name its target, or use --force to follow it");
    case ReplaceState::kForeignLink:
      return Refused(result, " is a symbolic link of" + UserOf(result) +
                                 ", who chooses where it leads; name the file itself, or make the link again as root");
    case ReplaceState::kForeignOwner:
      return Refused(result, " belongs to" + UserOf(result) +
                                 "; name a file of your own, or use --force to use it anyway (it keeps its owner)");
    case ReplaceState::kSharedDirectory:
      return Refused(result, " is in a directory that other users may write; name another directory, or use --force");
    case ReplaceState::kSeveralNames:
      return Refused(result,
                     " has several names (hard links), and another may be needed elsewhere; name another file, "
                     "or use --force to write it");
    case ReplaceState::kBusy:
      return Refused(result, " is locked by another process; try again after it has ended");
    case ReplaceState::kChanged:
      return {ExitCode::kChanged, Visible(result.file) + " was replaced by another process meanwhile; try again"};
    case ReplaceState::kFailed:
      return FailedCall(what, result);
  }
  return {};
}

Status StatusOfReportFile(const std::string& what, int error) {
  Status status = Status::Io(what, error);
  if (error != ELOOP) return status;
  return {status.Code(),
          status.Message() +
              ": a symbolic link of the path leads back to itself, or belongs to a user who is not trusted; "
              "make the link again as root, or replace it by what it leads to"};
}

}  // namespace qx::ctl
