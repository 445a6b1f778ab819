// Finds out where a path leads, step by step through descriptors, so that no other user can redirect a tool that runs
// as root. By default a symbolic link is followed only if root or the process's user owns it.
//
//   out/load.csv           => the directory "out", open, and the name "load.csv" in it
//   l.csv -> out/load.csv  => the same, if root or the process's user owns the link; otherwise refused
//   /dev/stdout            => the process's own output: this link of the kernel cannot be changed by another user
//
// After the search every call names a file relative to the open directory. So it has no effect if a directory or a link
// of the path is exchanged later. The module does not use any of this.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "base/File.h"

namespace qx {

enum class ReplaceState {
  kDone,
  kNotFound,         // there is no such file
  kNotRegular,       // it is a directory, a device, ...
  kLink,             // it is a symbolic link
  kForeignLink,      // it is a symbolic link of another user
  kForeignOwner,     // it belongs to another user
  kSharedDirectory,  // users other than root and the process's own may write its directory
  kSeveralNames,     // it has a second name (hard link), which may belong to another user
  kBusy,             // another process holds its lock
  kChanged,          // it is no longer the file that was read
  kFailed,           // a call failed
};

struct ReplaceResult {
  ReplaceState state = ReplaceState::kDone;
  std::string file = {};  // the file or link that is the reason
  int error = 0;          // kFailed: the error number
  uid_t owner = 0;        // kForeignLink, kForeignOwner: the user

  [[nodiscard]] bool IsDone() const { return state == ReplaceState::kDone; }
};

// Which symbolic links a path may contain.
enum class LinkRule {
  kTrusted,             // those of root and of the process's user
  kTrustedDirectories,  // the same, but the file itself must not be a link
  kAny,
};

// Which files may be opened.
struct FileRules {
  LinkRule links = LinkRule::kTrusted;
  bool accept_foreign = false;  // accept files of any owner, and with several names; `links` is checked even so
  bool only_special = false;    // accept only pipes, terminals and devices: a regular file fails with kChanged
};

// A name in an open directory. A file of this name need not exist.
struct FilePlace {
  file::Descriptor directory;
  std::string name;
  std::string path;             // for messages: the path of the caller, or the path that the links at its end lead to
  bool is_kernel_link = false;  // the name is a link of /proc to an open file

  // The path of a name next to this one, for messages.
  //   "out/load.csv", ".edit" => "out/load.csv.edit"
  [[nodiscard]] std::string NextTo(const std::string& suffix) const { return path + suffix; }
};

// True for root and the process's effective user. [any thread]
[[nodiscard]] bool IsTrustedOwner(uid_t owner);

// [any thread]
[[nodiscard]] ReplaceResult FindPlace(const std::string& path, LinkRule links, FilePlace& place);

// Opens the file at `place` with the flags and the mode of open(2), without waiting, and without following a link that
// appeared meanwhile. `status` describes the open file. [any thread]
[[nodiscard]] ReplaceResult OpenPlace(const FilePlace& place, int flags, mode_t mode, file::Descriptor& opened,
                                      struct stat& status);

// Checks the owner of an open file: of a regular file or a named pipe. Devices and targets of the kernel's own links
// are accepted. A reader accepts files of root and of the process's user, a writer only those of the process's user.
// [any thread]
enum class FileUse { kRead, kWrite };
[[nodiscard]] ReplaceResult CheckOwner(const FilePlace& place, const struct stat& status, FileUse use);

// Finds, opens and checks a file. Unless `rules` accept foreign files, a regular file that is opened for writing must
// have only one name. Reads and writes of an accepted pipe, terminal or device will wait for the other side. But the
// open does not wait: the open of a FIFO without a reader for writing fails with ENXIO. [any thread]
[[nodiscard]] ReplaceResult OpenChecked(const std::string& path, int flags, mode_t mode, const FileRules& rules,
                                        file::Descriptor& opened);

}  // namespace qx
