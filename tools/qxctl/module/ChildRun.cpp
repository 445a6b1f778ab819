#include "tools/qxctl/module/ChildRun.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include "base/File.h"
#include "tools/qxctl/cli/WriteAll.h"

namespace qx::ctl {

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Work(const std::function<std::string()>& work, int out) {
  const rlimit no_core{0, 0};
  (void)setrlimit(RLIMIT_CORE, &no_core);  // the parent needs no core file
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM})
    (void)std::signal(signal, SIG_DFL);  // a guard belongs to the parent
  const file::Descriptor null = file::Open("/dev/null", O_RDWR);
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(null.Number(), descriptor);
  _exit(WriteAll(out, work(), "the parent").IsOk() ? 0 : 1);
}

// Reads until the child closes the pipe. At the deadline the child is killed, and the result is false.
bool ReadToEnd(int in, pid_t child, double seconds, std::string& text) {
  const auto time = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  const auto deadline = Clock::now() + time;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd waited{in, POLLIN, 0};
    if (left <= 0 || poll(&waited, 1, static_cast<int>(left)) == 0) {
      (void)kill(child, SIGKILL);
      return false;
    }
    char buffer[4096];
    const file::Progress progress = file::Read(in, buffer, sizeof buffer);  // EAGAIN: no more for now
    text.append(buffer, progress.bytes);
    if (progress.bytes < sizeof buffer && progress.error != EAGAIN) return true;
  }
}

// Waits until the child has ended. False if there is no such child. A signal under an InterruptGuard does not end the
// wait.
bool WaitForEnd(pid_t child, int& status) {
  for (;;) {
    const pid_t ended = waitpid(child, &status, 0);
    const int error = errno;
    if (ended == child) return true;
    if (error != EINTR) return false;
  }
}

void NoteEnd(int status, ChildOutcome& outcome) {
  if (WIFSIGNALED(status)) {
    const int signal = WTERMSIG(status);
    outcome.trouble = "killed by signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
  } else if (WEXITSTATUS(status) != 0) {
    outcome.exit_code = WEXITSTATUS(status);
    outcome.trouble = "ended with exit code " + std::to_string(outcome.exit_code);
  }
}

}  // namespace

ChildOutcome RunInChild(double seconds, const std::function<std::string()>& work) {
  ChildOutcome outcome;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return {"", 0, "not run: no pipe"};
  const file::Descriptor in(ends[0]);
  file::Descriptor out(ends[1]);
  const pid_t child = fork();
  if (child == 0) Work(work, out.Number());
  out = {};  // closed, so that the end of the child ends the pipe
  const bool is_set = child > 0 && fcntl(in.Number(), F_SETFL, O_NONBLOCK) == 0;
  const bool has_ended = is_set && ReadToEnd(in.Number(), child, seconds, outcome.text);
  int status = 0;
  if (child < 0 || !WaitForEnd(child, status)) return {"", 0, "not run: no process"};
  if (has_ended) {
    NoteEnd(status, outcome);
  } else {
    outcome.trouble = "no end within the time";
  }
  return outcome;
}

}  // namespace qx::ctl
