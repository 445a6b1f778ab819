#include "tests/qxrelay/NatsCluster.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qx::test {

namespace {

// Ports that are free now. They are all open at the same time, so that no port is chosen twice.
std::vector<int> FreePorts(std::size_t count) {
  std::vector<int> sockets;
  std::vector<int> ports;
  for (std::size_t i = 0; i < count; ++i) {
    sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    (void)bind(sockets.back(), reinterpret_cast<const sockaddr*>(&address), size);
    (void)getsockname(sockets.back(), reinterpret_cast<sockaddr*>(&address), &size);
    ports.push_back(ntohs(address.sin_port));
  }
  for (const int one : sockets) close(one);
  return ports;
}

std::string NameOf(std::size_t server) { return "s" + std::to_string(server + 1); }

}  // namespace

NatsCluster::NatsCluster() {
  const std::vector<int> ports = FreePorts(2 * kServers);
  std::string routes;
  for (std::size_t i = 0; i < kServers; ++i) {
    urls_.push_back("nats://127.0.0.1:" + std::to_string(ports[i]));
    routes += (routes.empty() ? "" : ", ") + ("\"nats-route://127.0.0.1:" + std::to_string(ports[kServers + i]) + "\"");
  }
  for (std::size_t i = 0; i < kServers; ++i) {
    const std::string file = dir_.File(NameOf(i) + ".conf");
    WriteFile(file, "server_name: " + NameOf(i) + "\nlisten: \"127.0.0.1:" + std::to_string(ports[i]) +
                        "\"\ncluster { name: test, listen: \"127.0.0.1:" + std::to_string(ports[kServers + i]) +
                        "\", routes: [" + routes + " ] }\njetstream { store_dir: \"" + dir_.File(NameOf(i)) + "\" }\n");
    processes_[i] = fork();
    if (processes_[i] != 0) continue;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int log = open(dir_.File("log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    execlp("nats-server", "nats-server", "-c", file.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
}

NatsCluster::~NatsCluster() {
  for (std::size_t i = 0; i < kServers; ++i) (void)Kill(NameOf(i));
}

bool NatsCluster::Kill(const std::string& name) {
  for (std::size_t i = 0; i < kServers; ++i) {
    if (NameOf(i) != name || processes_[i] <= 0) continue;
    kill(processes_[i], SIGKILL);
    waitpid(processes_[i], nullptr, 0);
    processes_[i] = 0;
    return true;
  }
  return false;
}

std::string NatsCluster::Log() const { return Exists(dir_.File("log")) ? ReadFile(dir_.File("log")) : ""; }

}  // namespace qx::test
