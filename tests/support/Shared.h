// A value in memory that a process shares with the children that it forks.
#pragma once

#include <sys/mman.h>

#include <new>
#include <stdexcept>
#include <utility>

namespace qx::test {

template <typename T>
class Shared {
 public:
  template <typename... Arguments>
  explicit Shared(Arguments&&... arguments) {
    void* const memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("no shared memory");
    value_ = new (memory) T(std::forward<Arguments>(arguments)...);
  }
  ~Shared() { (void)munmap(value_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  T& operator*() const { return *value_; }
  T* operator->() const { return value_; }

 private:
  T* value_;
};

}  // namespace qx::test
