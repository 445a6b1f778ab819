#include "tests/support/PrivateMounts.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tests/support/ChildProcess.h"
#include "tests/support/Support.h"

namespace qx::test {

namespace {

constexpr const char* kAdvice =
    "[no mount namespace: allow one of: running as root with CAP_SYS_ADMIN; user namespaces for ordinary users (sysctl "
    "kernel.unprivileged_userns_clone=1 and user.max_user_namespaces > 0, with AppArmor also "
    "kernel.apparmor_restrict_unprivileged_userns=0); in a container also mount in its seccomp profile]";

// Enters a mount namespace. A user other than root also gets a user namespace, in which the user keeps the id.
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

}  // namespace

std::string WithPrivateMounts(const std::function<std::string()>& body) {
  return TextOfChild([&]() -> std::string {
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
