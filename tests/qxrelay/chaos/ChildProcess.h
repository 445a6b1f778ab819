// Runs a program that the chaos test kills, stops, continues and starts again.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace qx::chaos {

// Threads: one thread, always the same: the process ends when the thread that started it ends.
// Owns: the process, which is killed at the end of the scope. Failure: an exception if it cannot be started.
class ChildProcess {
 public:
  // Output goes to the file `log`.
  ChildProcess(std::vector<std::string> words, std::string log);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void Start();
  void Signal(int signal) const;
  // Sends the signal and waits for the end, at most ten seconds; then it kills the process. Returns the exit code or,
  // as a negative number, the signal that ended the process.
  int End(int signal);
  [[nodiscard]] std::chrono::steady_clock::duration Age() const { return std::chrono::steady_clock::now() - started_; }
  // The exit code, if the process has ended by itself; else unset.
  [[nodiscard]] std::optional<int> Ended();

  [[nodiscard]] bool IsRunning() const { return process_ != 0; }
  [[nodiscard]] pid_t Number() const { return process_; }
  [[nodiscard]] const std::string& Log() const { return log_; }

 private:
  std::vector<std::string> words_;
  std::string log_;
  pid_t process_ = 0;
  std::chrono::steady_clock::time_point started_;
};

// A port of the loopback address that nobody uses now.
[[nodiscard]] int FreePort();

}  // namespace qx::chaos
