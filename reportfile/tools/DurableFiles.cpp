#include "reportfile/tools/DurableFiles.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>
#include <new>
#include <vector>

#include "base/tools/FilePlace.h"
#include "reportfile/DirectoryCursor.h"
#include "reportfile/StoreIo.h"
#include "reportfile/tools/ByteSource.h"

namespace qx::report {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
constexpr int kNameTriesMax = 100;
constexpr int kLinksMax = 40;  // as many as the kernel follows

// Opens the directory that contains `path`. ELOOP for a symbolic link of another user, which would choose where root
// makes files.
int OpenAbove(const std::string& path, file::Descriptor& above) {
  FilePlace place;
  const ReplaceResult found = FindPlace(path, LinkRule::kTrusted, place);
  above = std::move(place.directory);
  switch (found.state) {
    case ReplaceState::kDone:
      return 0;
    case ReplaceState::kForeignLink:
      return ELOOP;
    case ReplaceState::kFailed:
      return found.error;
    default:
      return ENOENT;
  }
}

// A directory on the way down: its name in the one above it, and the entries that are still to be removed.
struct Level {
  std::string name;
  std::vector<std::string> names = {};
};

// The first error of several steps.
class FirstError {
 public:
  // True if the step succeeded.
  bool Note(int error) {
    if (error_ == 0) error_ = error;
    return error == 0;
  }
  [[nodiscard]] int Get() const { return error_; }

 private:
  int error_ = 0;
};

// Throws std::bad_alloc.
int RemoveBelow(file::Descriptor top) {
  DirectoryCursor cursor;
  if (const int error = cursor.Begin(std::move(top)); error != 0) return error;
  FirstError first;
  std::vector<Level> levels(1);
  (void)first.Note(file::ListNames(cursor.Number(), levels.back().names));
  while (levels.size() > 1 || !levels.back().names.empty()) {
    if (levels.back().names.empty()) {
      const std::string name = std::move(levels.back().name);
      levels.pop_back();
      if (!first.Note(cursor.Leave())) return first.Get();
      (void)first.Note(file::Remove(name.c_str(), AT_REMOVEDIR, cursor.Number()));
      continue;
    }
    std::string name = std::move(levels.back().names.back());
    levels.back().names.pop_back();
    const int error = file::Remove(name.c_str(), 0, cursor.Number());
    if (error != EISDIR) {
      (void)first.Note(error);
    } else if (first.Note(cursor.Enter(name))) {
      levels.push_back({.name = std::move(name)});
      (void)first.Note(file::ListNames(cursor.Number(), levels.back().names));
    }
  }
  return first.Get();
}

}  // namespace

file::Descriptor OpenForReading(const std::string& name, int directory) {
  if (directory == AT_FDCWD) return OpenStoreFile(name, OpenMode::kRead);
  return file::OpenRegular(name.c_str(), O_RDONLY | O_NOFOLLOW, 0, directory);
}

file::Descriptor OpenNamedDirectory(const std::string& path) {
  std::string rest = path;  // from `above`
  file::Descriptor above = file::Open(".", O_PATH | O_DIRECTORY);
  for (int links = 0; above.IsOpen() && links <= kLinksMax; ++links) {
    const std::string name = file::NameOf(rest);
    if (name.empty()) return file::OpenDirectory(rest.c_str(), 0, above.Number());
    above = file::Open(file::DirectoryOf(rest).c_str(), O_PATH | O_DIRECTORY, 0, above.Number());
    if (!above.IsOpen()) return {};
    const file::Descriptor entry = file::Open(name.c_str(), O_PATH | O_NOFOLLOW, 0, above.Number());
    struct stat status;
    if (!entry.IsOpen() || file::StatusOf(entry.Number(), status) != 0) return {};
    if (!S_ISLNK(status.st_mode)) return file::OpenDirectory(".", 0, entry.Number());
    if (status.st_uid != 0 && status.st_uid != geteuid()) break;
    std::array<char, PATH_MAX> target;
    const file::Progress read = file::ReadLink(entry.Number(), target.data(), target.size());
    if (read.Failed()) return {};
    rest.assign(target.data(), read.bytes);
  }
  if (above.IsOpen()) errno = ELOOP;
  return {};
}

int SyncName(const std::string& name, int directory) {
  const file::Descriptor file = file::Open(name.c_str(), O_RDONLY, 0, directory);
  return file.IsOpen() ? file::Sync(file.Number()) : errno;
}

// A removal that fails for lack of memory is tried once more from the top.
int RemoveContents(int directory) {
  int error = ENOMEM;
  for (int tries = 0; error == ENOMEM && tries < 2; ++tries) {
    try {
      file::Descriptor top = file::OpenDirectory(".", 0, directory);
      error = top.IsOpen() ? RemoveBelow(std::move(top)) : errno;
    } catch (const std::bad_alloc&) {
      error = ENOMEM;
    }
  }
  return error;
}

std::string WithRandomEnd(const std::string& prefix) {
  constexpr std::string_view kCharacters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::array<unsigned char, 6> random = {};
  (void)!getrandom(random.data(), random.size(), GRND_NONBLOCK);  // whoever uses the name creates it exclusively
  std::string name = prefix;
  for (const unsigned char byte : random) name += kCharacters[byte % kCharacters.size()];
  return name;
}

std::string DirectoriesBelow::Above(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

int DirectoriesBelow::At(const std::string& path) {
  if (path.empty()) return top_.Number();
  if (last_.IsOpen() && path == last_path_) return last_.Number();
  last_ = file::Descriptor();
  file::Descriptor open;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string name = path.substr(begin, end - begin);
    open = file::OpenDirectory(name.c_str(), O_NOFOLLOW, open.IsOpen() ? open.Number() : top_.Number());
    if (!open.IsOpen()) return -1;
    begin = end + 1;
  }
  last_path_ = path;
  last_ = std::move(open);
  return last_.Number();
}

NewFile::NewFile(std::string path, int directory)
    : path_(std::move(path)),
      directory_(directory),
      file_(file::Open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR, directory)),
      error_(file_.IsOpen() ? 0 : errno),
      is_made_(file_.IsOpen()) {}

NewFile::~NewFile() {
  if (is_made_ && !(is_finished_ && error_ == 0)) (void)file::Remove(path_.c_str(), 0, directory_);
}

// The size is read before the runs of data. So bytes that are appended between the two reads are copied, and not
// treated as a hole.
void NewFile::CopyFrom(ByteSource& source) {
  const auto block = std::make_unique_for_overwrite<char[]>(kBlockBytes);
  Shorten(0);
  for (std::int64_t done = 0; error_ == 0;) {
    const std::int64_t size = source.Size();
    const DataRun run = source.DataFrom(done);
    if (run.IsEmpty()) {
      if (size > done) error_ = file::Truncate(file_.Number(), size);
      return;
    }
    const std::int64_t end = CopyRun(source, run.begin, run.end, block.get());
    if (end == run.begin) return;  // the source ends here
    done = end;
  }
}

// Returns the end of the copied bytes.
std::int64_t NewFile::CopyRun(ByteSource& source, std::int64_t begin, std::int64_t end, char* block) {
  std::int64_t at = begin;
  while (at < end && error_ == 0) {
    const auto size = static_cast<std::size_t>(std::min<std::int64_t>(end - at, kBlockBytes));
    const std::size_t count = source.ReadAt(at, block, size);
    if (count == 0) break;
    WriteAt(at, {block, count});
    at += static_cast<std::int64_t>(count);
  }
  return at;
}

void NewFile::WriteAt(std::int64_t offset, std::string_view bytes) {
  if (error_ == 0) error_ = file::WriteAt(file_.Number(), offset, bytes).error;
}

std::size_t NewFile::ReadAt(std::int64_t offset, void* to, std::size_t size) const {
  return error_ == 0 ? file::ReadAt(file_.Number(), offset, to, size).bytes : 0;
}

void NewFile::Shorten(std::int64_t size) {
  struct stat status = {};
  if (error_ == 0) error_ = file::StatusOf(file_.Number(), status);
  if (error_ == 0 && status.st_size > size) error_ = file::Truncate(file_.Number(), size);
}

int NewFile::Finish(const struct stat& status) {
  TakeOver(status);
  if (error_ == 0) error_ = file::Sync(file_.Number());
  if (error_ != 0) return error_;
  is_finished_ = true;
  error_ = file_.Close();  // a full disk may be reported only here
  return error_;
}

// Owner first, because a change of owner may clear permission bits.
void NewFile::TakeOver(const struct stat& status) {
  if (error_ != 0) return;
  const int number = file_.Number();
  if (fchown(number, status.st_uid, status.st_gid) != 0) {
    (void)!fchown(number, static_cast<uid_t>(-1), status.st_gid);  // an ordinary user sets what is permitted
  }
  const timespec times[2] = {status.st_atim, status.st_mtim};
  if (fchmod(number, status.st_mode & 0777) != 0) error_ = errno;
  if (error_ == 0 && futimens(number, times) != 0) error_ = errno;
}

CopiedFile CopyRegularFile(const std::string& name, int directory, const std::string& new_name, int new_directory,
                           const struct stat* like) {
  CopiedFile copy;
  FileBytes source(OpenForReading(name, directory));
  copy.error = source.IsOpen() ? file::StatusOf(source.Number(), copy.status) : errno;
  copy.is_source_error = copy.error != 0;
  if (copy.is_source_error) return copy;
  NewFile target(new_name, new_directory);
  target.CopyFrom(source);
  copy.is_source_error = source.Error() != 0;
  copy.error = copy.is_source_error ? source.Error() : target.Finish(like != nullptr ? *like : copy.status);
  return copy;
}

PrivateDirectory::PrivateDirectory(const std::string& prefix) : path_(WithRandomEnd(prefix)) {
  error_ = OpenAbove(prefix, above_);
  if (error_ == 0) error_ = EEXIST;
  for (int tries = 0; error_ == EEXIST && tries < kNameTriesMax; ++tries) {
    if (tries > 0) path_ = WithRandomEnd(prefix);
    name_ = file::NameOf(path_);
    error_ = file::MakeDirectory(name_.c_str(), S_IRWXU, above_.Number());
  }
  if (error_ != 0) return;
  directory_ = file::OpenDirectory(name_.c_str(), O_NOFOLLOW, above_.Number());
  struct stat status = {};
  error_ = directory_.IsOpen() ? file::StatusOf(directory_.Number(), status) : errno;
  if (error_ == 0 && status.st_uid != geteuid()) error_ = EPERM;  // another directory has its name
  if (error_ != 0) (void)file::Remove(name_.c_str(), AT_REMOVEDIR, above_.Number());
}

// What cannot be removed stays under the temporary name.
PrivateDirectory::~PrivateDirectory() {
  if (error_ != 0 || !directory_.IsOpen()) return;
  (void)RemoveContents(directory_.Number());
  (void)file::Remove(name_.c_str(), AT_REMOVEDIR, above_.Number());
}

int PrivateDirectory::RenameTo(const std::string& name) {
  const int error = file::Rename(above_.Number(), name_.c_str(), above_.Number(), name.c_str());
  if (error == 0) directory_ = file::Descriptor();
  return error;
}

}  // namespace qx::report
