#include "tests/reportfile/Trees.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "tests/support/Support.h"

namespace qx::test {

namespace fs = std::filesystem;

void MakeTree(const std::string& root, const Tree& entries) {
  fs::create_directories(root);
  for (const auto& [path, contents] : entries) {
    const std::string whole = root + "/" + path;
    fs::create_directories(path.ends_with('/') ? fs::path(whole) : fs::path(whole).parent_path());
    if (!path.ends_with('/')) WriteFile(whole, contents);
  }
}

void MakeLink(const std::string& target, const std::string& path) { fs::create_symlink(target, path); }

Tree ContentsOf(const std::string& root) {
  Tree contents;
  if (!fs::is_directory(root)) return contents;
  const std::size_t prefix = fs::path(root / fs::path()).string().size();
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
    const std::string path = entry.path().string().substr(prefix);
    if (entry.is_directory() && !entry.is_symlink()) {
      contents[path + "/"] = "";
    } else if (entry.is_regular_file()) {
      contents[path] = ReadFile(entry.path().string());
    }
  }
  return contents;
}

mode_t ModeOf(const std::string& path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) throw std::runtime_error("no " + path);
  return status.st_mode & 07777;
}

std::vector<std::string> Shortened(std::vector<std::string> lines, const std::string& directory) {
  for (std::string& line : lines) {
    for (std::size_t at = line.find(directory); at != std::string::npos; at = line.find(directory, at)) {
      line.replace(at, directory.size(), "T");
    }
  }
  return lines;
}

void RunOnSmallStack(const std::function<void()>& work) {
  pthread_attr_t attributes;
  pthread_t thread;
  const auto run = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  void* const argument = const_cast<std::function<void()>*>(&work);
  if (pthread_attr_init(&attributes) != 0 || pthread_attr_setstacksize(&attributes, 192U << 10) != 0 ||
      pthread_create(&thread, &attributes, run, argument) != 0) {
    throw std::runtime_error("no thread");
  }
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

ScopedUmask::ScopedUmask(mode_t mask) : old_(umask(mask)) {}
ScopedUmask::~ScopedUmask() { umask(old_); }

ScopedDescriptorLimit::ScopedDescriptorLimit(unsigned count) {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("no limit of descriptors");
  old_ = limit.rlim_cur;
  const int next = fcntl(STDIN_FILENO, F_DUPFD, 0);  // the lowest free descriptor
  if (next < 0) throw std::runtime_error("no free descriptor");
  close(next);
  limit.rlim_cur = static_cast<rlim_t>(next) + count;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("limit of descriptors not set");
}

ScopedDescriptorLimit::~ScopedDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = old_;
  (void)setrlimit(RLIMIT_NOFILE, &limit);  // lower than the old limit
}

}  // namespace qx::test
