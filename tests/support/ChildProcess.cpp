#include "tests/support/ChildProcess.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "tests/support/Support.h"

namespace qx::test {

namespace {

constexpr int kThrown = 99;

int StatusOf(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) throw std::runtime_error("no child process");
  }
  return status;
}

std::string TextOrException(const std::function<std::string()>& body) {
  try {
    return body();
  } catch (const std::exception& error) {
    return std::string("[exception: ") + error.what() + "]";
  }
}

void WriteAll(int to, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t count = write(to, text.data() + done, text.size() - done);
    if (count <= 0) _exit(kThrown);
    done += static_cast<std::size_t>(count);
  }
}

[[noreturn]] void RunChild(const std::function<std::string()>& body, const ChildText& options, int to_parent) {
  if (options.with_errors) dup2(to_parent, STDERR_FILENO);
  WriteAll(to_parent, TextOrException(body));
  EndChild(options.status_at_end ? options.status_at_end() : 0);
}

std::string ReadToEnd(int from) {
  std::string text;
  char part[4096];
  for (ssize_t count = 0; (count = read(from, part, sizeof part)) > 0;) {
    text.append(part, static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace

int StatusOfChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    try {
      EndChild(body());
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
      _exit(kThrown);  // it must not return to the test program
    }
  }
  const int status = StatusOf(child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

std::string TextOfChild(const std::function<std::string()>& body, const ChildText& options) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    RunChild(body, options, ends[1]);
  }
  close(ends[1]);
  std::string text = ReadToEnd(ends[0]);
  close(ends[0]);
  const int status = StatusOf(child);
  if (WIFSIGNALED(status)) text += "[signal " + std::to_string(WTERMSIG(status)) + "]";
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0) text += "[status " + std::to_string(WEXITSTATUS(status)) + "]";
  return text;
}

bool LimitFileSize(std::size_t bytes) {
  rlimit limit = {};
  if (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || getrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
  limit.rlim_cur = bytes;  // the other limit stays, for EndChild
  return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

WaitingChild::WaitingChild(const std::function<bool()>& action) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  id_ = fork();
  if (id_ == 0) {
    if (!action() || write(ends[1], "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  close(ends[1]);
  char byte = 0;
  const bool is_done = read(ends[0], &byte, 1) == 1;
  close(ends[0]);
  if (!is_done) throw std::runtime_error("the child process failed");
}

WaitingChild::~WaitingChild() { End(); }

void WaitingChild::End() {
  if (has_ended_) return;
  has_ended_ = true;
  (void)kill(id_, SIGKILL);
  (void)StatusOf(id_);
}

}  // namespace qx::test
