// A cluster of three nats-servers with JetStream for one test, on free loopback ports.
#pragma once

#include <sys/types.h>

#include <array>
#include <string>
#include <vector>

#include "tests/support/Support.h"

namespace qx::test {

// Threads: one thread. Owns: the processes, which die with the test, and their directory.
class NatsCluster {
 public:
  static constexpr std::size_t kServers = 3;

  NatsCluster();
  ~NatsCluster();
  NatsCluster(const NatsCluster&) = delete;
  NatsCluster& operator=(const NatsCluster&) = delete;

  // The address of each server: "nats://127.0.0.1:34567".
  [[nodiscard]] const std::vector<std::string>& Urls() const { return urls_; }

  // Kills the server of this name. False if there is no such server.
  bool Kill(const std::string& name);
  [[nodiscard]] std::string Log() const;

 private:
  TempDir dir_;
  std::vector<std::string> urls_;
  std::array<pid_t, kServers> processes_ = {};
};

}  // namespace qx::test
