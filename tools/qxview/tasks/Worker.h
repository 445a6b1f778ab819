// A thread that runs one task after the other and, between them, a tick whenever it is due.
//
// A long task is done in steps. New tasks come before its next step, so none of them waits for more than a step.
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

  // Does the next step of a long task, and returns whether that was its last one. After the last step of a turn,
  // another long task has the next step.
  using Steps = std::function<bool(bool is_last_of_turn)>;

  static constexpr int kTurnSteps = 128;
  static constexpr std::size_t kTasksMax = 256;

  explicit Worker(Tick tick = nullptr);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // A task for a client; false if too many tasks wait. [any thread]
  [[nodiscard]] bool Post(Task task);
  // The same for a long task. [any thread]
  [[nodiscard]] bool PostSteps(Steps steps);
  // A task of our own, which is never refused; it may change what is due, so the tick comes after it. [any thread]
  void Add(Task task);

 private:
  using Clock = std::chrono::steady_clock;

  struct Waiting {
    Task task;
    Steps steps;
    bool is_own = false;
  };

  [[nodiscard]] bool Enqueue(Waiting waiting);
  void Run();
  void RunStep(Steps steps, bool is_last_of_turn);
  void RunLongTask();
  void RunNext(Waiting& next);
  void RunTick();
  [[nodiscard]] bool Wait(Waiting& next);

  Tick tick_;
  std::optional<Clock::time_point> due_;
  std::deque<Steps> long_tasks_;  // that have begun; the first one has the turn; only the thread uses them
  int turn_steps_ = 0;            // of this turn
  std::mutex lock_;               // of the three members after it
  std::deque<Waiting> tasks_;
  std::size_t client_tasks_ = 0;  // of them and of the long tasks
  bool is_ending_ = false;
  std::condition_variable change_;
  std::thread thread_;  // the last member: it uses the others
};

}  // namespace qx::view
