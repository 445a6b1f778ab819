// The main thread's list of things to do, to which every thread may add.
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

  // Runs the task in the main thread, soon. [any thread]
  void Post(Task task);

  // Readable when there is something to do. [owning thread]
  [[nodiscard]] int Descriptor() const { return event_.Number(); }
  // Runs what was posted. [owning thread]
  void RunPosted();

 private:
  file::Descriptor event_;
  std::mutex lock_;  // of the tasks
  std::vector<Task> tasks_;
};

}  // namespace qx::view
