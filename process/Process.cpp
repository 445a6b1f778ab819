#include "process/Process.h"

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "base/File.h"
#include "process/ProcFiles.h"

namespace {

constexpr unsigned kNone = 0xFFFFFFFFU;  // -1 as process id and as exit code
constexpr int kExitCannotStart = 255;
constexpr std::size_t kPathBytesMax = 4096;
constexpr std::size_t kProcFileBytesMax = 1U << 20;
constexpr int kFirstDescriptorToClose = 3;

// The data that the child needs, prepared before the fork. After the fork only async-signal-safe calls are allowed,
// because another thread of the parent may have held any lock at that moment (such as the allocator's).
class ChildPlan {
 public:
  ChildPlan(const char* cmd, bool inherit_handles) : inherit_handles_(inherit_handles), words_(Words(cmd)) {
    for (std::string& word : words_) argv_.push_back(word.data());
    argv_.push_back(nullptr);
    const long limit = sysconf(_SC_OPEN_MAX);
    descriptor_limit_ = limit < 256 ? 1024 : static_cast<int>(limit < INT_MAX ? limit : INT_MAX);
    sigemptyset(&unblocked_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM}) sigaddset(&unblocked_, signal);
  }
  ChildPlan(const ChildPlan&) = delete;
  ChildPlan& operator=(const ChildPlan&) = delete;

  [[nodiscard]] bool IsEmpty() const { return words_.empty(); }

  [[noreturn]] void RunInChild() const {
    if (!inherit_handles_) CloseDescriptors();
    sigprocmask(SIG_UNBLOCK, &unblocked_, nullptr);
    execvp(argv_[0], argv_.data());
    _exit(kExitCannotStart);
  }

 private:
  // "prog 'a b'" => prog, 'a, b': words separated by white space, without quoting.
  static std::vector<std::string> Words(std::string_view text) {
    constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
    std::vector<std::string> words;
    for (std::size_t at = text.find_first_not_of(kWhiteSpace); at != std::string_view::npos;) {
      const std::size_t end = text.find_first_of(kWhiteSpace, at);
      words.emplace_back(text.substr(at, end - at));
      at = text.find_first_not_of(kWhiteSpace, end);
    }
    return words;
  }

  // One call if the kernel supports and allows it; otherwise one call per descriptor.
  void CloseDescriptors() const {
    if (close_range(kFirstDescriptorToClose, UINT_MAX, 0) == 0) return;
    for (int descriptor = kFirstDescriptorToClose; descriptor < descriptor_limit_; ++descriptor) close(descriptor);
  }

  bool inherit_handles_;
  std::vector<std::string> words_;
  std::vector<char*> argv_;
  int descriptor_limit_ = 0;
  sigset_t unblocked_;
};

// Changes the process's working directory for a command. GoBack changes it back.
class DirectoryChange {
 public:
  // True if the working directory is `dir` now, or no directory was requested.
  [[nodiscard]] bool Enter(const char* dir) {
    if (dir == nullptr || *dir == '\0') return true;
    (void)CProcess::GetCurrentDir(before_);  // if this fails, before_ stays empty and GoBack fails
    if (before_ == dir) return true;
    changed_ = CProcess::SetCurrentDir(dir);
    return changed_;
  }
  [[nodiscard]] bool GoBack() { return !changed_ || CProcess::SetCurrentDir(before_.c_str()); }

 private:
  std::string before_;
  bool changed_ = false;
};

// Waits for the child. Returns its exit status, or nothing if it was killed or is not a child.
std::optional<unsigned> WaitForExitStatus(pid_t pid) {
  int status = 0;
  pid_t reaped;
  do {
    reaped = waitpid(pid, &status, 0);
  } while (reaped < 0 && errno == EINTR);
  if (reaped != pid || !WIFEXITED(status)) return std::nullopt;
  return static_cast<unsigned>(WEXITSTATUS(status));
}

// True if the id is that of one process: for kill and waitpid, 0 and negative numbers mean groups of processes.
bool NamesOneProcess(unsigned pid) { return pid != 0 && pid <= static_cast<unsigned>(INT_MAX); }

bool WaitAndStoreExitCode(unsigned pid, unsigned& exit_code) {
  exit_code = WaitForExitStatus(static_cast<pid_t>(pid)).value_or(kNone);
  return exit_code == 0;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

std::string ProcPath(long long pid, const char* file) { return "/proc/" + std::to_string(pid) + "/" + file; }

// Reads blocks until one has the character `stop` (if that is not 0), until the end, or until the limit. Unset if the
// file cannot be opened or read.
std::optional<std::string> ReadProcFile(const std::string& path, char stop) {
  const qx::file::Descriptor file = qx::file::Open(path.c_str(), O_RDONLY);
  if (!file.IsOpen()) return std::nullopt;
  std::string text;
  char window[4096];
  while (text.size() < kProcFileBytesMax) {
    const qx::file::Progress progress = qx::file::ReadSome(file.Number(), window, sizeof window);
    if (progress.Failed()) return std::nullopt;
    if (progress.bytes == 0) break;
    const std::string_view bytes(window, progress.bytes);
    text.append(bytes);
    if (stop != '\0' && bytes.find(stop) != std::string_view::npos) break;
  }
  return text;
}

void SetIfGiven(unsigned long* place, unsigned long value) {
  if (place != nullptr) *place = value;
}

}  // namespace

bool CProcess::execute_command(const char* cmd, unsigned& pid, unsigned& exit_code, const char* dir, bool, bool async,
                               bool inherit_handles) {
  pid = kNone;
  exit_code = kNone;
  const ChildPlan plan(cmd != nullptr ? cmd : "", inherit_handles);
  if (plan.IsEmpty()) return false;
  DirectoryChange directory;
  if (!directory.Enter(dir)) return false;

  const pid_t child = fork();
  if (child == 0) plan.RunInChild();
  pid = static_cast<unsigned>(child);  // -1 becomes all ones
  bool done = child > 0;
  if (done && !async) done = WaitAndStoreExitCode(pid, exit_code);
  return directory.GoBack() && done;
}

bool CProcess::ExecuteCmd(const char* cmd, const char* dir, bool unused, bool inherit_handles) {
  unsigned pid;
  unsigned exit_code;
  return execute_command(cmd, pid, exit_code, dir, unused, false, inherit_handles);
}

bool CProcess::ExecuteCmd(const char* cmd, unsigned& pid, unsigned& exit_code, const char* dir, bool unused,
                          bool inherit_handles) {
  return execute_command(cmd, pid, exit_code, dir, unused, false, inherit_handles);
}

bool CProcess::ExecuteCmdAsync(const char* cmd, const char* dir, bool unused, bool inherit_handles) {
  unsigned pid;
  return ExecuteCmdAsync(cmd, pid, dir, unused, inherit_handles);
}

bool CProcess::ExecuteCmdAsync(const char* cmd, unsigned& pid, const char* dir, bool unused, bool inherit_handles) {
  unsigned exit_code;
  return execute_command(cmd, pid, exit_code, dir, unused, true, inherit_handles);
}

bool CProcess::WaitForExit(unsigned pid, unsigned& exit_code, unsigned) {
  exit_code = kNone;
  return NamesOneProcess(pid) && WaitAndStoreExitCode(pid, exit_code);
}

bool CProcess::TerminateProcess(unsigned pid, unsigned) {
  return NamesOneProcess(pid) && kill(static_cast<pid_t>(pid), SIGKILL) == 0;
}

bool CProcess::FindProcess(unsigned& pid, const char* name) {
  pid = kNone;
  const std::unique_ptr<DIR, CloseDirectory> directory(opendir("/proc"));
  if (directory == nullptr || name == nullptr) return false;
  std::string found_name;
  while (const dirent* entry = readdir(directory.get())) {
    const std::optional<int> entry_pid = qx::process::PidOfDirectoryName(entry->d_name);
    if (!entry_pid || !get_proc_file(*entry_pid, "comm", found_name) || found_name != name) continue;
    pid = static_cast<unsigned>(*entry_pid);
    return true;
  }
  return false;
}

bool CProcess::GetProcessName(std::string& name, unsigned pid) {
  return get_proc_file(static_cast<int>(pid), "comm", name);
}

bool CProcess::GetProcessPath(std::string& path, unsigned pid) {
  char target[kPathBytesMax];
  const ssize_t length = readlink(ProcPath(pid, "exe").c_str(), target, sizeof target);
  if (length < 0) return false;
  path.assign(target, static_cast<std::size_t>(length));
  return true;
}

bool CProcess::GetProcessInfo(unsigned pid, std::string& name, std::string& path) {
  return GetProcessName(name, pid) && GetProcessPath(path, pid);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the parameter's type is interface.
bool CProcess::GetProcessMemorySpecificInfo(unsigned pid, unsigned long* value, std::string key, int unit) {
  const std::optional<std::string> status = ReadProcFile(ProcPath(pid, "status"), '\0');
  if (!status || value == nullptr) return false;
  const std::optional<unsigned long> bytes = qx::process::BytesOnStatusLine(*status, key);
  if (!bytes) return false;
  *value = qx::process::InUnit(*bytes, unit);
  return true;
}

bool CProcess::GetProcessMemoryInfo(unsigned pid, unsigned long* vm_size, unsigned long* vm_peak,
                                    unsigned long* vm_swap, unsigned long* reserved, unsigned long* private_size) {
  const std::optional<std::string> status = ReadProcFile(ProcPath(pid, "status"), '\0');
  const auto figure = [&status](std::string_view key) {
    return qx::process::BytesOnStatusLine(status ? *status : std::string_view(), key).value_or(0);
  };
  const unsigned long size = figure("VmSize:");
  const unsigned long peak = figure("VmPeak:");
  SetIfGiven(vm_size, size);
  SetIfGiven(vm_peak, peak);
  SetIfGiven(vm_swap, figure("VmSwap:"));
  SetIfGiven(reserved, 0);
  SetIfGiven(private_size, size - figure("VmLib:"));
  return size != 0 && peak != 0;
}

bool CProcess::GetProcessHandleCount(unsigned, unsigned& count) {
  count = 1;
  return false;
}

bool CProcess::GetCurrentDir(std::string& out) {
  char path[kPathBytesMax];
  if (getcwd(path, sizeof path) == nullptr || path[0] == '\0') return false;
  out = path;
  return true;
}

bool CProcess::SetCurrentDir(const char* path) { return path != nullptr && *path != '\0' && chdir(path) == 0; }

bool CProcess::get_proc_file(int pid, const char* file, std::string& out) {
  if (file == nullptr) return false;
  std::optional<std::string> text = ReadProcFile(ProcPath(pid, file), '\n');
  if (!text || text->empty()) return false;
  out = text->substr(0, text->find('\n'));
  return true;
}
