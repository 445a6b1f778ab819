#include "tests/qxrelay/chaos/ChildProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

namespace qx::chaos {

namespace {

constexpr std::chrono::seconds kEndMax{10};

int CodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status); }

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> words, std::string log)
    : words_(std::move(words)), log_(std::move(log)) {}

ChildProcess::~ChildProcess() { (void)End(SIGKILL); }

void ChildProcess::Start() {
  std::vector<char*> argv;
  for (std::string& word : words_) argv.push_back(word.data());
  argv.push_back(nullptr);
  started_ = std::chrono::steady_clock::now();
  process_ = fork();
  if (process_ < 0) throw std::runtime_error("cannot start " + words_.front());
  if (process_ > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int log = open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  dup2(log, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  execvp(argv[0], argv.data());
  _exit(127);
}

void ChildProcess::Signal(int signal) const {
  if (process_ != 0) kill(process_, signal);
}

int ChildProcess::End(int signal) {
  if (process_ == 0) return 0;
  Signal(signal);
  const auto end = std::chrono::steady_clock::now() + kEndMax;
  for (;;) {
    if (const std::optional<int> code = Ended()) return *code;
    if (std::chrono::steady_clock::now() > end) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  Signal(SIGKILL);
  int status = 0;
  waitpid(std::exchange(process_, 0), &status, 0);
  return -SIGKILL;
}

std::optional<int> ChildProcess::Ended() {
  int status = 0;
  if (process_ == 0 || waitpid(process_, &status, WNOHANG) != process_) return std::nullopt;
  process_ = 0;
  return CodeOf(status);
}

int FreePort() {
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  const bool has_port = bind(connection, any, size) == 0 && getsockname(connection, any, &size) == 0;
  close(connection);
  if (!has_port) throw std::runtime_error("no port is free");
  return ntohs(address.sin_port);
}

}  // namespace qx::chaos
