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
  }
  return O_RDONLY;
}

mode_t ModeOfNewFile(OpenMode mode) { return mode == OpenMode::kCreate ? kStoreFileMode : 0; }

// For directories, sockets and devices without a driver, `open` itself fails in this way.
bool MeansNotARegularFile(int error) { return error == EISDIR || error == ENXIO || error == ENODEV; }

bool IsTransient(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

file::Descriptor WithStoreError(file::Descriptor file, int error) {
  errno = !file.IsOpen() && MeansNotARegularFile(error) ? EINVAL : error;
  return file;
}

// The report directory if the registry names it: links above it are trusted. Empty for the default, "Reports" in the
// working directory.
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

// Opens the path again, beginning at the report directory. The link that is not trusted may be above that directory,
// where links are not checked.
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

// A stream that owns the descriptor. Null with errno set without memory; the descriptor stays then.
std::FILE* StreamOf(file::Descriptor& descriptor, const char* mode) {
  if (!descriptor.IsOpen()) return nullptr;
  std::FILE* const file = fdopen(descriptor.Number(), mode);
  if (file != nullptr) (void)descriptor.Release();
  return file;
}

// A file of a store that is opened to write.
struct StoreFileToWrite {
  file::Descriptor file;
  int error;

  explicit StoreFileToWrite(const std::string& path) : file(OpenStoreFile(path, OpenMode::kUpdate)) {
    error = file.IsOpen() ? 0 : errno;
  }
  [[nodiscard]] bool IsMissing() const { return error == ENOENT; }
  // False with errno: it exists and cannot be opened, or it cannot be created.
  [[nodiscard]] bool CreateIfMissing(const std::string& path) {
    if (IsMissing()) file = OpenStoreFile(path, OpenMode::kCreate);
    return file.IsOpen();
  }
  // False with errno if it is there and cannot be used.
  [[nodiscard]] bool IsUsableOrMissing() const {
    if (error != 0 && !IsMissing()) errno = error;
    return error == 0 || IsMissing();
  }
};

bool EmptyFile(std::FILE* file) {
  if (file::Truncate(fileno(file), 0) != 0) return false;
  (void)fchmod(fileno(file), kStoreFileMode);  // the file of another owner keeps its mode, but is empty
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
  (void)file::TryLock(fileno(streams.index));  // a writer that does not know of the lock may be at work: continue
  // Half a store is of no use: without its index the data cannot be found, without its data the index points nowhere.
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
