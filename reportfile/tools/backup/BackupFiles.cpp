#include "reportfile/tools/backup/BackupFiles.h"

#include <fcntl.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "reportfile/tools/backup/Checksums.h"
#include "reportfile/tools/backup/DatedBackups.h"

namespace qx::report {

namespace {

// 0 or the error number; a symbolic link is not followed.
int ReadText(const char* name, int directory, std::string& text) {
  const file::Descriptor file = OpenForReading(name, directory);
  return file.IsOpen() ? file::ReadWhole(file.Number(), text, kBackupTextBytesMax) : errno;
}

}  // namespace

BackupFiles BackupFiles::Open(const std::string& path) {
  BackupFiles files{DirectoriesBelow(OpenNamedDirectory(path))};
  files.error_ = files.tree_.IsOpen() ? 0 : errno;
  files.failed_ = path;
  if (files.error_ == 0) files.ReadDated(file::NameOf(path));
  return files;
}

BackupFiles BackupFiles::OpenIn(const std::string& name, int directory) {
  BackupFiles files{DirectoriesBelow(file::OpenDirectory(name.c_str(), O_NOFOLLOW, directory))};
  files.error_ = files.tree_.IsOpen() ? 0 : errno;
  files.failed_ = name;
  if (files.error_ == 0) files.ReadDated(name);
  return files;
}

// A directory without a list of checksums, or without a folder of reports, is a plain copy, unless it has the name of a
// dated backup.
void BackupFiles::ReadDated(const std::string& name) {
  const int top = tree_.Top();
  const int error = ReadChecksums(top);
  file::Descriptor folder = error != ENOENT ? OpenFolder(top) : file::Descriptor();
  is_dated_ = IsBackupName(name) || folder.IsOpen();
  if (!is_dated_) return checksums_.clear();
  failed_ = kChecksumFile;
  error_ = error == ENOENT || !folder.IsOpen() ? EBADMSG : error;
  if (error_ != 0) return;
  failed_ = kLeftOutFile;
  error_ = ReadLeftOut(top);
  tree_ = DirectoriesBelow(std::move(folder));
}

file::Descriptor BackupFiles::OpenFolder(int directory) {
  for (const char* const name : {kPlainFolder, kCompressedFolder}) {
    file::Descriptor folder = file::OpenDirectory(name, O_NOFOLLOW, directory);
    if (!folder.IsOpen()) continue;
    is_compressed_ = std::string_view(name) == kCompressedFolder;
    folder_ = name;
    return folder;
  }
  return {};
}

int BackupFiles::ReadChecksums(int directory) {
  std::string text;
  if (const int error = ReadText(kChecksumFile, directory, text); error != 0) return error;
  std::vector<Checksum> parsed;
  if (!ParseChecksumLines(text, &parsed)) return EBADMSG;
  for (Checksum& checksum : parsed) {
    // Paths are only compared with names in the directory; none is ever opened.
    const std::size_t slash = checksum.path.find('/');
    if (slash == std::string::npos) continue;
    checksums_[checksum.path.substr(slash + 1)] = std::move(checksum.hex);
  }
  return 0;
}

int BackupFiles::ReadLeftOut(int directory) {
  std::string text;
  const int error = ReadText(kLeftOutFile, directory, text);
  if (error != 0) return error == ENOENT ? 0 : error;
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t end = rest.find('\n');
    left_out_.emplace_back(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  return 0;
}

}  // namespace qx::report
