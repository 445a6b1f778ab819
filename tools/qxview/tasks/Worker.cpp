#include "tools/qxview/tasks/Worker.h"

#include <new>
#include <utility>

namespace qx::view {

Worker::Worker(Tick tick) : tick_(std::move(tick)), thread_([this] { Run(); }) {}

Worker::~Worker() {
  {
    const std::lock_guard guard(lock_);
    is_ending_ = true;
  }
  change_.notify_one();
  thread_.join();
}

bool Worker::Enqueue(Waiting waiting) {
  {
    const std::lock_guard guard(lock_);
    if (client_tasks_ >= kTasksMax) return false;
    ++client_tasks_;
    tasks_.push_back(std::move(waiting));
  }
  change_.notify_one();
  return true;
}

bool Worker::Post(Task task) { return Enqueue({.task = std::move(task), .steps = nullptr}); }

bool Worker::PostSteps(Steps steps) { return Enqueue({.task = nullptr, .steps = std::move(steps)}); }

void Worker::Add(Task task) {
  {
    const std::lock_guard guard(lock_);
    tasks_.push_back({.task = std::move(task), .steps = nullptr, .is_own = true});
  }
  change_.notify_one();
}

// Waits for the next task. False if the thread must end. If `next` has no task, the tick or a step of a long task is
// due.
bool Worker::Wait(Waiting& next) {
  std::unique_lock guard(lock_);
  const auto has_work = [this] { return is_ending_ || !tasks_.empty() || !long_tasks_.empty(); };
  if (due_.has_value()) {
    (void)change_.wait_until(guard, *due_, has_work);
  } else {
    change_.wait(guard, has_work);
  }
  if (is_ending_) return false;
  if (tasks_.empty()) return true;
  next = std::move(tasks_.front());
  tasks_.pop_front();
  const bool is_counted = !next.is_own && next.steps == nullptr;
  client_tasks_ -= is_counted ? 1 : 0;
  return true;
}

// Runs a step of a long task. If it runs out of memory, the task is dropped.
void Worker::RunStep(Steps steps, bool is_last_of_turn) {
  bool is_done = true;
  try {
    is_done = steps(is_last_of_turn);
    const auto place = is_last_of_turn ? long_tasks_.end() : long_tasks_.begin();
    if (!is_done) long_tasks_.insert(place, std::move(steps));
  } catch (const std::bad_alloc&) {
    is_done = true;
  }
  if (!is_done) return;
  const std::lock_guard guard(lock_);
  --client_tasks_;
}

// Runs the next step of the long task that has the turn. If it is the only long task, it keeps the turn.
void Worker::RunLongTask() {
  if (long_tasks_.empty()) return;
  Steps steps = std::move(long_tasks_.front());
  long_tasks_.pop_front();
  const bool is_last_of_turn = ++turn_steps_ >= kTurnSteps && !long_tasks_.empty();
  if (is_last_of_turn) turn_steps_ = 0;
  RunStep(std::move(steps), is_last_of_turn);
}

void Worker::RunNext(Waiting& next) {
  if (next.task != nullptr) return next.task();
  if (next.steps != nullptr) return RunStep(std::move(next.steps), !long_tasks_.empty());
  RunLongTask();
}

void Worker::RunTick() {
  if (tick_ == nullptr) return;
  const auto pause = tick_();
  due_ = pause.has_value() ? std::optional(Clock::now() + *pause) : std::nullopt;
}

// Runs tasks until the end. A task that runs out of memory is dropped; its client waits until its own timeout.
void Worker::Run() {
  for (;;) {
    try {
      Waiting next;
      if (!Wait(next)) return;
      RunNext(next);
      const bool is_due = next.is_own || !due_.has_value() || Clock::now() >= *due_;
      if (is_due) RunTick();
    } catch (const std::bad_alloc&) {
      continue;
    }
  }
}

}  // namespace qx::view
