#include "tests/qxrelay/chaos/ServerConfigs.h"

#include <chrono>
#include <stdexcept>
#include <thread>

#include "tests/support/Support.h"
#include "tools/qxrelay/stream/NatsAdmin.h"

namespace qx::chaos {

namespace {

constexpr std::chrono::seconds kStartMax{60};

}  // namespace

std::vector<ServerConfig> WriteServerConfigs(const std::string& directory, relay::StreamSettings& stream) {
  std::vector<int> ports;
  std::string routes;
  stream.servers.clear();
  for (std::uint32_t i = 0; i < kServers; ++i) {
    const int port = FreePort();
    const int cluster_port = FreePort();
    ports.insert(ports.end(), {port, cluster_port});
    stream.servers.push_back("nats://127.0.0.1:" + std::to_string(port));
    routes += (i > 0 ? ", " : "") + ("\"nats-route://127.0.0.1:" + std::to_string(cluster_port) + "\"");
  }
  std::vector<ServerConfig> configs;
  for (std::size_t i = 0; i < kServers; ++i) {
    const std::string name = "server" + std::to_string(i + 1);
    const std::string file = directory + "/" + name + ".conf";
    test::WriteFile(file, "server_name: " + name + "\nlisten: \"127.0.0.1:" + std::to_string(ports[2 * i]) +
                              "\"\ncluster { name: test, listen: \"127.0.0.1:" + std::to_string(ports[2 * i + 1]) +
                              "\", routes: [" + routes + "] }\njetstream { store_dir: \"" + directory + "/" + name +
                              "\" }\n");
    configs.push_back({.name = name, .words = {"nats-server", "-c", file}, .log = directory + "/" + name + ".log"});
  }
  return configs;
}

void CreateStreamOfNewServers(const relay::StreamSettings& stream) {
  const auto end = std::chrono::steady_clock::now() + kStartMax;
  while (const auto problem = relay::CreateStream(stream)) {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error("no stream: " + *problem);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

}  // namespace qx::chaos
