#include "reportfile/tools/WritingProcesses.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <new>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/tools/FileText.h"
#include "reportfile/DirectoryListing.h"
#include "reportfile/tools/DurableFiles.h"

namespace qx::report {

namespace {

// The names in the directory. The iterator of std::filesystem is not used, because it ends the program if memory runs
// out.
std::vector<std::string> NamesIn(const std::string& directory) {
  Listing listing = ListDirectory(directory);  // fails for another user's process, or one that has ended
  if (listing.error == ENOMEM) throw std::bad_alloc();
  return std::move(listing.names);
}

// "flags:\t0100002" in PID/fdinfo/N: octal, with the access mode in the lowest bits.
bool IsOpenForWriting(const std::string& process, const std::string& descriptor) {
  std::istringstream lines(file::TextOf(PathIn(PathIn(process, "fdinfo"), descriptor)));
  for (std::string line; std::getline(lines, line);) {
    constexpr std::string_view kLabel = "flags:\t";
    if (!line.starts_with(kLabel)) continue;
    unsigned flags = 0;
    (void)std::from_chars(line.data() + kLabel.size(), line.data() + line.size(), flags, 8);
    return (flags & O_ACCMODE) != O_RDONLY;
  }
  return false;
}

void AddFilesOf(const std::string& process, int id, const std::set<FileKey>& files,
                std::vector<WritingProcess>* found) {
  const std::string descriptors = PathIn(process, "fd");
  for (const std::string& name : NamesIn(descriptors)) {
    const std::optional<FileKey> key = KeyOf(PathIn(descriptors, name));
    if (key.has_value() && files.contains(*key) && IsOpenForWriting(process, name)) found->push_back({*key, id});
  }
}

// "3: FLOCK  ADVISORY  WRITE 4711 08:01:1234 0 EOF" => process 4711 holds the lock of inode 1234 on device 8:1
std::optional<WritingProcess> LockIn(const std::string& line) {
  int process = 0;
  unsigned major_number = 0;
  unsigned minor_number = 0;
  unsigned long inode = 0;
  const int found =
      std::sscanf(line.c_str(), "%*d: FLOCK %*s WRITE %d %x:%x:%lu", &process, &major_number, &minor_number, &inode);
  constexpr int kFields = 4;
  if (found != kFields || process <= 0) return std::nullopt;
  return WritingProcess{{makedev(major_number, minor_number), inode}, process};
}

}  // namespace

std::optional<FileKey> KeyOf(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileKey(status.st_dev, status.st_ino);
}

std::vector<WritingProcess> FindWritingProcesses(const std::set<FileKey>& files, const std::string& processes) {
  std::vector<WritingProcess> found;
  for (const std::string& name : NamesIn(processes)) {
    int id = 0;
    const auto [number_end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error == std::errc() && *number_end == '\0') AddFilesOf(PathIn(processes, name), id, files, &found);
  }
  return found;
}

std::vector<WritingProcess> FindLockingProcesses(const std::set<FileKey>& files, const std::string& locks) {
  std::vector<WritingProcess> found;
  std::istringstream lines(file::TextOf(locks));
  for (std::string line; std::getline(lines, line);) {
    const std::optional<WritingProcess> lock = LockIn(line);
    if (lock.has_value() && files.contains(lock->file)) found.push_back(*lock);
  }
  return found;
}

}  // namespace qx::report
