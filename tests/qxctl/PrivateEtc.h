// Runs a command with a private /etc that has nothing but a registry: qxctl as on another machine.
#pragma once

#include <string>
#include <vector>

namespace qx::test {

// The command line that runs `command` in a private mount namespace. Its /etc has only /etc/brollan with the file
// `registry_file` as "registry" (empty: no file). No other process sees these mounts. If namespaces are not allowed,
// the command fails with a message.
std::vector<std::string> WithPrivateEtc(const std::string& registry_file, const std::vector<std::string>& command);

}  // namespace qx::test
