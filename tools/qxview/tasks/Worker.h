// A thread that runs one task after the other and, between them, a tick whenever it is due.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace qx::view {

// Owns: the thread, which ends in the destructor after its current task; other tasks are dropped.
class Worker {
 public:
  using Task = std::function<void()>;
  // Runs what is due, and returns how long to wait until it is to be called again; unset: until after the next task.
  using Tick = std::function<std::optional<std::chrono::milliseconds>()>;

  static constexpr std::size_t kTasksMax = 256;

  explicit Worker(Tick tick = nullptr);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // A task for a client; false if too many tasks wait. [any thread]
  [[nodiscard]] bool Post(Task task);
  // A task of our own, which is never refused; it may change what is due, so the tick comes after it. [any thread]
  void Add(Task task);

 private:
  using Clock = std::chrono::steady_clock;

  struct Waiting {
    Task task;
    bool is_own = false;
  };

  void Run();
  void RunTick();
  [[nodiscard]] bool Wait(Waiting& next);

  Tick tick_;
  std::optional<Clock::time_point> due_;
  std::mutex lock_;  // of the three members after it
  std::deque<Waiting> tasks_;
  std::size_t client_tasks_ = 0;  // of them
  bool is_ending_ = false;
  std::condition_variable change_;
  std::thread thread_;  // the last member: it uses the others
};

}  // namespace qx::view
