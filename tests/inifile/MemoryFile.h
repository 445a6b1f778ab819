// A file in memory that can be opened by name, so that thousands of random files do not wait for a disk.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <string_view>

namespace qx::test {

class MemoryFile {
 public:
  MemoryFile() : descriptor_(memfd_create("profile", MFD_CLOEXEC)) {
    if (descriptor_ < 0) throw std::runtime_error("no file in memory");
  }
  ~MemoryFile() { (void)close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string Path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  void Write(std::string_view bytes) const {
    const bool is_empty = ftruncate(descriptor_, 0) == 0;
    const auto size = static_cast<ssize_t>(bytes.size());
    if (!is_empty || pwrite(descriptor_, bytes.data(), bytes.size(), 0) != size) {
      throw std::runtime_error("cannot write a file in memory");
    }
  }

  std::string Read() const {
    std::string bytes(static_cast<std::size_t>(lseek(descriptor_, 0, SEEK_END)), '\0');
    if (pread(descriptor_, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
      throw std::runtime_error("cannot read a file in memory");
    }
    return bytes;
  }

 private:
  int descriptor_;
};

}  // namespace qx::test
