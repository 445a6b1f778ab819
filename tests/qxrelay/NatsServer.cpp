#include "tests/qxrelay/NatsServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>
#include <utility>

namespace qx::test {

namespace {

constexpr std::chrono::seconds kStartMax{20};

// Checks the condition every 5 ms until it is true. After kStartMax it throws an exception that names `what`.
template <typename Condition>
void WaitFor(const char* what, Condition condition) {
  const auto end = std::chrono::steady_clock::now() + kStartMax;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error(std::string("nats-server: ") + what);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

bool Accepts(int port) {
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool is_open = connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(connection);
  return is_open;
}

}  // namespace

NatsServer::NatsServer(std::string config) : config_(std::move(config)) { Start(); }

NatsServer::~NatsServer() { Kill(); }

void NatsServer::Kill() {
  if (process_ == 0) return;
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  process_ = 0;
}

void NatsServer::Restart() {
  Kill();
  Start();
}

void NatsServer::Restart(std::string config) {
  config_ = std::move(config);
  Restart();
}

void NatsServer::EraseStore() { std::filesystem::remove_all(dir_.File("store")); }

void NatsServer::Pause() {
  kill(process_, SIGSTOP);
  waitpid(process_, nullptr, WUNTRACED);  // its threads may run on for a moment
}

void NatsServer::Continue() { kill(process_, SIGCONT); }

void NatsServer::Start() {
  const std::string file = dir_.File("server.conf");
  WriteFile(file, "listen: \"127.0.0.1:" + std::to_string(port_) + "\"\nports_file_dir: \"" + dir_.Path() +
                      "\"\njetstream { store_dir: \"" + dir_.File("store") + "\" }\n" + config_);
  process_ = fork();
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int log = open(dir_.File("log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    execlp("nats-server", "nats-server", "-c", file.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  if (process_ < 0) throw std::runtime_error("nats-server: no process");
  if (port_ < 0) {
    WaitFor("no ports file", [&] { return ReadPort() > 0; });
    port_ = ReadPort();
  }
  WaitUntilReady();
}

// Reads the port from the server's file: {"nats":["nats://127.0.0.1:34567"]}
int NatsServer::ReadPort() const {
  const std::string file = dir_.File("nats-server_" + std::to_string(process_) + ".ports");
  if (!Exists(file)) return -1;
  const std::string text = ReadFile(file);
  const std::size_t at = text.find("127.0.0.1:");
  if (at == std::string::npos) return -1;
  const char* const begin = text.c_str() + at + std::string("127.0.0.1:").size();
  int port = -1;
  std::from_chars(begin, text.c_str() + text.size(), port);
  return port;
}

void NatsServer::WaitUntilReady() const {
  WaitFor("does not accept connections", [&] { return Accepts(port_); });
}

}  // namespace qx::test
