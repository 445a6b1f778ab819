// Sends an HTTP request of a test to a port of the loopback network.
#pragma once

#include <cstdint>
#include <string>

namespace qx::test {

struct HttpReply {
  int status = 0;  // 0: there was no reply
  std::string head;
  std::string body;
};

// Opens a connection to the port, with IPv6 or else IPv4. -1 if nobody listens.
int ConnectTo(std::uint16_t port);

HttpReply HttpGet(std::uint16_t port, const std::string& path, const std::string& method = "GET");

}  // namespace qx::test
