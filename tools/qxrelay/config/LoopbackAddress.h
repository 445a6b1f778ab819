// An address of this machine's loopback network with a port, on which a service may listen: no other machine reaches
// it.
#pragma once

#include <sys/socket.h>

#include <optional>
#include <string_view>

namespace qx::relay {

struct LoopbackAddress {
  sockaddr_storage address = {};  // a sockaddr_in or a sockaddr_in6

  [[nodiscard]] bool IsV6() const { return address.ss_family == AF_INET6; }
};

// "127.0.0.1:9464", "[::1]:9464"; port 0 is one that the system picks. Unset for anything else, also for names.
// [any thread]
[[nodiscard]] std::optional<LoopbackAddress> LoopbackAddressOf(std::string_view text);

}  // namespace qx::relay
