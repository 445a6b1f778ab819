// Runs a command with an /etc of its own that has nothing but a registry: qxctl as on another machine.
#pragma once

#include <string>
#include <vector>

namespace qx::test {

// `command` in a private mount namespace whose /etc has only /etc/brollan, and there the file `registry_file` as
// "registry" (empty: no file). What it mounts is seen by nobody else. Where namespaces are not allowed, the command
// fails and says so.
std::vector<std::string> WithPrivateEtc(const std::string& registry_file, const std::vector<std::string>& command);

}  // namespace qx::test
