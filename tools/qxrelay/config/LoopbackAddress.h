// Parses a loopback address with a port, on which a service may listen. No other machine can connect to such an
// address.
#pragma once

#include <sys/socket.h>

#include <optional>
#include <string_view>

namespace qx::relay {

struct LoopbackAddress {
  sockaddr_storage address = {};  // a sockaddr_in or a sockaddr_in6

  [[nodiscard]] bool IsV6() const { return address.ss_family == AF_INET6; }
};

// The address of a text such as "127.0.0.1:9464" or "[::1]:9464". With port 0 the system chooses a port. Unset for
// other texts, also for names.
// [any thread]
[[nodiscard]] std::optional<LoopbackAddress> LoopbackAddressOf(std::string_view text);

}  // namespace qx::relay
