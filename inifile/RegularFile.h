// Opening of profile files: only regular files are profile files.
//
// A pipe would hang its reader, a device can have side effects, a directory opens for reading like a file. So a file is
// opened without waiting, looked at, and closed again if it is none.
#pragma once

#include <sys/types.h>

#include <utility>

namespace qx::inifile {

// A file descriptor that is closed at the end of the scope.
//
// Threads: one thread at a time.
// Owns: the descriptor, unless it was released.
class Descriptor {
 public:
  Descriptor() noexcept = default;
  explicit Descriptor(int number) noexcept : number_(number) {}
  ~Descriptor() { (void)Close(); }  // whoever needs the result closes before
  Descriptor(Descriptor&& other) noexcept : number_(other.Release()) {}
  Descriptor& operator=(Descriptor&&) = delete;

  [[nodiscard]] bool IsOpen() const noexcept { return number_ >= 0; }
  [[nodiscard]] int Number() const noexcept { return number_; }
  [[nodiscard]] int Release() noexcept { return std::exchange(number_, -1); }

  // False when the system reports an error that a write before kept back. Nothing open: true. [owning thread]
  [[nodiscard]] bool Close() noexcept;

 private:
  int number_ = -1;
};

// Opens the regular file at `path` with the access `flags` of open(2), close-on-exec. Not open on failure, with errno
// set; EINVAL for everything that is not a regular file. [any thread]
[[nodiscard]] Descriptor OpenRegularFile(const char* path, int flags, mode_t mode = 0) noexcept;

}  // namespace qx::inifile
