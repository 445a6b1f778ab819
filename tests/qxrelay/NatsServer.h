// A nats-server with JetStream for one test, on a loopback port that the system chooses.
#pragma once

#include <sys/types.h>

#include <string>

#include "tests/support/Support.h"

namespace qx::test {

// Threads: one thread. Owns: the process, which dies with the test, and its directory.
// Failure: an exception, which fails the test, if the server cannot be started.
class NatsServer {
 public:
  // `config` is appended to the server's configuration.
  explicit NatsServer(std::string config = {});
  ~NatsServer();
  NatsServer(const NatsServer&) = delete;
  NatsServer& operator=(const NatsServer&) = delete;

  // The address, such as "nats://127.0.0.1:34567". It stays the same after Restart.
  [[nodiscard]] std::string Url() const { return "nats://127.0.0.1:" + std::to_string(port_); }

  // Kills the server at once. The data that it has written stays.
  void Kill();
  // Starts the server again on the same port with the same files, and with the new configuration if one is given.
  void Restart();
  void Restart(std::string config);
  // Removes all data that the server has stored. The server must not be running.
  void EraseStore();
  // Pause stops the process with SIGSTOP, and Continue lets it run again.
  void Pause();
  void Continue();

 private:
  void Start();
  [[nodiscard]] int ReadPort() const;
  void WaitUntilReady() const;

  TempDir dir_;
  std::string config_;
  int port_ = -1;
  pid_t process_ = 0;
};

}  // namespace qx::test
