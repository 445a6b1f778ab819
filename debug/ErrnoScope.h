// Keeps errno: callers print an error number after they have traced it.
#pragma once

#include <cerrno>

namespace qx::debug {

// Restores errno at the end of the scope.
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
