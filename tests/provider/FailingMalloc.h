// Lets a C allocation of a test program fail on purpose. The program is linked with --wrap for malloc and strdup.
#pragma once

#include <cstddef>

namespace qx::test {

// While in scope, the calling thread's first allocation of exactly `bytes` bytes fails, once.
class FailingMalloc {
 public:
  explicit FailingMalloc(std::size_t bytes);
  ~FailingMalloc();
  FailingMalloc(const FailingMalloc&) = delete;
  FailingMalloc& operator=(const FailingMalloc&) = delete;

  // Whether that allocation was requested.
  bool HasFailed() const;
};

}  // namespace qx::test
