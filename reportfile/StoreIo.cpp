#include "reportfile/StoreIo.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "base/OwnedLinks.h"
#include "process/Process.h"
#include "provider/ServerControlPaths.h"
#include "reportfile/StoreFormat.h"

namespace qx::report {

namespace {

constexpr mode_t kStoreFileMode = 0644;
constexpr int kOpenTries = 3;

int OpenFlags(OpenMode mode) {
  switch (mode) {
    case OpenMode::kRead:
      return O_RDONLY;
    case OpenMode::kUpdate:
      return O_RDWR;
    case OpenMode::kCreate:
      return O_RDWR | O_CREAT;
    case OpenMode::kCreateToRead:
      return O_RDONLY | O_CREAT;
  }
  return O_RDONLY;
}

mode_t ModeOfNewFile(OpenMode mode) { return (OpenFlags(mode) & O_CREAT) != 0 ? kStoreFileMode : 0; }

// `open` fails with these errors for directories, sockets and devices without a driver.
bool MeansNotARegularFile(int error) { return error == EISDIR || error == ENXIO || error == ENODEV; }

bool IsTransient(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

file::Descriptor WithStoreError(file::Descriptor file, int error) {
  errno = !file.IsOpen() && MeansNotARegularFile(error) ? EINVAL : error;
  return file;
}

// The report directory, if the registry names it: links above that directory are trusted. Empty for the default, which
// is "Reports" in the working directory.
std::string NamedReportDirectory() {
  std::string directory;
  std::string working_directory;
  (void)CServerControlPaths::GetServerControlReportPath(directory);
  (void)CProcess::GetCurrentDir(working_directory);
  return directory == working_directory + "/Reports" ? std::string() : directory;
}

// "/srv/reports/a/r1.ind", "/srv/reports" => "a/r1.ind"
// "/srv/reports2/r1.ind", "/srv/reports"  => ""
std::string PathBelow(const std::string& path, const std::string& directory) {
  if (directory.empty() || !path.starts_with(directory)) return {};
  const std::size_t rest = path.find_first_not_of('/', directory.size());
  const bool is_below = directory.back() == '/' || (rest != std::string::npos && rest > directory.size());
  return is_below && rest != std::string::npos ? path.substr(rest) : std::string();
}

// Opens the path again, beginning at the report directory. For a path below it, links above it are not checked: the
// link that was not trusted may be one of these.
file::Descriptor OpenBelowReportDirectory(const std::string& path, OpenMode mode, file::TrustedLinks trusted) {
  const std::string directory_path = NamedReportDirectory();
  const std::string rest = PathBelow(path, directory_path);
  if (rest.empty()) {
    errno = ELOOP;
    return {};
  }
  const file::Descriptor directory = file::Open(directory_path.c_str(), O_PATH | O_DIRECTORY);
  if (!directory.IsOpen()) return {};
  return file::OpenThroughOwnedLinks(rest.c_str(), OpenFlags(mode), ModeOfNewFile(mode), trusted, directory.Number());
}

file::Descriptor TryToOpen(const std::string& path, OpenMode mode) {
  const auto trusted = mode == OpenMode::kRead ? file::TrustedLinks::kToRead : file::TrustedLinks::kToWrite;
  file::Descriptor file = file::OpenThroughOwnedLinks(path.c_str(), OpenFlags(mode), ModeOfNewFile(mode), trusted);
  if (file.IsOpen() || errno != ELOOP) return file;
  return OpenBelowReportDirectory(path, mode, trusted);
}

// Makes a stream that owns the descriptor. If memory runs out: null with errno set, and `descriptor` still owns it.
std::FILE* StreamOf(file::Descriptor& descriptor, const char* mode) {
  if (!descriptor.IsOpen()) return nullptr;
  std::FILE* const file = fdopen(descriptor.Number(), mode);
  if (file != nullptr) (void)descriptor.Release();
  return file;
}

// A file of a store that is opened for writing.
struct StoreFileToWrite {
  file::Descriptor file;
  int error;

  explicit StoreFileToWrite(const std::string& path) : file(OpenStoreFile(path, OpenMode::kUpdate)) {
    error = file.IsOpen() ? 0 : errno;
  }
  [[nodiscard]] bool IsMissing() const { return error == ENOENT; }
  // False with errno: the file exists and cannot be opened, or it cannot be created.
  [[nodiscard]] bool CreateIfMissing(const std::string& path) {
    if (IsMissing()) file = OpenStoreFile(path, OpenMode::kCreate);
    return file.IsOpen();
  }
  // False with errno if the file exists and cannot be used.
  [[nodiscard]] bool IsUsableOrMissing() const {
    if (error != 0 && !IsMissing()) errno = error;
    return error == 0 || IsMissing();
  }
};

bool EmptyFile(std::FILE* file) {
  if (file::Truncate(fileno(file), 0) != 0) return false;
  (void)fchmod(fileno(file), kStoreFileMode);  // a file of another owner keeps its mode
  return true;
}

void CloseKeepingErrno(std::FILE* file) {
  const int error = errno;
  if (file != nullptr) (void)std::fclose(file);  // nothing was written through it
  errno = error;
}

StoreStreams CloseBoth(const StoreStreams& streams) {
  CloseKeepingErrno(streams.data);
  CloseKeepingErrno(streams.index);
  return {};
}

}  // namespace

file::Descriptor OpenRegularFile(const std::string& path, OpenMode mode) {
  file::Descriptor file = file::OpenRegular(path.c_str(), OpenFlags(mode), ModeOfNewFile(mode));
  const int error = errno;
  return WithStoreError(std::move(file), error);
}

file::Descriptor OpenStoreFile(const std::string& path, OpenMode mode) {
  for (int tries = 1;; ++tries) {
    file::Descriptor file = TryToOpen(path, mode);
    const int error = errno;
    if (file.IsOpen() || !IsTransient(error) || tries == kOpenTries) return WithStoreError(std::move(file), error);
  }
}

StoreStreams OpenToRead(const std::string& base_path) {
  const std::string index_path = IndexFileName(base_path);
  const std::string data_path = DataFileName(base_path);
  StoreStreams streams;
  file::Descriptor index = OpenStoreFile(index_path, OpenMode::kRead);
  const int index_error = errno;
  file::Descriptor data = OpenStoreFile(data_path, OpenMode::kRead);
  const int data_error = errno;
  errno = index.IsOpen() ? data_error : index_error;
  if (index.IsOpen()) streams.index = StreamOf(index, "rb");
  if (data.IsOpen()) streams.data = StreamOf(data, "rb");
  return streams;
}

StoreStreams OpenToWrite(const std::string& base_path) {
  const std::string index_path = IndexFileName(base_path);
  const std::string data_path = DataFileName(base_path);
  StoreFileToWrite index(index_path);
  StoreFileToWrite data(data_path);
  const bool is_new = index.IsMissing() || data.IsMissing();
  if (!index.IsUsableOrMissing() || !data.IsUsableOrMissing()) return {};
  if (!index.CreateIfMissing(index_path) || !data.CreateIfMissing(data_path)) return {};

  StoreStreams streams{.data = nullptr, .index = StreamOf(index.file, "r+b"), .is_new = is_new};
  if (streams.index != nullptr) streams.data = StreamOf(data.file, "r+b");
  if (streams.data == nullptr) return CloseBoth(streams);
  (void)file::TryLock(fileno(streams.index));  // the result is ignored: some writers do not take the lock
  // Half a store is of no use: records cannot be found without the index, and an index without the data file leads to
  // no text.
  if (is_new && (!EmptyFile(streams.index) || !EmptyFile(streams.data))) return CloseBoth(streams);
  return streams;
}

bool LacksHeader(std::FILE* index_file, std::int64_t& size) {
  struct stat status;
  if (file::StatusOf(fileno(index_file), status) != 0) return false;
  size = status.st_size;
  return size < SlotOffset(0);
}

}  // namespace qx::report
