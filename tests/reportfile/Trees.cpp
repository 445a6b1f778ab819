#include "tests/reportfile/Trees.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>

#include "tests/support/Support.h"

namespace qx::test {

namespace fs = std::filesystem;

namespace {

// In a child: sees nothing that only root may see from here on.
[[noreturn]] void AnswerAsOrdinaryUser(const std::function<bool()>& question) {
  if (setresgid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) != 0) _exit(2);
  if (setresuid(kOrdinaryUser, kOrdinaryUser, kOrdinaryUser) != 0) _exit(2);
  _exit(question() ? 0 : 1);
}

}  // namespace

void GiveToOrdinaryUser(const std::string& directory) {
  const auto give = [](const fs::path& path) {
    if (lchown(path.c_str(), kOrdinaryUser, kOrdinaryUser) != 0)
      throw std::runtime_error("cannot give " + path.string());
  };
  give(directory);
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    struct stat status;
    // What a test gave to somebody else on purpose stays theirs.
    if (lstat(entry.path().c_str(), &status) == 0 && status.st_uid == 0) give(entry.path());
  }
}

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

bool AsOrdinaryUser(const std::string& directory, const std::function<bool()>& question) {
  if (geteuid() != 0) return question();
  GiveToOrdinaryUser(directory);
  const pid_t child = fork();
  if (child == 0) AnswerAsOrdinaryUser(question);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) throw std::runtime_error("no child process");
  if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) throw std::runtime_error("the child process failed");
  return WEXITSTATUS(status) == 0;
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
  const int next = fcntl(STDIN_FILENO, F_DUPFD, 0);  // the lowest free one
  if (next < 0) throw std::runtime_error("no free descriptor");
  close(next);
  limit.rlim_cur = static_cast<rlim_t>(next) + count;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("limit of descriptors not set");
}

ScopedDescriptorLimit::~ScopedDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = old_;
  (void)setrlimit(RLIMIT_NOFILE, &limit);  // lower than the limit that it was
}

}  // namespace qx::test
