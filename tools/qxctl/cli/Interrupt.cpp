#include "tools/qxctl/cli/Interrupt.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>

#include "base/File.h"

namespace qx::ctl {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

constexpr unsigned kAlarmSeconds = 1;

// The levels of subdirectories that a signal removes. Each one takes a descriptor, and a kilobyte of the stack.
constexpr int kLevelsMax = 64;

volatile std::sig_atomic_t g_signal = 0;

volatile std::sig_atomic_t g_is_guarded = 0;

bool g_parent_ignores_pipe = false;

// The directory to remove. It is not on the heap, because a signal handler reads it.
char g_directory[PATH_MAX] = "";
volatile std::sig_atomic_t g_directory_number = -1;
pid_t g_directory_process = 0;  // a child of this process must not remove it

// A directory entry as the system call getdents64 returns it. The signal handler uses this call because readdir may
// allocate, which a signal handler must not do.
struct DirectoryEntry {
  unsigned long number;
  long offset;
  unsigned short size;
  unsigned char type;
  char name[1];
};

bool IsDirectoryItself(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

void RemoveEntries(int directory, int levels);

// Removes a file, or a directory with everything in it.
void RemoveEntry(int directory, const char* name, int levels) {
  if (unlinkat(directory, name, 0) == 0 || levels == 0 || IsDirectoryItself(name)) return;
  const file::Descriptor below = file::OpenDirectory(name, O_NOFOLLOW, directory);
  if (!below.IsOpen()) return;
  RemoveEntries(below.Number(), levels - 1);
  (void)unlinkat(directory, name, AT_REMOVEDIR);
}

void RemoveEntries(int directory, int levels) {
  alignas(DirectoryEntry) char block[1024];
  for (;;) {
    const long size = syscall(SYS_getdents64, directory, block, sizeof block);
    if (size <= 0) return;
    for (long at = 0; at < size;) {
      unsigned short entry_size = 0;
      std::memcpy(&entry_size, block + at + offsetof(DirectoryEntry, size), sizeof entry_size);
      RemoveEntry(directory, block + at + offsetof(DirectoryEntry, name), levels);
      at += entry_size;
    }
  }
}

void RemoveDirectory() {
  if (g_directory_number < 0 || g_directory_process != getpid()) return;
  RemoveEntries(g_directory_number, kLevelsMax);
  (void)rmdir(g_directory);
}

// Only calls that are safe in a signal handler.
extern "C" void HandleSignal(int signal) {
  if (g_is_guarded != 0) {
    if (g_signal == 0) g_signal = signal;
    (void)alarm(kAlarmSeconds);
    return;
  }
  RemoveDirectory();
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  (void)sigaction(signal, &action, nullptr);
  (void)raise(signal);  // kills the process when the handler returns
}

// The signal may arrive between a check and a write, and the write then waits for a terminal that nobody reads. The
// status that the command prints after the signal may wait in the same way. Therefore an alarm interrupts every wait
// until the process ends.
extern "C" void HandleAlarm(int /*signal*/) { (void)alarm(kAlarmSeconds); }

// No SA_RESTART: a write that waits for a slow reader must return, otherwise ^C would have no effect. A second signal
// waits until the handler returns: otherwise it would end the process in the middle of a removal.
void SetHandler(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  (void)sigemptyset(&action.sa_mask);
  for (const int held : kSignals) (void)sigaddset(&action.sa_mask, held);
  (void)sigaction(signal, &action, nullptr);  // fails only for signals that cannot be caught
}

// A signal that the parent ignores stays ignored: nohup relies on it.
bool IsIgnored(int signal) {
  struct sigaction action = {};
  return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void SetHandlers() {
  for (const int signal : kSignals) {
    if (!IsIgnored(signal)) SetHandler(signal, HandleSignal);
  }
}

}  // namespace

int InterruptSignal() { return g_signal; }

void HoldBrokenPipe() {
  g_parent_ignores_pipe = IsIgnored(SIGPIPE);
  SetHandler(SIGPIPE, SIG_IGN);
}

void RememberBrokenPipe() {
  if (!g_parent_ignores_pipe && g_signal == 0) g_signal = SIGPIPE;
}

// The signals are blocked between the check and the wait: otherwise one that arrives there would not end the wait.
Status WaitWhileOutputIsRead(std::chrono::nanoseconds time) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  const timespec limit{static_cast<time_t>(time.count() / kSecond), static_cast<long>(time.count() % kSecond)};
  sigset_t held;
  sigset_t before;
  (void)sigemptyset(&held);
  for (const int signal : kSignals) (void)sigaddset(&held, signal);
  (void)pthread_sigmask(SIG_BLOCK, &held, &before);
  pollfd output{STDOUT_FILENO, 0, 0};
  const int ready = g_signal == 0 ? ppoll(&output, 1, &limit, &before) : 0;
  (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
  const bool is_gone = ready > 0 && (output.revents & (POLLERR | POLLHUP)) != 0;
  if (!is_gone) return {};
  RememberBrokenPipe();
  return Status::Io("cannot write standard output", EPIPE);
}

InterruptGuard::InterruptGuard() {
  g_is_guarded = 1;
  SetHandler(SIGALRM, HandleAlarm);
  SetHandlers();
}

InterruptGuard::~InterruptGuard() { g_is_guarded = 0; }

HeldSignals::HeldSignals() {
  sigset_t held;
  (void)sigemptyset(&held);
  for (const int signal : kSignals) (void)sigaddset(&held, signal);
  (void)pthread_sigmask(SIG_BLOCK, &held, &before_);
}

HeldSignals::~HeldSignals() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

void RemoveOnSignal(const std::string& directory) {
  const int old = g_directory_number;
  g_directory_number = -1;
  (void)file::Descriptor(old).Close();
  if (directory.empty() || directory.size() >= sizeof g_directory) return;
  directory.copy(g_directory, directory.size());
  g_directory[directory.size()] = '\0';
  g_directory_process = getpid();
  g_directory_number = file::OpenDirectory(g_directory).Release();
  SetHandlers();
}

void EndBySignal() {
  if (g_signal == 0) return;
  SetHandler(g_signal, SIG_DFL);
  (void)std::raise(g_signal);
}

}  // namespace qx::ctl
