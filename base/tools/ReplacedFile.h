// Replaces a whole file: the new content is written into a new file next to the old one, which is then renamed to the
// old name in one step. The tools write every output, state and edit in this way.
//
//   registry                       the file
//   registry.edit                  the new content of an edit, locked, so that a second edit is refused
//   load.csv.k3XbQ9                the new content of an output
//   registry.20261121-101500.bak   the backup of the file that the edit replaced
//
// The new file gets at most the permission bits (mode & 0777) of the old one, never a set-user-id, set-group-id or
// sticky bit. All names are relative to the directory of the file, which is open (base/tools/FilePlace.h). A process
// that is killed leaves the old file or the new one, and perhaps the new content under its temporary name. The next
// edit uses a left "registry.edit" again.
//
// The module does not use any of this.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "base/File.h"
#include "base/tools/FilePlace.h"

namespace qx {

// A file as it was read.
struct FileImage {
  std::string bytes;
  struct stat status = {};
  bool exists = false;
};

// Larger files cannot be configuration: reading such a file fails with EFBIG.
inline constexpr std::size_t kFileImageBytesMax = std::size_t{64} << 20;

// Reads the regular file at `path`. `image` is unchanged on failure. [any thread]
[[nodiscard]] ReplaceResult ReadFileImage(const std::string& path, FileImage& image,
                                          const FileRules& rules = {.links = LinkRule::kAny, .accept_foreign = true});

// Replaces one file once.
//
// Threads: one thread.
// Owns: the file with the new content, and the backup. The destructor removes both unless the file was replaced.
// Failure: after any failure the file is unchanged, unless IsInPlace() shows that only the last sync failed. A
// "registry.edit" that cannot be locked is not removed, because it may belong to another process.
class ReplacedFile {
 public:
  struct Options {
    LinkRule links = LinkRule::kTrustedDirectories;
    bool may_be_missing = false;           // a missing file counts as an empty one
    bool read_only = false;                // only read the file: nothing is locked, and nothing can be written
    bool accept_foreign = true;            // replace a file of another user; the new file gets its owner
    bool refuse_shared_directory = false;  // kSharedDirectory if other users may write the directory
    bool is_edit = true;                   // lock "NAME.edit", and read the file; false: the old content is not needed
    mode_t new_mode = 0644;                // the mode of a new file if the old one is missing
  };

  // The options for an output of a tool.
  [[nodiscard]] static Options ForOutput(bool accept_foreign);

  ReplacedFile() = default;
  ~ReplacedFile();
  ReplacedFile(const ReplacedFile&) = delete;
  ReplacedFile& operator=(const ReplacedFile&) = delete;

  // Makes an empty file for the new content; an edit also reads the old file. With `read_only`, only the old file is
  // read. May be called once for each object. [owning thread]
  [[nodiscard]] ReplaceResult Begin(const std::string& path, Options options);

  // The file as Begin read it; without its bytes if this is not an edit. [owning thread]
  [[nodiscard]] const FileImage& Image() const { return image_; }
  // The new content, empty at first, open for reading and writing. [owning thread]
  [[nodiscard]] int CopyDescriptor() const { return copy_.Number(); }
  // The name of the new content, only for messages: a user who may write the directory can change what the name leads
  // to. [owning thread]
  [[nodiscard]] std::string CopyName() const { return place_.NextTo(copy_suffix_); }

  // Replaces what was written so far. [owning thread]
  [[nodiscard]] ReplaceResult WriteCopy(std::string_view bytes);
  // Appends to what WriteCopy and AppendToCopy have written. [owning thread]
  [[nodiscard]] ReplaceResult AppendToCopy(std::string_view bytes);

  // Gives the new content the owner and the permissions of the old file, syncs it, and renames it to the file's name.
  // Fails with kChanged if the name of the new content leads to another file; an edit also if the old file is no longer
  // the one that was read. `with_backup` keeps the old file with its owner, permissions and times. [owning thread]
  [[nodiscard]] ReplaceResult Commit(bool with_backup);

  [[nodiscard]] bool IsInPlace() const { return is_in_place_; }
  // Empty if there is no backup. [owning thread]
  [[nodiscard]] const std::string& BackupPath() const { return backup_path_; }
  // After Commit: the new file, still open, and locked if it was an edit. [owning thread]
  [[nodiscard]] file::Descriptor TakeDescriptor() { return std::move(copy_); }

 private:
  [[nodiscard]] ReplaceResult CheckTarget();
  [[nodiscard]] ReplaceResult CheckDirectory() const;
  [[nodiscard]] ReplaceResult LockCopy();
  [[nodiscard]] ReplaceResult CreateCopy();
  [[nodiscard]] ReplaceResult ReadImage();
  [[nodiscard]] int SetAttributes();
  [[nodiscard]] bool IsCopyNamed() const;
  [[nodiscard]] ReplaceResult CheckUnchanged() const;
  [[nodiscard]] ReplaceResult WriteBackup();
  [[nodiscard]] ReplaceResult RenameCopy();
  [[nodiscard]] std::string NameOf(const std::string& suffix) const { return place_.name + suffix; }

  Options options_;
  FilePlace place_;
  FileImage image_;
  file::Descriptor copy_;
  std::string copy_suffix_;
  std::int64_t copy_bytes_ = 0;
  std::string backup_suffix_;
  std::string backup_path_;
  bool is_in_place_ = false;
};

}  // namespace qx
