#include "reportfile/FileCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "base/File.h"

namespace qx::report {

namespace {

constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kModeOfUnknown = 0600;
constexpr std::size_t kRangeBytes = std::size_t{1} << 22;
constexpr std::size_t kBlockBytes = std::size_t{1} << 14;

// Copies the rest in blocks. The bytes before a failed read are written.
int CopyBlocks(int from, int to) {
  char block[kBlockBytes];
  for (;;) {
    const file::Progress read = file::Read(from, block, sizeof block);
    const file::Progress written = file::Write(to, {block, read.bytes});
    if (written.Failed()) return written.error;
    if (read.Failed() || read.bytes < sizeof block) return read.error;
  }
}

// Lets the system copy. If it cannot, or finds nothing in a file that only seems empty (such as a file of /proc), the
// rest is copied in blocks. A real error occurs then again, and is reported.
int CopyContents(int from, int to) {
  bool has_copied = false;
  for (;;) {
    const file::Progress copied = file::CopySome(from, to, kRangeBytes);
    const bool is_at_end = copied.bytes == 0 && !copied.Failed();
    if (is_at_end && has_copied) return 0;
    if (is_at_end || copied.Failed()) return CopyBlocks(from, to);
    has_copied = true;
  }
}

int CopyAndClose(int from, file::Descriptor to) {
  const int error = CopyContents(from, to.Number());
  const int close_error = to.Close();
  return error != 0 ? error : close_error;
}

// 0 for a regular file; only such a file may be overwritten. The error number for anything else.
int KindError(const struct stat& status) {
  if (S_ISREG(status.st_mode)) return 0;
  return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

// An open source. Its kind comes from its descriptor, or, if that `stat` fails, from its name.
struct Source {
  int descriptor;
  FileKind kind;
  bool has_status = false;  // by its descriptor
  struct stat status = {};
};

// The target's kind is checked before the target is opened: opening a device can have an effect on the device, and the
// reader of a FIFO would notice.
int OverwriteFile(const Source& source, const char* target) {
  struct stat status;
  if (const int error = file::StatusOf(target, status); error != 0) return error;
  if (const int error = KindError(status); error != 0) return error;
  if (IdOf(status) == source.kind.id) return 0;

  file::Descriptor to = file::Open(target, O_WRONLY);
  if (!to.IsOpen()) return errno;
  if (const int error = file::StatusOf(to.Number(), status); error != 0) return error;
  if (const int error = KindError(status); error != 0) return error;
  if (IdOf(status) == source.kind.id) return 0;  // the target is the source: emptying it would lose the contents
  if (const int error = file::Truncate(to.Number(), 0); error != 0) return error;
  return CopyAndClose(source.descriptor, std::move(to));
}

// Returns EEXIST if something exists at `target` already.
int CreateFile(const Source& source, const char* target) {
  const mode_t mode = source.has_status ? source.status.st_mode & kPermissionBits : kModeOfUnknown;
  file::Descriptor to = file::Open(target, O_WRONLY | O_CREAT | O_EXCL | O_TRUNC, mode);
  if (!to.IsOpen()) return errno;
  if (source.has_status) {
    // An ordinary user may not change the owner; the copy then belongs to this user.
    [[maybe_unused]] const int ignored = fchown(to.Number(), source.status.st_uid, source.status.st_gid);
  }
  return CopyAndClose(source.descriptor, std::move(to));
}

}  // namespace

int CopyFile(const char* source, const FileKind& kind, const char* target, bool overwrite) {
  if (!kind.IsRegular()) return EINVAL;
  const file::Descriptor from = file::Open(source, O_RDONLY);
  if (!from.IsOpen()) return errno;

  Source opened = {.descriptor = from.Number(), .kind = kind};
  if (file::StatusOf(opened.descriptor, opened.status) == 0) {
    opened.has_status = true;
    opened.kind = KindOf(opened.status);
    if (!opened.kind.IsRegular()) return EINVAL;
  }
  const int error = CreateFile(opened, target);
  return error == EEXIST && overwrite ? OverwriteFile(opened, target) : error;
}

}  // namespace qx::report
