// Runs qxrelay as a child process of a test.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace qx::test {

// A process of qxrelay, whose output goes to a file. It dies with the test.
//
// Threads: one thread. Owns: the process.
class QxrelayProcess {
 public:
  using Words = std::vector<std::string>;

  QxrelayProcess(const Words& arguments, const std::string& log, const Words& environment = {}) {
    std::vector<char*> argv = {const_cast<char*>(QX_QXRELAY)};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    process_ = fork();
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int file = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    for (const std::string& entry : environment) putenv(const_cast<char*>(entry.c_str()));
    execv(QX_QXRELAY, argv.data());
    _exit(127);
  }
  ~QxrelayProcess() { (void)End(SIGKILL); }
  QxrelayProcess(const QxrelayProcess&) = delete;
  QxrelayProcess& operator=(const QxrelayProcess&) = delete;

  [[nodiscard]] pid_t Id() const { return process_; }
  void Signal(int signal) const { kill(process_, signal); }

  // Sends the signal, and waits. Returns the exit code, or -1 if a signal has ended the process.
  int End(int signal) {
    if (process_ == 0) return 0;
    kill(process_, signal);
    return Wait();
  }
  int Wait() {
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t process_ = 0;
};

// Checks the condition again and again until it is true. False if it takes too long.
template <typename Condition>
bool Until(Condition condition) {
  constexpr std::chrono::seconds kLongest{20};
  const auto end = std::chrono::steady_clock::now() + kLongest;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace qx::test
