// Creates a directory for the files of one row. It is in a memory file system if there is one, because the rows do not
// compare disks.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

namespace qx::bench {

inline void Must(bool ok, const char* what) {
  if (ok) return;
  std::perror(what);
  std::exit(1);
}

// The constructor creates an empty directory; the destructor removes it with everything in it.
class MemoryDirectory {
 public:
  MemoryDirectory() : path_(Parent() / ("qx-bench-" + std::to_string(getpid()))) {
    std::filesystem::create_directories(path_);
  }
  ~MemoryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  MemoryDirectory(const MemoryDirectory&) = delete;
  MemoryDirectory& operator=(const MemoryDirectory&) = delete;

  [[nodiscard]] const char* Path() const { return path_.c_str(); }
  [[nodiscard]] std::string File(const char* name) const { return (path_ / name).string(); }

  // Creates a file with exactly `text` and returns its path.
  [[nodiscard]] std::string FileWith(const char* name, std::string_view text) const {
    const std::string path = File(name);
    std::FILE* file = std::fopen(path.c_str(), "we");
    Must(file != nullptr, path.c_str());
    const bool is_whole = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    Must(std::fclose(file) == 0 && is_whole, path.c_str());
    return path;
  }

 private:
  static std::filesystem::path Parent() {
    const std::filesystem::path memory = "/dev/shm";
    return std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
  }

  std::filesystem::path path_;
};

}  // namespace qx::bench
