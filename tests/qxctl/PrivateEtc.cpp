#include "tests/qxctl/PrivateEtc.h"

#include <unistd.h>

namespace qx::test {

std::vector<std::string> WithPrivateEtc(const std::string& registry_file, const std::vector<std::string>& command) {
  std::vector<std::string> whole = {"unshare", "--mount"};
  if (geteuid() != 0) whole.insert(whole.end(), {"--user", "--map-root-user"});
  const std::string script =
      "cp=$(command -v cp) && file=$0 && { [ -z \"$file\" ] || exec 9<\"$file\"; } && mount -t tmpfs none /etc && "
      "mkdir /etc/brollan && { [ -z \"$file\" ] || \"$cp\" /proc/self/fd/9 /etc/brollan/registry; } && exec \"$@\"";
  whole.insert(whole.end(), {"/bin/sh", "-c", script, registry_file});
  whole.insert(whole.end(), command.begin(), command.end());
  return whole;
}

}  // namespace qx::test
