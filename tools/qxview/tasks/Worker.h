// A thread that runs one task after the other and, between them, a tick whenever it is due.
//
// A long task is done in steps. New tasks run before its next step, so none of them waits for longer than a step.
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
  // Does what is due, and returns the time until its next call; unset: it is called after the next task.
  using Tick = std::function<std::optional<std::chrono::milliseconds>()>;

  // Does the next step of a long task, and returns whether it was the last step of the task. After the last step of a
  // turn, another long task gets the turn.
  using Steps = std::function<bool(bool is_last_of_turn)>;

  static constexpr int kTurnSteps = 128;
  static constexpr std::size_t kTasksMax = 256;

  explicit Worker(Tick tick = nullptr);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Adds a task for a client; false if too many tasks wait. [any thread]
  [[nodiscard]] bool Post(Task task);
  // Adds a long task for a client; false if too many tasks wait. [any thread]
  [[nodiscard]] bool PostSteps(Steps steps);
  // Adds a task of the program itself, which is never refused. The tick runs after it, because the task may change what
  // is due. [any thread]
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
  std::deque<Steps> long_tasks_;  // long tasks that have begun; the first one has the turn; used by the thread only
  int turn_steps_ = 0;            // steps of the present turn
  std::mutex lock_;               // protects the three members after it
  std::deque<Waiting> tasks_;
  std::size_t client_tasks_ = 0;  // tasks of clients in tasks_ and long_tasks_
  bool is_ending_ = false;
  std::condition_variable change_;
  std::thread thread_;  // the last member: it uses the others
};

}  // namespace qx::view
