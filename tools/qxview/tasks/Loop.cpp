#include "tools/qxview/tasks/Loop.h"

#include <sys/eventfd.h>

#include <cstdint>
#include <string_view>
#include <utility>

namespace qx::view {

Loop::Loop() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Loop::Post(Task task) {
  {
    const std::lock_guard guard(lock_);
    tasks_.push_back(std::move(task));
  }
  const std::uint64_t one = 1;
  const std::string_view bytes(reinterpret_cast<const char*>(&one), sizeof one);
  (void)file::WriteOnce(event_.Number(), bytes);  // if it is full, it is readable already
}

void Loop::RunPosted() {
  std::uint64_t count = 0;
  (void)file::ReadSome(event_.Number(), &count, sizeof count);  // if it is empty, nothing was posted
  std::vector<Task> tasks;
  {
    const std::lock_guard guard(lock_);
    tasks.swap(tasks_);
  }
  for (const Task& task : tasks) task();
}

}  // namespace qx::view
