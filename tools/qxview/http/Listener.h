// Opens the socket on which the server listens: an address of this machine's loopback network, or a Unix socket. No
// other machine can connect to it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/File.h"

namespace qx::view {

struct Listener {
  file::Descriptor socket;
  std::string address;      // as a browser writes it, "127.0.0.1:8070"; "localhost" for a path
  std::uint16_t port = 80;  // of the address
  std::string problem;      // why there is no socket; empty if there is one
};

// Listens on `address`: "127.0.0.1:8070", "[::1]:8070". For port 0 the system chooses a port. Any other address is
// refused. [any thread]
[[nodiscard]] Listener ListenOnLoopback(std::string_view address, int backlog);

// Listens on a Unix socket of mode 0600. A socket on which nobody listens any more is replaced, but no other file. [any
// thread]
[[nodiscard]] Listener ListenOnPath(const std::string& path, int backlog);

}  // namespace qx::view
