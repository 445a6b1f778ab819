#include "tools/qxview/http/Listener.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "tools/qxrelay/config/LoopbackAddress.h"

namespace qx::view {

namespace {

constexpr mode_t kPrivate = 0177;  // the umask for a socket of mode 0600

Listener Refused(std::string problem) {
  Listener listener;
  listener.problem = std::move(problem);
  return listener;
}

Listener Failed(const std::string& what, std::string_view option) {
  const int error = errno;
  const std::string advice = error == EADDRINUSE ? "; give another one with " + std::string(option) : "";
  return Refused("cannot listen on " + what + ": " + std::strerror(error) + advice);
}

file::Descriptor NewSocket(int family) {
  return file::Descriptor(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

std::uint16_t PortOf(int socket_number) {
  sockaddr_storage address = {};
  socklen_t size = sizeof address;
  if (getsockname(socket_number, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
  const bool is_v6 = address.ss_family == AF_INET6;
  return ntohs(is_v6 ? reinterpret_cast<const sockaddr_in6&>(address).sin6_port
                     : reinterpret_cast<const sockaddr_in&>(address).sin_port);
}

std::optional<sockaddr_un> PathAddress(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

// Whether the path is a socket that refuses connections, because its server was killed.
bool IsAbandoned(const std::string& path, const sockaddr_un& address) {
  struct stat status = {};
  if (file::StatusOf(path.c_str(), status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISSOCK(status.st_mode)) return false;
  const file::Descriptor probe = NewSocket(AF_UNIX);
  const int result = connect(probe.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return result != 0 && errno == ECONNREFUSED;
}

bool BindPrivate(int socket_number, const sockaddr_un& address) {
  const mode_t before = umask(kPrivate);
  const int result = bind(socket_number, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int error = errno;
  (void)umask(before);
  errno = error;
  return result == 0;
}

}  // namespace

Listener ListenOnLoopback(std::string_view address, int backlog) {
  const std::string text(address);
  const std::optional<relay::LoopbackAddress> loopback = relay::LoopbackAddressOf(address);
  if (!loopback.has_value()) {
    return Refused("\"" + text +
                   "\" is no address of this machine's loopback network; give 127.0.0.1:8070, or --socket "
                   "PATH (for other machines: ssh -L)");
  }
  Listener listener;
  listener.socket = NewSocket(loopback->address.ss_family);
  const int yes = 1;
  (void)setsockopt(listener.socket.Number(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);  // else a restart waits
  const socklen_t size = loopback->IsV6() ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  const auto* const name = reinterpret_cast<const sockaddr*>(&loopback->address);
  const bool is_open = listener.socket.IsOpen() && bind(listener.socket.Number(), name, size) == 0 &&
                       listen(listener.socket.Number(), backlog) == 0;
  if (!is_open) return Failed(text, "--listen (port 0: any free one)");
  listener.port = PortOf(listener.socket.Number());
  listener.address = text.substr(0, text.rfind(':') + 1) + std::to_string(listener.port);
  return listener;
}

Listener ListenOnPath(const std::string& path, int backlog) {
  const std::optional<sockaddr_un> address = PathAddress(path);
  if (!address.has_value()) return Refused("the path of the socket is empty or too long: \"" + path + "\"");
  if (IsAbandoned(path, *address)) (void)file::Remove(path.c_str());  // if this fails, bind reports it
  Listener listener;
  listener.socket = NewSocket(AF_UNIX);
  const bool is_open = listener.socket.IsOpen() && BindPrivate(listener.socket.Number(), *address) &&
                       listen(listener.socket.Number(), backlog) == 0;
  if (!is_open) return Failed(path, "--socket");
  listener.address = "localhost";
  return listener;
}

}  // namespace qx::view
