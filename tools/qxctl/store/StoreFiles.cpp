#include "tools/qxctl/store/StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "reportfile/StoreFormat.h"
#include "tools/qxctl/cli/FileStatus.h"
#include "tools/qxctl/store/MissingReport.h"

namespace qx::ctl {

std::optional<std::int64_t> FileSize(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  if (S_ISREG(status.st_mode)) return std::int64_t{status.st_size};
  errno = EINVAL;
  return std::nullopt;
}

std::uint64_t BytesOfReport(const std::string& base_path) {
  std::uint64_t bytes = 0;
  for (const std::string& file : {report::IndexFileName(base_path), report::DataFileName(base_path)}) {
    bytes += static_cast<std::uint64_t>(FileSize(file).value_or(0));
  }
  return bytes;
}

std::uint64_t BytesBelow(const std::string& directory) {
  using std::filesystem::recursive_directory_iterator;
  std::uint64_t bytes = 0;
  std::error_code error;
  recursive_directory_iterator entry(directory, std::filesystem::directory_options::skip_permission_denied, error);
  for (; !error && entry != recursive_directory_iterator(); entry.increment(error)) {
    std::error_code gone;
    const bool is_file = entry->is_regular_file(gone) && !entry->is_symlink(gone);
    const std::uintmax_t size = is_file ? entry->file_size(gone) : 0;
    if (!gone) bytes += size;
  }
  return bytes;
}

Status CheckStoreFiles(const std::string& base_path, int access_mode) {
  const std::string data = report::DataFileName(base_path);
  const std::string index = report::IndexFileName(base_path);
  const bool is_missing = access(index.c_str(), F_OK) != 0 && errno == ENOENT && access(data.c_str(), F_OK) != 0;
  if (is_missing) return NoSuchReportAt(base_path);
  for (const std::string& file : {index, data}) {
    const bool is_usable =
        FileSize(file).has_value() && faccessat(AT_FDCWD, file.c_str(), access_mode, AT_EACCESS) == 0;
    const int error = errno;
    if (is_usable) continue;
    if (error != ENOENT) return StatusOfReportFile("cannot open " + file, error);
    return {ExitCode::kNotFound, "there is no " + file + ", the other file of that report; put it back from a backup"};
  }
  return {};
}

Status OpenStoreForReading(const std::string& base_path, CReportFileBase& store) {
  if (Status status = CheckStoreFiles(base_path, R_OK); !status.IsOk()) return status;
  const bool is_open = store.OpenRead(base_path.c_str());
  const int error = errno;
  return is_open ? Status() : StatusOfReportFile("cannot open " + base_path, error);
}

Status CheckNotWritten(const std::string& base_path, const report::WriterLock& lock) {
  if (!lock.IsHeldByAnother()) return {};
  const std::string writer = lock.Process() != 0 ? "process " + std::to_string(lock.Process()) : "another program";
  return {ExitCode::kRefused, base_path + " is written by " + writer +
                                  "; stop it first, because two writers overwrite each other's records"};
}

}  // namespace qx::ctl
