#include "tests/qxrelay/LosingDisk.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include "base/FileCalls.h"

namespace qx::test {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSectorBytes = 512;

// A change of a file: these bytes were written at `offset`; without bytes, the file was cut at `offset`.
struct DataChange {
  std::uint64_t order = 0;
  std::size_t offset = 0;
  std::string bytes;
};

struct DiskFile {
  std::string synced;
  std::vector<DataChange> changes;
};
using FilePointer = std::shared_ptr<DiskFile>;

// A change of a name: it leads to a file or to a directory, or it was removed.
struct NameChange {
  std::uint64_t order = 0;
  std::string path;
  FilePointer file;
  bool is_directory = false;
};

using Names = std::map<std::string, FilePointer>;  // a directory has no file

struct Disk {
  std::string directory;
  Names synced;
  std::vector<NameChange> changes;
  std::map<std::pair<dev_t, ino_t>, FilePointer> files;  // as they are now
  std::uint64_t order = 0;
  int changes_left = INT_MAX;
};

Disk* the_disk = nullptr;

// Counts a change. False if the power has failed.
bool Change() {
  if (the_disk == nullptr) return true;
  if (the_disk->changes_left == 0) return false;
  --the_disk->changes_left;
  return true;
}

int NoPower() {
  errno = EIO;
  return -1;
}

std::string PathOfDescriptor(int descriptor) {
  char path[PATH_MAX] = {};
  const ssize_t size = ::readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), path, sizeof path - 1);
  return size > 0 ? std::string(path, static_cast<std::size_t>(size)) : "";
}

// The whole path of a name below the directory of the disk; empty for any other.
std::string PathOf(int directory, const char* name) {
  if (the_disk == nullptr) return "";
  std::string path = name;
  if (*name != '/')
    path = (directory == AT_FDCWD ? fs::current_path().string() : PathOfDescriptor(directory)) + "/" + path;
  path = fs::path(path).lexically_normal().string();
  return path.starts_with(the_disk->directory + "/") ? path : "";
}

FilePointer FileOf(const struct stat& status) {
  const auto found = the_disk->files.find({status.st_dev, status.st_ino});
  return found != the_disk->files.end() ? found->second : nullptr;
}

FilePointer FileOf(int descriptor) {
  struct stat status = {};
  if (the_disk == nullptr || ::fstat(descriptor, &status) != 0) return nullptr;
  return FileOf(status);
}

void Record(int descriptor, std::size_t offset, std::string bytes) {
  if (const FilePointer file = FileOf(descriptor))
    file->changes.push_back({++the_disk->order, offset, std::move(bytes)});
}

void RecordName(const std::string& path, FilePointer file, bool is_directory = false) {
  if (!path.empty()) the_disk->changes.push_back({++the_disk->order, path, std::move(file), is_directory});
}

void Apply(const NameChange& change, Names& names) {
  if (change.file == nullptr && !change.is_directory) {
    names.erase(change.path);
  } else {
    names[change.path] = change.file;
  }
}

void Apply(const DataChange& change, std::string& bytes) {
  if (change.bytes.empty()) return bytes.resize(change.offset);
  bytes.resize(std::max(bytes.size(), change.offset + change.bytes.size()));
  bytes.replace(change.offset, change.bytes.size(), change.bytes);
}

void SyncFile(DiskFile& file) {
  for (const DataChange& change : file.changes) Apply(change, file.synced);
  file.changes.clear();
}

void SyncNames(const std::string& directory) {
  const auto is_synced = [&](const NameChange& change) {
    return directory.empty() || fs::path(change.path).parent_path() == directory;
  };
  for (const NameChange& change : the_disk->changes) {
    if (is_synced(change)) Apply(change, the_disk->synced);
  }
  std::erase_if(the_disk->changes, is_synced);
}

// The real call is left out: it would wait for the disk of the machine, and no test depends on it.
int SyncDescriptor(int descriptor) {
  if (!Change()) return NoPower();
  struct stat status = {};
  if (the_disk == nullptr || ::fstat(descriptor, &status) != 0) return 0;
  if (S_ISDIR(status.st_mode)) SyncNames(PathOfDescriptor(descriptor));
  if (const FilePointer file = FileOf(status)) SyncFile(*file);
  return 0;
}

// Takes the present state of the directory as the state of the disk.
void Scan() {
  the_disk->synced.clear();
  the_disk->changes.clear();
  the_disk->files.clear();
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(the_disk->directory)) {
    FilePointer file;
    if (!entry.is_directory()) {
      struct stat status = {};
      if (::stat(entry.path().c_str(), &status) != 0) continue;
      std::ifstream stream(entry.path(), std::ios::binary);
      file = std::make_shared<DiskFile>();
      file->synced.assign(std::istreambuf_iterator<char>(stream), {});
      the_disk->files[{status.st_dev, status.st_ino}] = file;
    }
    the_disk->synced[entry.path().string()] = file;
  }
}

// The contents of a file of which each sector, and the size, has lost all changes after a random one.
std::string LoseSectors(const DiskFile& file, std::mt19937_64& random) {
  std::string whole = file.synced;
  std::string size = file.synced;
  std::size_t longest = whole.size();
  const std::size_t size_changes = random() % (file.changes.size() + 1);
  for (std::size_t i = 0; i < file.changes.size(); ++i) {
    Apply(file.changes[i], whole);
    longest = std::max(longest, whole.size());
    if (i < size_changes) Apply(file.changes[i], size);
  }
  std::string bytes(size.size(), '\0');
  for (std::size_t begin = 0; begin < bytes.size(); begin += kSectorBytes) {
    std::string part = file.synced;
    const std::size_t kept = random() % (file.changes.size() + 1);
    for (std::size_t i = 0; i < kept; ++i) Apply(file.changes[i], part);
    part.resize(std::max(part.size(), bytes.size()));
    const std::size_t count = std::min(kSectorBytes, bytes.size() - begin);
    bytes.replace(begin, count, part, begin, count);
  }
  return bytes;
}

std::string ContentsOf(const DiskFile& file, Loss loss, std::uint64_t last, std::mt19937_64& random) {
  if (loss == Loss::kOfSectors) return LoseSectors(file, random);
  std::string bytes = file.synced;
  for (const DataChange& change : file.changes) {
    if (change.order <= last) Apply(change, bytes);
  }
  return bytes;
}

// The number up to which the changes cannot be lost any more.
std::uint64_t SyncedOrder() {
  std::uint64_t first = the_disk->order + 1;
  for (const NameChange& change : the_disk->changes) first = std::min(first, change.order);
  for (const auto& [key, file] : the_disk->files) {
    if (!file->changes.empty()) first = std::min(first, file->changes.front().order);
  }
  return first - 1;
}

std::string JoinedBytes(std::span<const iovec> parts, std::size_t size) {
  std::string bytes;
  for (const iovec& part : parts) bytes.append(static_cast<const char*>(part.iov_base), part.iov_len);
  bytes.resize(size);
  return bytes;
}

// Opens with `open`, and remembers a file that is made or emptied.
template <typename Open>
int OpenWith(int directory, const char* name, int flags, Open open) {
  const std::string path = PathOf(directory, name);
  if (path.empty() || (flags & (O_CREAT | O_TRUNC)) == 0) return open();
  struct stat status = {};
  const bool was_there = ::fstatat(directory, name, &status, 0) == 0;
  const bool changes = !was_there || (flags & O_TRUNC) != 0;
  if (changes && !Change()) return NoPower();
  const int descriptor = open();
  if (descriptor < 0 || !changes || ::fstat(descriptor, &status) != 0) return descriptor;
  if (!was_there) {
    const auto file = std::make_shared<DiskFile>();
    the_disk->files[{status.st_dev, status.st_ino}] = file;
    RecordName(path, file);
  }
  if ((flags & O_TRUNC) != 0) Record(descriptor, 0, "");
  return descriptor;
}

}  // namespace

LosingDisk::LosingDisk(const std::string& directory) {
  static Disk disk;
  disk = {};
  disk.directory = fs::canonical(directory).string();
  the_disk = &disk;
  Scan();
}

LosingDisk::~LosingDisk() { the_disk = nullptr; }

void LosingDisk::FailAfter(int changes) { the_disk->changes_left = changes; }

bool LosingDisk::HasFailed() const { return the_disk->changes_left == 0; }

void LosingDisk::Restart(Loss loss, std::mt19937_64& random) {
  Disk& disk = *the_disk;
  const std::uint64_t synced = SyncedOrder();
  const auto any_last = [&] {
    return loss == Loss::kEverything ? synced : synced + random() % (disk.order - synced + 1);
  };
  const std::uint64_t last = loss == Loss::kOfEachName ? disk.order : any_last();
  std::map<std::string, std::uint64_t> last_of_report;
  the_disk = nullptr;  // the calls below change the directory itself
  Names names = disk.synced;
  for (const NameChange& change : disk.changes) {
    if (change.order <= last) Apply(change, names);
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(disk.directory)) fs::remove_all(entry.path());
  for (const auto& [path, file] : names) {  // a directory comes before its entries
    if (!fs::exists(fs::path(path).parent_path())) continue;
    if (file == nullptr) {
      fs::create_directory(path);
    } else {
      std::string report = path;
      if (path.ends_with(".ind") || path.ends_with(".dat")) report.resize(path.size() - 4);
      const bool is_kept = random() % 2 == 0;
      const std::uint64_t of_file = loss == Loss::kOfEachName
                                        ? last_of_report.emplace(report, is_kept ? disk.order : synced).first->second
                                        : last;
      std::ofstream(path, std::ios::binary) << ContentsOf(*file, loss, of_file, random);
    }
  }
  the_disk = &disk;
  disk.changes_left = INT_MAX;
  Scan();
}

}  // namespace qx::test

namespace qx::calls {

using test::Change;
using test::NoPower;
using test::PathOf;
using test::Record;
using test::RecordName;

int OpenAt(int directory, const char* path, int flags, mode_t mode) {
  return test::OpenWith(directory, path, flags, [&] { return ::openat(directory, path, flags, mode); });
}

int OpenWithoutLinksAt(int directory, const char* path, int flags, mode_t mode) {
  open_how how = {};
  how.flags = static_cast<unsigned>(flags);
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_NO_SYMLINKS;
  return test::OpenWith(directory, path, flags,
                        [&] { return static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how)); });
}

ssize_t ReadLinkAt(int directory, const char* path, char* to, std::size_t size) {
  return ::readlinkat(directory, path, to, size);
}
int Close(int descriptor) { return ::close(descriptor); }

ssize_t Read(int descriptor, void* to, std::size_t size) { return ::read(descriptor, to, size); }
ssize_t ReadAt(int descriptor, void* to, std::size_t size, off_t offset) {
  return ::pread(descriptor, to, size, offset);
}

ssize_t Write(int descriptor, const void* from, std::size_t size) {
  if (!Change()) return NoPower();
  const off_t offset = ::lseek(descriptor, 0, SEEK_CUR);
  const ssize_t written = ::write(descriptor, from, size);
  if (written > 0 && offset >= 0) {
    Record(descriptor, static_cast<std::size_t>(offset),
           std::string(static_cast<const char*>(from), static_cast<std::size_t>(written)));
  }
  return written;
}

ssize_t WriteAt(int descriptor, const void* from, std::size_t size, off_t offset) {
  const iovec part = {const_cast<void*>(from), size};
  return WriteVectorAt(descriptor, &part, 1, offset);
}

ssize_t WriteVectorAt(int descriptor, const iovec* parts, int count, off_t offset) {
  if (!Change()) return NoPower();
  const ssize_t written = ::pwritev(descriptor, parts, count, offset);
  if (written > 0) {
    Record(descriptor, static_cast<std::size_t>(offset),
           test::JoinedBytes({parts, static_cast<std::size_t>(count)}, static_cast<std::size_t>(written)));
  }
  return written;
}

// Copies by reading and writing.
ssize_t CopyRange(int from, int to, std::size_t size) {
  std::string bytes(std::min<std::size_t>(size, 0x10000), '\0');
  const ssize_t taken = ::read(from, bytes.data(), bytes.size());
  return taken > 0 ? Write(to, bytes.data(), static_cast<std::size_t>(taken)) : taken;
}

int Truncate(int descriptor, off_t size) {
  if (!Change()) return NoPower();
  const int result = ::ftruncate(descriptor, size);
  if (result == 0) Record(descriptor, static_cast<std::size_t>(size), "");
  return result;
}
int Status(int descriptor, struct stat* status) { return ::fstat(descriptor, status); }
int StatusAt(int directory, const char* path, struct stat* status, int flags) {
  return ::fstatat(directory, path, status, flags);
}

int Sync(int descriptor) { return test::SyncDescriptor(descriptor); }
int SyncData(int descriptor) { return test::SyncDescriptor(descriptor); }
int SyncFileSystem(int) {
  if (!Change()) return NoPower();
  if (test::the_disk == nullptr) return 0;
  for (const auto& [key, file] : test::the_disk->files) test::SyncFile(*file);
  test::SyncNames("");
  return 0;
}
void SyncAllFileSystems() { (void)SyncFileSystem(-1); }

int Rename(const char* from, const char* to) { return RenameAt(AT_FDCWD, from, AT_FDCWD, to, 0); }
int RenameAt(int from_directory, const char* from, int to_directory, const char* to, unsigned flags) {
  if (!Change()) return NoPower();
  const int result = ::renameat2(from_directory, from, to_directory, to, flags);
  const std::string to_path = PathOf(to_directory, to);
  struct stat status = {};
  if (result != 0 || to_path.empty() || ::stat(to_path.c_str(), &status) != 0) return result;
  RecordName(to_path, test::FileOf(status), S_ISDIR(status.st_mode));
  RecordName(PathOf(from_directory, from), nullptr);
  return result;
}
int Link(const char* from, const char* to) { return ::link(from, to); }
int MakeDirectoryAt(int directory, const char* path, mode_t mode) {
  if (!Change()) return NoPower();
  const int result = ::mkdirat(directory, path, mode);
  if (result == 0) RecordName(PathOf(directory, path), nullptr, true);
  return result;
}
ssize_t ReadEntries(int directory, void* to, std::size_t size) { return ::getdents64(directory, to, size); }
int UnlinkAt(int directory, const char* path, int flags) {
  if (!Change()) return NoPower();
  const int result = ::unlinkat(directory, path, flags);
  if (result == 0) RecordName(PathOf(directory, path), nullptr);
  return result;
}
int Lock(int descriptor, int operation) { return ::flock(descriptor, operation); }

}  // namespace qx::calls
