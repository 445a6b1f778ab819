#include "tools/qxctl/store/FallbackDirectory.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "base/File.h"
#include "base/tools/FilePlace.h"
#include "provider/ServerControlPaths.h"
#include "tools/qxctl/cli/FileStatus.h"

namespace qx::ctl {

namespace {

std::string ReportDirectoryHere() {
  std::string directory;
  return CServerControlPaths::GetServerControlReportPath(directory);
}

// Whether the directory is the fallback: from another working directory, only the fallback is a different one.
bool IsFallback(const std::string& directory) {
  const file::Descriptor here = file::Open(".", O_PATH | O_DIRECTORY);
  if (!here.IsOpen() || chdir("/") != 0) return true;
  const bool is_fallback = ReportDirectoryHere() != directory;
  return fchdir(here.Number()) != 0 || is_fallback;
}

}  // namespace

Status CheckFallbackDirectory() {
  if (geteuid() != 0) return {};
  const std::string directory = ReportDirectoryHere();
  if (!IsFallback(directory)) return {};
  file::Descriptor opened;
  struct stat status;
  FilePlace place;
  ReplaceResult result = FindPlace(directory, LinkRule::kTrusted, place);
  if (result.IsDone()) result = OpenPlace(place, O_PATH, 0, opened, status);
  if (result.state == ReplaceState::kNotFound) return {};
  const std::string advice =
      "; as root, work in a directory whose Reports root owns, or name the report directory in the registry";
  if (!result.IsDone()) {
    const Status failed = StatusOfFile("cannot open", result);
    return {ExitCode::kRefused, failed.Message() + advice};
  }
  if (status.st_uid == 0) return {};
  return {ExitCode::kRefused, "the registry names no report directory, and " + directory +
                                  " belongs to another user (uid " + std::to_string(status.st_uid) + ")" + advice};
}

}  // namespace qx::ctl
