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

bool Worker::Post(Task task) {
  {
    const std::lock_guard guard(lock_);
    if (client_tasks_ >= kTasksMax) return false;
    ++client_tasks_;
    tasks_.push_back({.task = std::move(task)});
  }
  change_.notify_one();
  return true;
}

void Worker::Add(Task task) {
  {
    const std::lock_guard guard(lock_);
    tasks_.push_back({.task = std::move(task), .is_own = true});
  }
  change_.notify_one();
}

// False: the thread is to end. No task: the tick is due.
bool Worker::Wait(Waiting& next) {
  std::unique_lock guard(lock_);
  const auto has_work = [this] { return is_ending_ || !tasks_.empty(); };
  if (due_.has_value()) {
    (void)change_.wait_until(guard, *due_, has_work);
  } else {
    change_.wait(guard, has_work);
  }
  if (is_ending_) return false;
  if (tasks_.empty()) return true;
  next = std::move(tasks_.front());
  tasks_.pop_front();
  client_tasks_ -= next.is_own ? 0 : 1;
  return true;
}

void Worker::RunTick() {
  if (tick_ == nullptr) return;
  const auto pause = tick_();
  due_ = pause.has_value() ? std::optional(Clock::now() + *pause) : std::nullopt;
}

// A task that runs out of memory is dropped: its client waits until it gives up.
void Worker::Run() {
  for (;;) {
    try {
      Waiting next;
      if (!Wait(next)) return;
      if (next.task != nullptr) next.task();
      const bool is_due = next.is_own || !due_.has_value() || Clock::now() >= *due_;
      if (is_due) RunTick();
    } catch (const std::bad_alloc&) {
      continue;
    }
  }
}

}  // namespace qx::view
