// Configurations of three NATS servers on loopback ports that nobody uses.
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

// Three copies, so each server has everything.
inline constexpr std::uint32_t kServers = 3;

// Writes the configurations into the directory, in which the servers also store, and adds their addresses to the
// settings.
[[nodiscard]] std::vector<ServerConfig> WriteServerConfigs(const std::string& directory, relay::StreamSettings& stream);

// Creates the stream as soon as the servers take it. An exception after a minute.
void CreateStreamOfNewServers(const relay::StreamSettings& stream);

}  // namespace qx::chaos
