// Keeps errno as it was: callers print the error number of what they have just traced.
#pragma once

#include <cerrno>

namespace qx::debug {

// Brings errno back at the end of the scope.
class ErrnoScope {
 public:
  ErrnoScope() noexcept : saved_(errno) {}
  ~ErrnoScope() { errno = saved_; }
  ErrnoScope(const ErrnoScope&) = delete;
  ErrnoScope& operator=(const ErrnoScope&) = delete;
  [[nodiscard]] int Saved() const noexcept { return saved_; }

 private:
  const int saved_;
};

}  // namespace qx::debug
