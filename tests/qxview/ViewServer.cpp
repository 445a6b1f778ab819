#include "tests/qxview/ViewServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "tests/support/Support.h"

namespace qx::test {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLong{20'000};

int WaitMs(Clock::time_point end) {
  const auto rest = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
  return rest > 0 ? static_cast<int>(rest) : 0;
}

bool EqualsIgnoringCase(std::string_view left, std::string_view right) {
  return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

// The text of a body that is sent in chunks.
std::string WithoutChunks(std::string_view body) {
  std::string text;
  while (!body.empty()) {
    const std::size_t size = std::strtoul(std::string(body.substr(0, 16)).c_str(), nullptr, 16);
    const std::size_t begin = body.find("\r\n");
    if (size == 0 || begin == std::string_view::npos) break;
    text += body.substr(begin + 2, size);
    body.remove_prefix(std::min(body.size(), begin + 2 + size + 2));
  }
  return text;
}

WebReply Parsed(const std::string& text) {
  WebReply reply;
  const std::size_t end = text.find("\r\n\r\n");
  if (!text.starts_with("HTTP/1.1 ") || end == std::string::npos) return reply;
  reply.status = std::atoi(text.c_str() + 9);  // NOLINT(cert-err34-c): 0 is no status
  reply.head = text.substr(0, end + 2);
  reply.body = text.substr(end + 4);
  if (reply.Header("Transfer-Encoding") == "chunked") reply.body = WithoutChunks(reply.body);
  return reply;
}

}  // namespace

std::string WebReply::Header(const std::string& name) const {
  for (std::size_t at = head.find("\r\n"); at != std::string::npos && at + 2 < head.size();
       at = head.find("\r\n", at + 2)) {
    const std::string line = head.substr(at + 2, head.find("\r\n", at + 2) - at - 2);
    const std::size_t colon = line.find(": ");
    if (colon != std::string::npos && EqualsIgnoringCase(line.substr(0, colon), name)) return line.substr(colon + 2);
  }
  return {};
}

WebConnection::WebConnection(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
  close(std::exchange(socket_, -1));
}

WebConnection::WebConnection(WebConnection&& other) noexcept
    : socket_(std::exchange(other.socket_, -1)), text_(std::move(other.text_)), has_ended_(other.has_ended_) {}

WebConnection::~WebConnection() {
  if (socket_ >= 0) close(socket_);
}

bool WebConnection::Send(std::string_view bytes) const {
  return send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool WebConnection::ReadUntil(milliseconds time, std::string_view text) {
  const Clock::time_point end = Clock::now() + time;
  char bytes[65536];
  while (!has_ended_) {
    if (!text.empty() && text_.find(text) != std::string::npos) return true;
    pollfd file = {socket_, POLLIN, 0};
    if (poll(&file, 1, WaitMs(end)) != 1) return false;
    const ssize_t count = recv(socket_, bytes, sizeof bytes, 0);
    has_ended_ = count <= 0;
    if (count > 0) text_.append(bytes, static_cast<std::size_t>(count));
  }
  return text.empty() || text_.find(text) != std::string::npos;
}

bool WebConnection::WaitFor(std::string_view text, milliseconds time) { return ReadUntil(time, text); }

bool WebConnection::WaitForEnd(milliseconds time) { return ReadUntil(time, {}); }

ViewServer::ViewServer(Words arguments) {
  int ends[2] = {};
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  arguments.insert(arguments.begin(), {QX_QXVIEW, "--listen", "127.0.0.1:0"});
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  process_ = fork();
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(ends[1], STDOUT_FILENO);
    const int nothing = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nothing, STDERR_FILENO);
    execv(QX_QXVIEW, argv.data());
    _exit(127);
  }
  close(ends[1]);
  output_ = ends[0];
  ReadAddress();
}

ViewServer::~ViewServer() {
  (void)End(SIGKILL);
  close(output_);
}

// Reads the line "http://127.0.0.1:PORT/#token=TOKEN\n".
void ViewServer::ReadAddress() {
  std::string line;
  char byte = 0;
  while (read(output_, &byte, 1) == 1 && byte != '\n') line += byte;
  const std::size_t colon = line.rfind(':');
  const std::size_t sign = line.find("#token=");
  if (sign == std::string::npos) throw std::runtime_error("qxview did not start: " + line);
  port_ = static_cast<std::uint16_t>(std::stoi(line.substr(colon + 1)));
  token_ = line.substr(sign + 7);
}

void ViewServer::RenewToken() {
  kill(process_, SIGHUP);
  ReadAddress();
}

int ViewServer::End(int signal) {
  if (process_ == 0) return 0;
  kill(process_, signal);
  int status = 0;
  waitpid(std::exchange(process_, 0), &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

long ViewServer::PeakKb() const {
  const std::string status = ReadFile("/proc/" + std::to_string(process_) + "/status");
  return std::strtol(status.c_str() + status.find("VmHWM:") + 6, nullptr, 10);
}

WebReply ViewServer::LogIn() {
  WebReply reply = Ask({.method = "POST", .target = "/api/v1/session", .body = "token=" + token_});
  const std::string cookie = reply.Header("Set-Cookie");
  if (reply.status == 204) cookie_ = cookie.substr(0, cookie.find(';'));
  return reply;
}

std::string ViewServer::Bytes(const WebRequest& request) const {
  std::map<std::string, std::string> headers = request.headers;
  headers.try_emplace("Host", Host());
  if (!cookie_.empty()) headers.try_emplace("Cookie", cookie_);
  if (!request.body.empty()) headers.try_emplace("Content-Length", std::to_string(request.body.size()));
  std::string text = request.method + " " + request.target + " HTTP/1.1\r\n";
  for (const auto& [name, value] : headers) {
    if (!value.empty()) text += name + ": " + value + "\r\n";
  }
  return text + "\r\n" + request.body;
}

WebReply ViewServer::Ask(WebRequest request) const {
  WebConnection connection(port_);
  request.headers.try_emplace("Connection", "close");
  if (!connection.IsOpen() || !connection.Send(Bytes(request))) return {};
  (void)connection.WaitForEnd(kLong);
  return Parsed(connection.Text());
}

WebConnection ViewServer::Events(const std::string& query) const {
  WebConnection connection(port_);
  (void)connection.Send(Bytes({.target = "/api/v1/events?" + query}));
  (void)connection.WaitFor("retry:", kLong);
  return connection;
}

}  // namespace qx::test
