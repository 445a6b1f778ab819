#include "tools/qxrelay/config/LoopbackAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>

namespace qx::relay {

namespace {

constexpr std::uint32_t kLoopbackNetwork = 127;
constexpr unsigned kNetworkShift = 24;

std::optional<std::uint16_t> PortOf(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return port;
}

template <typename Address>
LoopbackAddress Stored(const Address& address) {
  LoopbackAddress stored;
  std::memcpy(&stored.address, &address, sizeof address);
  return stored;
}

}  // namespace

std::optional<LoopbackAddress> LoopbackAddressOf(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::optional<std::uint16_t> port = PortOf(text.substr(colon + 1));
  if (!port.has_value()) return std::nullopt;
  const std::string host(text.substr(0, colon));
  if (host == "[::1]") {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(*port);
    address.sin6_addr = in6addr_loopback;
    return Stored(address);
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(*port);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) return std::nullopt;
  if (ntohl(address.sin_addr.s_addr) >> kNetworkShift != kLoopbackNetwork) return std::nullopt;
  return Stored(address);
}

}  // namespace qx::relay
