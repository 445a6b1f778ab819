// The main thread's list of tasks, to which every thread may add.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "base/File.h"

namespace qx::view {

// Owns: an event descriptor. Failure: without a descriptor the loop notices new tasks only at its next timeout.
class Loop {
 public:
  using Task = std::function<void()>;

  Loop();

  // Adds a task, which the main thread runs soon. [any thread]
  void Post(Task task);

  // Readable when there are tasks. [owning thread]
  [[nodiscard]] int Descriptor() const { return event_.Number(); }
  // Runs the tasks that were posted. [owning thread]
  void RunPosted();

 private:
  file::Descriptor event_;
  std::mutex lock_;  // of the tasks
  std::vector<Task> tasks_;
};

}  // namespace qx::view
