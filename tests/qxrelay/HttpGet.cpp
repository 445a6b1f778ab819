#include "tests/qxrelay/HttpGet.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace qx::test {

namespace {

template <typename Address>
int Connected(int family, const Address& address) {
  const int connection = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  timeval limit = {.tv_sec = 10, .tv_usec = 0};
  setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return connection;
  close(connection);
  return -1;
}

}  // namespace

int ConnectTo(std::uint16_t port) {
  sockaddr_in6 six = {};
  six.sin6_family = AF_INET6;
  six.sin6_port = htons(port);
  six.sin6_addr = in6addr_loopback;
  if (const int connection = Connected(AF_INET6, six); connection >= 0) return connection;
  sockaddr_in four = {};
  four.sin_family = AF_INET;
  four.sin_port = htons(port);
  four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return Connected(AF_INET, four);
}

HttpReply HttpGet(std::uint16_t port, const std::string& path, const std::string& method) {
  const int connection = ConnectTo(port);
  const std::string request = method + " " + path + " HTTP/1.0\r\nHost: localhost\r\n\r\n";
  (void)send(connection, request.data(), request.size(), MSG_NOSIGNAL);  // a refused one need not be read whole
  std::string text;
  char bytes[4096];
  for (ssize_t size = 1; size > 0;) {
    size = recv(connection, bytes, sizeof bytes, 0);
    if (size > 0) text.append(bytes, static_cast<std::size_t>(size));
  }
  close(connection);
  HttpReply reply;
  const std::size_t end = text.find("\r\n\r\n");
  if (!text.starts_with("HTTP/1.") || end == std::string::npos) return reply;
  reply.status = std::atoi(text.c_str() + 9);
  reply.head = text.substr(0, end);
  reply.body = text.substr(end + 4);
  return reply;
}

}  // namespace qx::test
