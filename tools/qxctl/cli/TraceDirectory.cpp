#include "tools/qxctl/cli/TraceDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "base/File.h"
#include "debug/Debug.h"
#include "tools/qxctl/cli/Interrupt.h"

namespace qx::ctl {

namespace {

constexpr mode_t kModePrivate = 0700;
const char kModuleLog[] = "/log.qxremconxfer";
const char kOwnLog[] = "/log.qxctl";
// The limit of a log. The default would be 50 KiB, which is enough for a few calls at level 5.
const char kLogBytesMax[] = "67108864";

bool SetEnvironment(const std::string& directory, int level) {
  return setenv("QX_LOG_RINGBUF_DIR", directory.c_str(), 1) == 0 &&
         setenv("QX_LOG_DEBUG_LEVEL", std::to_string(level).c_str(), 1) == 0 &&
         setenv("QX_LOG_DYNAMIC_UPDATE", "0", 1) == 0 &&  // the service's files must not change the level later
         setenv("QX_LOG_FILE_MAX_SIZE", kLogBytesMax, 0) == 0;
}

// Traces are never written through a link: if the log were one, there would be no traces.
Status CheckLog(const std::string& log) {
  struct stat status;
  const bool is_link = file::StatusOf(log.c_str(), status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
  if (!is_link) return {};
  const std::string owner =
      status.st_uid == geteuid() ? "" : " of another user (uid " + std::to_string(status.st_uid) + ")";
  return {ExitCode::kRefused, log + " is a symbolic link" + owner +
                                  ", and traces are not written through a link; remove it, or name another directory"};
}

Status StatusOfSet(bool environment_is_set) {
  return environment_is_set ? Status() : Status(ExitCode::kIo, "no memory for the environment");
}

}  // namespace

TraceDirectory::~TraceDirectory() {
  if (private_.empty()) return;
  std::error_code ignored;  // a file that cannot be removed contains nobody's data
  std::filesystem::remove_all(private_, ignored);
  RemoveOnSignal("");
}

Status TraceDirectory::Keep(const std::string& directory, int level) {
  const int error = file::MakeDirectory(directory.c_str(), kModePrivate);
  if (error != 0 && error != EEXIST) return Status::Io("cannot make the trace directory " + directory, error);
  for (const char* const log : {kModuleLog, kOwnLog}) {
    if (Status status = CheckLog(directory + log); !status.IsOk()) return status;
  }
  if (access((directory + kModuleLog).c_str(), F_OK) == 0) {
    return {ExitCode::kRefused, directory + kModuleLog +
                                    " exists, and loading the module would empty it; remove it if " +
                                    "no service writes it, or name another directory"};
  }
  if (!SetEnvironment(directory, level)) return StatusOfSet(false);
  is_set_ = true;
  if (!Debug.Init("qxctl")) return {ExitCode::kIo, "cannot trace into " + directory};
  Debug.SetApplInitDone();
  return {};
}

Status TraceDirectory::ProtectService() {
  if (is_set_) return {};
  const char* const base = std::getenv("TMPDIR");
  std::string name = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/qxctl-XXXXXX";
  const HeldSignals held;
  const bool is_made = mkdtemp(name.data()) != nullptr;
  const int error = errno;
  if (!is_made) {
    return Status::Io("cannot make a private trace directory " + name + " (TMPDIR can name another place)", error);
  }
  private_ = name;
  RemoveOnSignal(private_);
  is_set_ = true;
  return StatusOfSet(SetEnvironment(private_, 0));
}

}  // namespace qx::ctl
