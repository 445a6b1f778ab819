#include "tools/qxrelay/receive/CollectorRoot.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/tools/FileText.h"
#include "base/tools/ReplacedFile.h"
#include "tools/qxrelay/receive/ReceiverCounters.h"

namespace qx::relay {

namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kLockMode = 0600;
constexpr mode_t kFileMode = 0644;
constexpr std::size_t kMadeMax = 100'000;
constexpr std::string_view kNamesSuffix = ".names";
constexpr std::string_view kAboutDirectory = "about";

// Failures of the system that may end although the report does not change.
constexpr std::array kSystemErrors = {ENOSPC, EDQUOT, EIO, EROFS, ENOMEM, EMFILE, ENFILE, ENOBUFS, EAGAIN, ESTALE};

std::string ErrorText(const std::string& what, const std::string& path, int error) {
  return what + " " + path + ": " + std::strerror(error);
}

// Creates the directory if it is missing, and opens it unless it is a symbolic link.
int EnterDirectory(const char* name, file::Descriptor& directory) {
  const int error = file::MakeDirectory(name, kDirectoryMode, directory.Number());
  if (error != 0 && error != EEXIST) return error;
  file::Descriptor entered = file::OpenDirectory(name, O_NOFOLLOW, directory.Number());
  const int open_error = errno;
  if (!entered.IsOpen()) return open_error;
  directory = std::move(entered);
  return 0;
}

CollectorFault WriteFault(const std::string& path, const ReplaceResult& result) {
  if (result.IsDone()) return {};
  if (result.error != 0) return FaultOf(ErrorText("cannot write", path, result.error), result.error);
  return {.kind = CollectorFault::Kind::kReport, .text = "cannot write " + path};
}

// Writes the file, unless it has these bytes already: senders repeat the same bytes, so that they do not expire in the
// stream.
CollectorFault WriteWhole(const std::string& path, std::string_view bytes) {
  if (!bytes.empty() && file::TextOf(path) == bytes) return {};
  ReplacedFile file;
  ReplacedFile::Options options = ReplacedFile::ForOutput(true);
  options.may_be_missing = true;
  options.new_mode = kFileMode;
  ReplaceResult result = file.Begin(path, options);
  if (result.IsDone()) result = file.WriteCopy(bytes);
  if (result.IsDone()) result = file.Commit(false);
  return WriteFault(path, result);
}

}  // namespace

CollectorFault FaultOf(const std::string& text, int error) {
  const bool is_system = std::find(kSystemErrors.begin(), kSystemErrors.end(), error) != kSystemErrors.end();
  return {.kind = is_system ? CollectorFault::Kind::kSystem : CollectorFault::Kind::kReport, .text = text};
}

std::optional<std::string> CollectorRoot::Open(const std::string& path) {
  path_ = path;
  int error = file::MakeDirectory(path.c_str(), kDirectoryMode);
  if (error != 0 && error != EEXIST) return ErrorText("cannot create", path, error);
  directory_ = file::OpenDirectory(path.c_str());
  error = errno;
  if (!directory_.IsOpen()) return ErrorText("cannot open", path, error);
  struct stat status = {};
  error = file::StatusOf(directory_.Number(), status);
  if (error != 0) return ErrorText("cannot examine", path, error);
  if (status.st_uid != 0 && status.st_uid != geteuid()) {
    return path +
           " belongs to another user, who could put links to other files into it; give it to the user of the receiver";
  }
  return Lock();
}

std::optional<std::string> CollectorRoot::Lock() {
  const std::string own(kReceiverDirectory);
  for (const std::string& name : {own, own + "/" + std::string(kAboutDirectory)}) {
    const int error = file::MakeDirectory(name.c_str(), kDirectoryMode, directory_.Number());
    if (error != 0 && error != EEXIST) return ErrorText("cannot create", path_ + "/" + name, error);
  }
  const std::string path = own + "/lock";
  lock_ = file::OpenRegularWithoutLinks(path.c_str(), O_RDWR | O_CREAT, kLockMode, directory_.Number());
  const int open_error = errno;
  if (!lock_.IsOpen()) return ErrorText("cannot open", path_ + "/" + path, open_error);
  const int error = file::TryLock(lock_.Number());
  if (error == EWOULDBLOCK) return "another receiver writes " + path_;
  if (error != 0) return ErrorText("cannot lock", path_ + "/" + path, error);
  return std::nullopt;
}

std::string CollectorRoot::AboutPath() const {
  return path_ + "/" + std::string(kReceiverDirectory) + "/" + std::string(kAboutDirectory);
}

std::string CollectorRoot::PathOf(const std::string& host, const std::string& report) const {
  return path_ + "/" + host + "/" + report;
}

CollectorFault CollectorRoot::MakeDirectories(const std::string& host, const std::string& report) {
  const std::string path = host + "/" + report;
  const std::string parent = path.substr(0, path.rfind('/'));
  struct stat status = {};
  const bool was_made = made_.contains(parent);
  if (was_made && file::StatusOf(parent.c_str(), status, AT_SYMLINK_NOFOLLOW, directory_.Number()) == 0) return {};
  file::Descriptor directory = file::OpenDirectory(".", 0, directory_.Number());
  const int open_error = errno;
  if (!directory.IsOpen()) return FaultOf(ErrorText("cannot open", path_, open_error), open_error);
  for (std::size_t begin = 0; begin < parent.size();) {
    const std::size_t end = std::min(parent.find('/', begin), parent.size());
    const int error = EnterDirectory(parent.substr(begin, end - begin).c_str(), directory);
    if (error != 0) return FaultOf(ErrorText("cannot use", path_ + "/" + parent.substr(0, end), error), error);
    begin = end + 1;
  }
  if (made_.size() >= kMadeMax) made_.clear();
  made_.insert(parent);
  return {};
}

CollectorFault CollectorRoot::WriteNames(const std::string& host, const std::string& report,
                                         std::optional<std::string_view> bytes) {
  if (CollectorFault fault = MakeDirectories(host, report); fault.Failed()) return fault;
  const std::string path = PathOf(host, report) + std::string(kNamesSuffix);
  if (bytes.has_value()) return WriteWhole(path, *bytes);
  const int error = file::Remove(path.c_str());
  if (error == 0 || error == ENOENT) return {};
  return FaultOf(ErrorText("cannot remove", path, error), error);
}

CollectorFault CollectorRoot::WriteAbout(const std::string& host, std::string_view text) const {
  return WriteWhole(AboutPath() + "/" + host, text);
}

int CollectorRoot::Sync() const { return file::SyncFileSystem(directory_.Number()); }

}  // namespace qx::relay
