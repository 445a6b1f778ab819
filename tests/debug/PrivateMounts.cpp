#include "tests/debug/PrivateMounts.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "tests/support/Support.h"

namespace qx::test {

namespace {

constexpr const char* kAdvice =
    "[no mount namespace: allow one of: running as root with CAP_SYS_ADMIN; user namespaces for ordinary users (sysctl "
    "kernel.unprivileged_userns_clone=1 and user.max_user_namespaces > 0, with AppArmor also "
    "kernel.apparmor_restrict_unprivileged_userns=0); in a container also mount in its seccomp profile]";

// For root, a mount namespace is enough; other users also get a user namespace, in which they keep their id.
bool EnterNamespace() {
  const uid_t user = ::geteuid();
  const gid_t group = ::getegid();
  if (user == 0 && ::unshare(CLONE_NEWNS) == 0) return true;
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", std::to_string(user) + " " + std::to_string(user) + " 1");
  WriteFile("/proc/self/gid_map", std::to_string(group) + " " + std::to_string(group) + " 1");
  return true;
}

std::string TextOf(const std::function<std::string()>& body) {
  try {
    return body();
  } catch (const std::exception& error) {
    return std::string("[exception: ") + error.what() + "]";
  }
}

[[noreturn]] void RunChild(const std::function<std::string()>& body, int to_parent) {
  const std::string text = TextOf(body);
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t count = ::write(to_parent, text.data() + done, text.size() - done);
    if (count <= 0) ::_exit(99);
    done += static_cast<std::size_t>(count);
  }
  EndChild(0);
}

std::string ReadToEnd(int descriptor) {
  std::string text;
  char part[4096];
  for (ssize_t count = 0; (count = ::read(descriptor, part, sizeof part)) > 0;) {
    text.append(part, static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace

std::string InChild(const std::function<std::string()>& body) {
  int ends[2];
  if (::pipe(ends) != 0) throw std::runtime_error("no pipe");
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    RunChild(body, ends[1]);
  }
  ::close(ends[1]);
  std::string text = ReadToEnd(ends[0]);
  ::close(ends[0]);
  int status = 0;
  if (child < 0 || ::waitpid(child, &status, 0) != child) throw std::runtime_error("no child");
  if (WIFSIGNALED(status)) text += "[signal " + std::to_string(WTERMSIG(status)) + "]";
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0) text += "[status " + std::to_string(WEXITSTATUS(status)) + "]";
  return text;
}

std::string WithPrivateMounts(const std::function<std::string()>& body) {
  return InChild([&]() -> std::string {
    if (!EnterNamespace() || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return kAdvice;
    return body();
  });
}

void MountMemory(const std::string& directory, const std::string& size) {
  const std::string options = size.empty() ? "mode=755" : "mode=755,size=" + size;
  if (::mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    throw std::runtime_error("cannot mount over " + directory + ": " + std::strerror(errno));
  }
}

}  // namespace qx::test
