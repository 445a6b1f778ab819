// Lets allocations of a test program fail on purpose. Replaces the program's operator new and delete.
#pragma once

#include <cstddef>

namespace qx::test {

// While in scope, the `nth` allocation (1 = the first) of at least `bytes_min` bytes by the calling thread fails, once.
class FailingNew {
 public:
  FailingNew(int nth, std::size_t bytes_min);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;

  // Whether it was reached.
  bool HasFailed() const;
};

}  // namespace qx::test
