// Makes the configurations of three NATS servers on loopback ports that nobody uses.
#pragma once

#include <string>
#include <vector>

#include "tests/qxrelay/chaos/ChildProcess.h"
#include "tools/qxrelay/config/RelayConfig.h"

namespace qx::chaos {

struct ServerConfig {
  std::string name;
  std::vector<std::string> words;  // the command line of the server
  std::string log;
};

// The stream has three copies, so each server has all messages.
inline constexpr std::uint32_t kServers = 3;

// Writes the configurations into the directory, in which the servers also store their data. Adds the addresses of the
// servers to the settings.
[[nodiscard]] std::vector<ServerConfig> WriteServerConfigs(const std::string& directory, relay::StreamSettings& stream);

// Creates the stream as soon as the servers accept it. Throws an exception after a minute.
void CreateStreamOfNewServers(const relay::StreamSettings& stream);

}  // namespace qx::chaos
