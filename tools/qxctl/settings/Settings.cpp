#include "tools/qxctl/settings/Settings.h"

#include <cerrno>

#include "tools/qxctl/cli/FileStatus.h"

namespace qx::ctl {

namespace {

bool IsForbidden(int error) { return error == EACCES || error == EPERM || error == EROFS; }

Status Failed(const ReplaceResult& result) {
  Status status = Status::Io("cannot use " + result.file, result.error);
  if (IsForbidden(result.error)) {
    return {ExitCode::kIo, status.Message() +
                               "; nothing was changed; do this as a user who may write the file and its " +
                               "directory, such as root"};
  }
  if (result.error == EEXIST) {
    return {ExitCode::kIo, status.Message() + " and belongs to another user; remove it if nobody edits the file"};
  }
  if (result.error == ENOSPC || result.error == EDQUOT) {
    return {ExitCode::kIo, status.Message() + "; nothing was changed; free disk space first"};
  }
  return status;
}

}  // namespace

EditOptions EditOptionsOf(const Values& values) {
  return {.apply = values.Flag("--apply"), .force = values.Flag("--force")};
}

Status StatusOfEdit(const ReplaceResult& result) {
  switch (result.state) {
    case ReplaceState::kDone:
      return {};
    case ReplaceState::kNotFound:
      return {ExitCode::kNotFound, "there is no file " + result.file};
    case ReplaceState::kNotRegular:
      return {ExitCode::kRefused, result.file + " is not a regular file"};
    case ReplaceState::kLink:
      return {ExitCode::kRefused, result.file + " is a symbolic link, and its target may belong to others; name " +
                                      "that file, or use --force to change it"};
    case ReplaceState::kBusy:
      return {ExitCode::kRefused, "another qxctl is changing " + result.file + "; try again when it is done"};
    case ReplaceState::kChanged:
      return {ExitCode::kChanged,
              result.file + " was written by another program meanwhile, so it was not changed here; try again"};
    case ReplaceState::kSharedDirectory:
      return {ExitCode::kRefused, "other users may write the directory of " + result.file +
                                      ", so they can replace it at any time; change the mode or the owner of the "
                                      "directory, or use --force to change the file anyway"};
    case ReplaceState::kForeignLink:
    case ReplaceState::kForeignOwner:
    case ReplaceState::kSeveralNames:
      return StatusOfFile("cannot use", result);
    case ReplaceState::kFailed:
      return Failed(result);
  }
  return {};
}

Status BeginEdit(ReplacedFile& edit, const std::string& path, const EditOptions& options, bool may_be_missing) {
  return StatusOfEdit(edit.Begin(path, {.links = options.force ? LinkRule::kTrusted : LinkRule::kTrustedDirectories,
                                        .may_be_missing = may_be_missing,
                                        .read_only = !options.apply,
                                        .refuse_shared_directory = !options.force}));
}

Status EditDone(const EditOptions& options, bool has_changes) {
  if (!has_changes) return {ExitCode::kOk, "nothing to change: it is already so"};
  return options.apply ? Status() : Status(ExitCode::kOk, "nothing was changed; --apply changes it");
}

std::string Removed(const Output& output, std::string_view line) {
  return output.Paint(Style::kBad, "- " + std::string(line)) + "\n";
}

std::string Added(const Output& output, std::string_view line) {
  return output.Paint(Style::kGood, "+ " + std::string(line)) + "\n";
}

}  // namespace qx::ctl
