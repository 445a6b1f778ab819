#include "tools/qxview/work/Loop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

namespace qx::view {

Loop::Loop() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Loop::Post(Task task) {
  {
    const std::lock_guard guard(lock_);
    tasks_.push_back(std::move(task));
  }
  const std::uint64_t one = 1;
  (void)write(event_.Number(), &one, sizeof one);  // it is full: then it is readable already
}

void Loop::RunPosted() {
  std::uint64_t count = 0;
  (void)read(event_.Number(), &count, sizeof count);  // it is empty: then nothing was posted
  std::vector<Task> tasks;
  {
    const std::lock_guard guard(lock_);
    tasks.swap(tasks_);
  }
  for (const Task& task : tasks) task();
}

}  // namespace qx::view
