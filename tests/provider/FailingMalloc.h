// Lets a C allocation of a test program fail on purpose. The program is linked with --wrap for malloc and strdup.
#pragma once

#include <cstddef>

namespace qx::test {

// While in scope, the first block of exactly `bytes` bytes that the calling thread asks for is refused, once.
class FailingMalloc {
 public:
  explicit FailingMalloc(std::size_t bytes);
  ~FailingMalloc();
  FailingMalloc(const FailingMalloc&) = delete;
  FailingMalloc& operator=(const FailingMalloc&) = delete;

  // Whether it was asked for.
  bool HasFailed() const;
};

}  // namespace qx::test
